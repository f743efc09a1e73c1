#include "hublink_plugin/hublink_plugin.h"

#include <algorithm>

#include "active_hub/plugin_options.h"
#include "hublink_plugin/hublink_plugin_spec.h"
#include "indgen/number.h"
#include "indgen/text.h"
#include "libcxxutil/ut_wait.h"
#include "platform/clock.h"
#include "platform/credentials.h"
#include "stp_transport/retry/stp_retryhandler.h"

namespace {

// Milliseconds between two tries to reach a hub that isn't there yet.
constexpr int kConnectPause = 20;
constexpr const char* kConnectionEnded = "the connection to the hub has ended";

// The texts as a message takes them, valid while they live.
std::vector<const char*> pointersOf(const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  return pointers;
}

StringArray arrayOf(const std::vector<const char*>& pointers) {
  return {static_cast<std::int32_t>(pointers.size()), pointers.data()};
}

// Counts down from a limit in milliseconds; a negative one never ends.
class Countdown {
 public:
  explicit Countdown(int milliseconds)
      : endless_(milliseconds < 0),
        end_(platform::monotonicMilliseconds() +
             static_cast<std::uint64_t>(std::max(milliseconds, 0))) {}
  /// Milliseconds that are left, negative without a limit.
  int left() const {
    if (endless_) return -1;
    const std::uint64_t now = platform::monotonicMilliseconds();
    return now >= end_ ? 0 : static_cast<int>(end_ - now);
  }
  /// The same for one step of a wait.
  int step() const { return endless_ ? STP_WAIT_STEP : std::min(left(), STP_WAIT_STEP); }

 private:
  bool endless_;
  std::uint64_t end_;
};

}  // namespace

const char* outcomeText(ServiceReply::Outcome outcome) {
  switch (outcome) {
    case ServiceReply::Outcome::accepted:
      return "accepted";
    case ServiceReply::Outcome::refused:
      return "refused";
    case ServiceReply::Outcome::notFound:
      return "not found";
    case ServiceReply::Outcome::lostProvider:
      return "provider lost";
    case ServiceReply::Outcome::sharedObject:
      return "shared object";
    case ServiceReply::Outcome::timedOut:
      return "timed out";
    case ServiceReply::Outcome::disconnected:
      return "disconnected";
  }
  return "";
}

HublinkPlugin::HublinkPlugin() = default;

HublinkPlugin::~HublinkPlugin() {
  disconnect();
  handlePutOff();
  if (spec_) {
    spec_->detach();
    spec_->setTransport(nullptr);
  }
}

bool HublinkPlugin::isConnected() const {
  return transport_ && transport_->isConnected();
}

bool HublinkPlugin::connect(std::uint16_t port, std::string& error, const char* host,
                            int milliseconds) {
  disconnect();
  const Countdown countdown(milliseconds);
  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  for (;;) {
    reach(*transport, host, port, &status);
    if (status.good())
      return takesHub(*transport, port, error) && attach(transport.get(), error, countdown.left());
    if (countdown.left() == 0) {
      error = status.message;
      return false;
    }
    platform::sleepMilliseconds(kConnectPause);
  }
}

void HublinkPlugin::reach(STPTransport& transport, const char* host, std::uint16_t port,
                          STPStatus* status) const {
  transport.connect(host, port, status, !tcpOnly_);
}

bool HublinkPlugin::takesHub(const STPTransport& transport, std::uint16_t port,
                             std::string& error) const {
  if (anyUser_) return true;
  const platform::PeerUser hub = platform::userOfServer(transport.fileDescriptor());
  if (hub.kind == platform::PeerUser::Kind::elsewhere || hub.isOwn()) return true;
  error = "the hub on port " + std::to_string(port);
  if (hub.kind == platform::PeerUser::Kind::known)
    error += " runs as another user (" + std::to_string(hub.user) + ")";
  else
    error += " has gone, or its user can't be told";
  return false;
}

bool HublinkPlugin::attach(STPTransport* transport, std::string& error, int milliseconds) {
  disconnect();
  if (spec_) {
    spec_->detach();
    spec_->setTransport(nullptr);
  }
  transport_ = CountedPtr<STPTransport>(transport);
  spec_ = makeCounted<HublinkPluginSpec>(this);
  pluginID_ = -1;
  logKept_ = false;
  spec_->setTransport(transport, STP_PLUGIN_RN, STP_HUB_RN);
  STPStatus status;
  spec_->sendNegotiate(true, nullptr, &status);
  serveUntil([this] { return pluginID_ != -1; }, milliseconds);
  if (pluginID_ != -1) return true;
  error = isConnected() ? "the hub has given no plugin ID in time" : transport->status().message;
  disconnect();
  return false;
}

