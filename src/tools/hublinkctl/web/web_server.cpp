#include "tools/hublinkctl/web/web_server.h"

#include <httplib.h>

#include <charconv>
#include <random>

#include "indgen/format.h"
#include "platform/credentials.h"
#include "tools/hublinkctl/metrics.h"
#include "tools/hublinkctl/web/page.h"

namespace hublinkctl {
namespace {

// A stream of events holds a thread for as long as somebody reads it.
constexpr int kMostStreams = 24;
constexpr std::size_t kThreads = kMostStreams + 8;

constexpr const char* kText = "text/plain; charset=utf-8";
constexpr const char* kParts[] = {"hub", "plugins", "services", "links", "launches", "all"};

std::optional<int> numberIn(const std::string& text, int most) {
  int number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0 || number > most)
    return std::nullopt;
  return number;
}

// Four numbers: no name, which somebody else's name server could lead here.
bool isAddress(const std::string& text) {
  int parts = 0;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != text.npos; begin = end + 1, ++parts) {
    end = text.find('.', begin);
    if (!numberIn(text.substr(begin, end == text.npos ? end : end - begin), 255)) return false;
  }
  return parts == 4;
}

// A word that nobody who hasn't got the page can know: what the page's own style and program are
// told by.
std::string newNonce() {
  std::random_device random;
  std::string nonce;
  for (int i = 0; i < 4; ++i) nonce += gen_asprintf("%08x", random()).get();
  return nonce;
}

void sendPage(httplib::Response& response) {
  const std::string nonce = newNonce();
  std::string page = kPage;
  const std::string mark = kPageNonce;
  for (std::size_t place = 0; (place = page.find(mark, place)) != page.npos;)
    page.replace(place, mark.size(), nonce);
  response.headers.erase("Content-Security-Policy");  // of all answers
  response.set_header("Content-Security-Policy",
                      "default-src 'self'; script-src 'nonce-" + nonce + "'; style-src 'nonce-" +
                          nonce +
                          "'; img-src data:; object-src 'none'; base-uri 'none'; "
                          "form-action 'none'; frame-ancestors 'none'");
  response.set_content(page, "text/html; charset=utf-8");
}

}  // namespace

std::optional<WebAddress> webAddressIn(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == text.npos) return std::nullopt;
  const auto port = numberIn(text.substr(colon + 1), 65535);
  WebAddress address{text.substr(0, colon), port.value_or(0)};
  if (address.host == "localhost") address.host = "127.0.0.1";
  if (!port || !isAddress(address.host)) return std::nullopt;
  return address;
}

WebServer::WebServer(Board& board, bool anyUser)
    : board_(board), anyUser_(anyUser), server_(std::make_unique<httplib::Server>()) {}

