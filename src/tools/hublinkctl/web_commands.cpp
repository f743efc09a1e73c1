// The subcommands that give a hub's figures to other programs: metrics, and serve, which has a page
// for people too.
#include "platform/clock.h"
#include "platform/process.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/metrics.h"
#include "tools/hublinkctl/status_client.h"
#include "tools/hublinkctl/web/web_server.h"

namespace hublinkctl {
namespace {

constexpr int kStep = 50;  // ms

struct ServeOptions {
  std::string http = "127.0.0.1:0";
  bool anyAddress = false;
  bool anyUser = false;
};

// All that the hub tells of itself at one time.
std::optional<Facts> takeSnapshot(StatusClient& client) {
  const auto hub = client.hub();
  if (!hub) return std::nullopt;
  Facts snapshot = {{"time", platform::unixMilliseconds()}, {"hub", *hub}};
  const std::pair<const char*, Listed> kLists[] = {{"plugins", Listed::plugins},
                                                   {"services", Listed::services},
                                                   {"links", Listed::links},
                                                   {"launches", Listed::launches}};
  for (const auto& [name, what] : kLists) {
    auto items = client.list(what);
    if (!items) return std::nullopt;
    snapshot[name] = std::move(*items);
  }
  return snapshot;
}

bool metrics(Session& session) {
  StatusClient client(session);
  if (!client.open()) return false;
  const auto snapshot = takeSnapshot(client);
  return snapshot && session.printText(metricsText(*snapshot));
}

// Serves the session, which is this thread's alone, and keeps the board up to date.
bool keepBoard(Session& session, StatusClient& client, Board& board) {
  while (!platform::stopRequested()) {
    if (!session.serve(kStep)) return false;
    if (!board.isWanted()) continue;
    session.restartClock();
    auto snapshot = takeSnapshot(client);
    if (!snapshot) return false;
    board.put(std::move(*snapshot));
  }
  return true;
}

bool serve(Session& session, const ServeOptions& options) {
  const WebAddress address = *webAddressIn(options.http);
  if (!address.isLoopback() && !options.anyAddress)
    return session.fail(ExitCode::usage, options.http +
                                             " can be reached from other machines: that takes "
                                             "--any-address");
  StatusClient client(session);
  if (!client.open()) return false;
  platform::installStopSignals();
  Board board;
  if (!client.subscribe([&board](const Facts& event) { board.add(event); }))
    return session.failGone();
  WebServer server(board, options.anyUser);
  if (!server.start(address))
    return session.fail(ExitCode::usage, "it isn't possible to listen on " + options.http);
  const bool isServed = session.print(Facts{{"url", "http://" + address.host + ':' +
                                                        std::to_string(server.port()) + '/'}}) &&
                        keepBoard(session, client, board);
  board.close();
  return isServed;
}

}  // namespace

void addWebCommands(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command =
      app.add_subcommand("metrics", "Print the hub's figures in the text format of Prometheus");
  runsOnHub(command, options, exitCode, metrics);

  command = app.add_subcommand(
      "serve", "Show the hub as a page for the browser, and its figures to programs, over HTTP");
  prints(command, options);
  const auto how = std::make_shared<ServeOptions>();
  command
      ->add_option("--http", how->http,
                   "Where to listen; port 0: one that the system picks, which is printed")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str()
      ->check(CLI::Validator(
          [](const std::string& text) {
            return webAddressIn(text) ? std::string()
                                      : "\"" + text + "\" is no IPv4 address with a port";
          },
          ""));
  command->add_flag("--any-address", how->anyAddress,
                    "Allow an address that other machines can reach, with what the hub tells");
  addNote(command,
          "Other users of this machine are refused, unless --any-user is given.\n"
          "Paths: / is the page; /metrics for Prometheus; /api/hub, /api/plugins, /api/services, "
          "/api/links, /api/launches and /api/all are JSON; /api/events tells what happens.");
  runsOnHub(command, options, exitCode, [how](Session& session) { return serve(session, *how); });
}

}  // namespace hublinkctl