void HublinkPlugin::disconnect() {
  if (!transport_) return;
  flush();
  transport_->disconnect();
  connectionEnded();
}

Hublink_plugin_Impl& HublinkPlugin::hub() {
  return *spec_;
}

void HublinkPlugin::setPersistent(bool persistent) {
  if (isConnected()) spec_->PersistentService(persistent);
}

std::int32_t HublinkPlugin::registerService(const std::string& name, LinkHandler connected,
                                            AcceptHandler accept, int milliseconds) {
  if (!isConnected()) return -1;
  struct Question {
    std::optional<std::int32_t> serviceRN;
    bool awaited = true;
  };
  const auto question = std::make_shared<Question>();
  rnHandlers_.push_back([this, question, name, connected = std::move(connected),
                         accept = std::move(accept)](const std::vector<std::int32_t>& list) {
    question->serviceRN = list.empty() ? -1 : list.front();
    if (list.empty()) return;
    if (question->awaited)
      services_[list.front()] = {name, connected, accept};
    else
      spec_->UnregisterService(list.front());  // the caller was told that it failed
  });
  const char* text = name.c_str();
  spec_->RegisterServiceList({1, &text});
  serveUntil([&] { return question->serviceRN.has_value(); }, milliseconds);
  question->awaited = false;
  return question->serviceRN.value_or(-1);
}

void HublinkPlugin::unregisterService(std::int32_t serviceRN) {
  if (services_.erase(serviceRN) == 0 || !isConnected()) return;
  spec_->UnregisterService(serviceRN);
}

ServiceReply HublinkPlugin::requestService(const ServiceQuery& query, int milliseconds) {
  const auto reply = std::make_shared<std::optional<ServiceReply>>();
  requestService(query, [reply](const ServiceReply& answer) { *reply = answer; });
  const std::int32_t cookie = lastCookie_;
  serveUntil([&] { return reply->has_value(); }, milliseconds);
  if (reply->has_value()) return **reply;
  ServiceReply failure;
  failure.outcome =
      isConnected() ? ServiceReply::Outcome::timedOut : ServiceReply::Outcome::disconnected;
  replyHandlers_.erase(cookie);
  return failure;
}

void HublinkPlugin::requestService(const ServiceQuery& query, ReplyHandler handler) {
  if (!isConnected()) {
    if (handler) handler(ServiceReply());
    return;
  }
  replyHandlers_[++lastCookie_] = std::move(handler);
  const auto pairs = pointersOf(query.nameValuePairs);
  spec_->RequestServiceConnection(query.serviceName.c_str(), query.providingPluginID,
                                  arrayOf(pairs),
                                  query.workingDir ? query.workingDir->c_str() : nullptr,
                                  query.localOnly, lastCookie_, query.noReuse, query.clientStart);
}

void HublinkPlugin::reserveRNs(std::int32_t count, RNHandler handler) {
  if (!isConnected()) {
    if (handler) handler({});
    return;
  }
  rnHandlers_.push_back(std::move(handler));
  spec_->ReserveRNBlock(count);
}

void HublinkPlugin::requestLocation(LocationHandler handler) {
  if (!isConnected()) {
    if (handler) handler("", -1);
    return;
  }
  locationHandlers_.push_back(std::move(handler));
  spec_->RequestLocation();
}

void HublinkPlugin::requestProvider(const std::string& serviceName, const char* workingDir,
                                    bool startIfNotRunning, ProviderHandler handler) {
  if (!isConnected()) {
    if (handler) handler(-1);
    return;
  }
  providerHandlers_[++lastCookie_] = std::move(handler);
  spec_->RequestPluginIdForService(lastCookie_, serviceName.c_str(), workingDir, startIfNotRunning);
}

void HublinkPlugin::requestValue(std::int32_t pluginID, const std::string& name,
                                 AnswerHandler handler) {
  if (!isConnected()) {
    if (handler) handler(std::nullopt);
    return;
  }
  answerHandlers_.emplace(std::pair(pluginID, name), std::move(handler));
  spec_->RequestValueOfNameOnPlugin(pluginID, name.c_str());
}