WebServer::~WebServer() {
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

bool WebServer::start(const WebAddress& address) {
  address_ = address;
  // The answers' texts go out whole, and nobody can put a second request into the first one's body.
  server_->set_keep_alive_max_count(1);
  server_->set_payload_max_length(0);
  server_->new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  server_->set_default_headers({{"Content-Security-Policy", "default-src 'none'"},
                                {"Cross-Origin-Resource-Policy", "same-origin"},
                                {"X-Content-Type-Options", "nosniff"},
                                {"X-Frame-Options", "DENY"},
                                {"Referrer-Policy", "no-referrer"},
                                {"Cache-Control", "no-store"}});
  server_->set_pre_routing_handler([this](const auto& request, auto& response) {
    using Outcome = httplib::Server::HandlerResponse;
    const char* refusal = refusalOf(request);
    if (!refusal && request.method == "GET") return Outcome::Unhandled;
    response.status = refusal ? 403 : 405;
    if (!refusal) response.set_header("Allow", "GET");
    response.set_content(std::string(refusal ? refusal : "only GET") + "\n", kText);
    return Outcome::Handled;
  });
  addAnswers();
  if (address_.port != 0) {
    if (!server_->bind_to_port(address_.host, address_.port)) return false;
  } else if ((address_.port = server_->bind_to_any_port(address_.host)) <= 0) {
    return false;
  }
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  return true;
}

void WebServer::addAnswers() {
  const auto answers = [this](const std::string& path, auto fill) {
    server_->Get(path, [this, fill](const httplib::Request&, httplib::Response& response) {
      if (const Board::Snapshot snapshot = board_.read()) {
        fill(*snapshot, response);
      } else {
        response.status = 503;
        response.set_content("the hub doesn't answer\n", kText);
      }
    });
  };
  for (const std::string part : kParts)
    answers("/api/" + part, [part](const Facts& snapshot, httplib::Response& response) {
      response.set_content(jsonText(part == "all" ? snapshot : snapshot.at(part)),
                           "application/json");
    });
  answers("/metrics", [](const Facts& snapshot, httplib::Response& response) {
    response.set_content(metricsText(snapshot), "text/plain; version=0.0.4; charset=utf-8");
  });
  server_->Get("/api/events",
               [this](const auto& request, auto& response) { answerEvents(request, response); });
  server_->Get("/", [](const auto&, auto& response) { sendPage(response); });
}

// As server-sent events, whose numbers let a browser go on where it was.
void WebServer::answerEvents(const httplib::Request& request, httplib::Response& response) {
  if (++streams_ > kMostStreams) {
    --streams_;
    response.status = 503;
    response.set_content("too many read the events already\n", kText);
    return;
  }
  const std::string last = request.get_header_value("Last-Event-ID");
  std::uint64_t number = 0;
  std::from_chars(last.data(), last.data() + last.size(), number);
  response.set_chunked_content_provider(
      "text/event-stream",
      [this, number](std::size_t, httplib::DataSink& sink) mutable {
        // Without an event a comment shows that the reader is still there.
        std::string text = ":\n\n";
        for (const Board::Event& event : board_.eventsAfter(number)) {
          if (number != 0 && event.number != number + 1)
            text += "event: lost\ndata: " + std::to_string(event.number - number - 1) + "\n\n";
          number = event.number;
          text += "id: " + std::to_string(number) + "\ndata: " + jsonText(*event.facts) + "\n\n";
        }
        if (!sink.write(text.data(), text.size())) return false;
        if (board_.isClosed()) sink.done();
        return true;
      },
      [this](bool) { --streams_; });
}

bool WebServer::isOfTakenUser(const httplib::Request& request) const {
  using platform::PeerUser;
  static std::mutex mutex;  // the system is asked by one thread at a time
  const std::lock_guard lock(mutex);
  const PeerUser peer =
      platform::userOfClient({request.remote_addr, static_cast<std::uint16_t>(request.remote_port)},
                             {request.local_addr, static_cast<std::uint16_t>(request.local_port)});
  // From elsewhere comes only who may.
  return peer.isOwn() || peer.kind == PeerUser::Kind::elsewhere;
}

const char* WebServer::refusalOf(const httplib::Request& request) const {
  if (!anyUser_ && !isOfTakenUser(request)) return "asked by another user";
  if (request.get_header_value_count("Host") != 1 || !isOwnHost(request.get_header_value("Host")))
    return "this isn't the host that was asked for";
  if (request.has_header("Origin") &&
      (request.get_header_value_count("Origin") != 1 ||
       request.get_header_value("Origin") != "http://" + request.get_header_value("Host")))
    return "asked from another origin";
  const std::string site = request.get_header_value("Sec-Fetch-Site");
  if ((site == "cross-site" || site == "same-site") &&
      request.get_header_value("Sec-Fetch-Mode") != "navigate")
    return "asked from another site";
  return nullptr;
}

bool WebServer::isOwnHost(const std::string& host) const {
  const std::string port = ":" + std::to_string(address_.port);
  // A browser leaves the usual port out.
  const std::string full = address_.port == 80 && host.find(':') == host.npos ? host + port : host;
  if (full.size() <= port.size() || full.compare(full.size() - port.size(), port.npos, port) != 0)
    return false;
  const std::string name = full.substr(0, full.size() - port.size());
  if (name == address_.host) return true;
  if (address_.isEveryAddress()) return isAddress(name) || name == "localhost";
  return address_.isLoopback() && (name == "localhost" || name == "127.0.0.1");
}

}  // namespace hublinkctl