void HublinkPlugin::requestPluginLaunch(const std::vector<std::string>& command,
                                        const char* workingDir, PluginHandler handler) {
  if (!isConnected()) {
    if (handler) handler(-1, kConnectionEnded);
    return;
  }
  pluginHandlers_[++lastCookie_] = std::move(handler);
  const auto texts = pointersOf(command);
  spec_->RequestPluginLaunch(arrayOf(texts), lastCookie_, false, workingDir);
}

void HublinkPlugin::requestPluginConnect(const std::string& host, std::uint16_t port,
                                         PluginHandler handler) {
  if (!isConnected()) {
    if (handler) handler(-1, kConnectionEnded);
    return;
  }
  pluginHandlers_[++lastCookie_] = std::move(handler);
  spec_->RequestPluginConnect(host.c_str(), port, lastCookie_);
}

std::optional<PluginCounts> HublinkPlugin::countPlugins(int milliseconds) {
  if (!isConnected()) return std::nullopt;
  const Countdown countdown(milliseconds);
  STPRetryHandler limit(transport_.get());
  limit.setStep([&] { return serve(countdown.step()) && countdown.left() != 0; });
  PluginCounts counts;
  if (!spec_->NumPersistentServices(&counts.persistent, &counts.total, &limit)) return std::nullopt;
  return counts;
}

void HublinkPlugin::run() {
  stopped_ = false;
  while (!stopped_ && serve(STP_WAIT_STEP)) {
  }
}

bool HublinkPlugin::serve(int milliseconds) {
  if (isConnected()) {
    const CountedPtr<STPTransport> hold = transport_;
    const int due = timedCalls_.next();
    const int most = due >= 0 && (milliseconds < 0 || due < milliseconds) ? due : milliseconds;
    hold->serviceOnce(hasToHandle() ? 0 : most);
  }
  if (!isConnected()) connectionEnded();
  handlePutOff();
  tellRoom();
  timedCalls_.callDue();
  return isConnected();  // a handler may have connected again
}

bool HublinkPlugin::serveUntil(const std::function<bool()>& done, int milliseconds) {
  const Countdown countdown(milliseconds);
  bool goesOn = true;
  const auto look = [&] {
    if (done()) return WaitState::reached;
    return goesOn && countdown.left() != 0 ? WaitState::waiting : WaitState::failed;
  };
  const auto pass = [&] { goesOn = serve(countdown.step()); };
  return waitUntil(nullptr, WaitOrder::lookFirst, look, pass) == WaitState::reached;
}

void HublinkPlugin::flush() {
  while (wantsWrite()) {
    const std::int64_t before = transport_->writeCount();
    transport_->handleWrite();
    if (transport_->writeCount() >= before) return;
  }
}

void HublinkPlugin::setSendLimit(std::int64_t bytes) {
  sendLimit_ = bytes;
  full_ = false;
}

bool HublinkPlugin::isFull() {
  if (full_ && waitingBytes() <= sendLimit_ / 2) {
    full_ = false;
    ++rooms_;
  } else if (!full_ && sendLimit_ > 0 && waitingBytes() >= sendLimit_) {
    full_ = true;
  }
  return full_;
}

// Room that has been there in between counts: handlers that run meanwhile may use up all of it
// again and again.
void HublinkPlugin::awaitRoom(const std::function<bool()>& isVain) {
  const std::uint64_t before = rooms_;
  const int waiting = packetDepth_ > 0 ? 1 : 0;
  waitingHandlers_ += waiting;
  flush();
  serveUntil([&] { return isVain() || !isFull() || rooms_ != before; }, -1);
  waitingHandlers_ -= waiting;
}

void HublinkPlugin::tellRoom() {
  while (!roomAwaited_.empty() && !isFull()) {
    const auto link = roomAwaited_.front().lock();
    roomAwaited_.pop_front();
    if (link) link->tellRoom();
  }
}

void HublinkPlugin::handlePutOff() {
  while (waitingHandlers_ == 0 && !putOff_.empty()) {
    const auto next = std::move(putOff_.front());
    putOff_.pop_front();
    next();
  }
}

bool HublinkPlugin::hasToHandle() const {
  if (!putOff_.empty() && waitingHandlers_ == 0) return true;
  return !roomAwaited_.empty() && (!full_ || waitingBytes() <= sendLimit_ / 2);
}

std::shared_ptr<HublinkLink> HublinkPlugin::openLink(std::int32_t localRN, std::int32_t remoteRN,
                                                     std::int32_t peerPluginID,
                                                     const std::string& serviceName, bool ownsRN) {
  std::shared_ptr<HublinkLink> link(
      new HublinkLink(this, localRN, remoteRN, peerPluginID, serviceName, ownsRN));
  links_[{localRN, remoteRN}] = link;
  return link;
}

void HublinkPlugin::connectionRequested(const ConnectionRequest& request, std::int32_t serviceRN,
                                        std::int32_t remoteRN) {
  const auto place = services_.find(serviceRN);
  if (place == services_.end()) {
    spec_->ConnectionAcceptedEvent(serviceRN, remoteRN, false);
    return;
  }
  const Service service = place->second;  // a handler may withdraw it
  ConnectionRequest named = request;
  named.serviceName = service.name;
  const CountedPtr<STPTransport> asked = transport_;
  const bool accepted = !service.accept || service.accept(named);
  if (transport_.get() != asked.get() || !isConnected()) return;
  if (!accepted) {
    spec_->ConnectionAcceptedEvent(serviceRN, remoteRN, false);
    return;
  }
  // The link listens before the other side can hear of it, and speaks after.
  const auto link = openLink(serviceRN, remoteRN, named.requestingPluginID, service.name, false);
  spec_->ConnectionAcceptedEvent(serviceRN, remoteRN, true);
  if (service.connected) service.connected(link);
}

void HublinkPlugin::connectionReplied(std::int32_t cookie, const ServiceReply& reply,
                                      std::int32_t localRN, std::int32_t serviceRN,
                                      const std::string& serviceName) {
  auto node = replyHandlers_.extract(cookie);
  ServiceReply answer = reply;
  if (reply.outcome == ServiceReply::Outcome::accepted) {
    answer.link = openLink(localRN, serviceRN, reply.pluginID, serviceName, true);
    // Nobody waits any more.
    if (node.empty() || !node.mapped()) answer.link->close();
  } else if (localRN != -1) {
    spec_->ReleaseRN(localRN);
  }
  if (!node.empty() && node.mapped()) node.mapped()(answer);
}

void HublinkPlugin::connectionDropped(std::int32_t localRN, std::int32_t remoteRN) {
  const auto place = links_.find({localRN, remoteRN});
  if (place == links_.end()) return;
  const std::shared_ptr<HublinkLink> link = place->second;
  // Packets may wait for a call to return, but the end of their link doesn't.
  link->takeRest();
  if (!link->isUp()) return;
  links_.erase({localRN, remoteRN});
  if (link->ownsRN_) spec_->ReleaseRN(localRN);
  link->end();
}

void HublinkPlugin::closeLink(HublinkLink& link) {
  const auto node = links_.extract({link.localRN_, link.remoteRN_});
  if (isConnected()) {
    spec_->DropServiceConnection(link.localRN_, link.remoteRN_);
    if (link.ownsRN_) spec_->ReleaseRN(link.localRN_);
  }
  link.end();
}

// Nothing will be answered any more. All tables are taken first: a handler may connect again, and
// what it asks and offers then belongs to the new connection.
void HublinkPlugin::connectionEnded() {
  const auto links = std::exchange(links_, {});
  const auto replies = std::exchange(replyHandlers_, {});
  const auto rns = std::exchange(rnHandlers_, {});
  const auto providers = std::exchange(providerHandlers_, {});
  const auto plugins = std::exchange(pluginHandlers_, {});
  const auto answers = std::exchange(answerHandlers_, {});
  const auto locations = std::exchange(locationHandlers_, {});
  services_.clear();
  for (const auto& [key, link] : links) link->end();
  for (const auto& [cookie, handler] : replies)
    if (handler) handler(ServiceReply());
  for (const auto& handler : rns)
    if (handler) handler({});
  for (const auto& [cookie, handler] : providers)
    if (handler) handler(-1);
  for (const auto& [cookie, handler] : plugins)
    if (handler) handler(-1, kConnectionEnded);
  for (const auto& [question, handler] : answers)
    if (handler) handler(std::nullopt);
  for (const auto& handler : locations)
    if (handler) handler("", -1);
}

std::uint16_t hublinkPortArgument(int argc, char** argv) {
  for (int i = 1; i + 1 < argc; ++i)
    if (gen_equal_nocase(argv[i], plugin_options::kHubPort)) {
      const std::uint32_t port = gen_strtoul(argv[i + 1], nullptr, 0);
      return port <= UINT16_MAX ? static_cast<std::uint16_t>(port) : std::uint16_t{0};
    }
  return 0;
}
