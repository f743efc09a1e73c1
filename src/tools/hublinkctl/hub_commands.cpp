// The subcommands about the hub as such: find, start, status.
#include "indgen/find.h"
#include "indgen/host.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "tools/hublinkctl/commands.h"

namespace hublinkctl {
namespace {

constexpr int kStayStep = 1000;  // ms

struct Location {
  std::string host;
  std::int32_t port = -1;
};

std::optional<Location> locationOf(Session& session) {
  return session.ask<Location>([&](const auto& answered) {
    session.plugin().requestLocation(
        [answered](const std::string& host, std::int32_t port) {
          answered(Location{host, port});
        },
        kNoLimit);
  });
}

bool find(Session& session, const Options& options) {
  const HubRecord record = readHubRecord(options.choice);
  const std::uint16_t port = record.hub.livePort();
  const Facts path = record.path.empty() ? Facts() : Facts(record.path);
  if (port != 0)
    return session.print({{"found", true},
                          {"host", gen_host_name().get()},
                          {"port", port},
                          {"process", record.hub.process},
                          {"record", path}});
  if (options.json && !session.print({{"found", false}, {"record", path}})) return false;
  return session.fail(ExitCode::noHub, whyNoHub(options.choice));
}

struct StartOptions {
  bool everyAddress = false;
  bool stay = false;
  std::string log, internalLog;
};

HubChoice choiceOf(const Options& options, const StartOptions& start) {
  HubChoice choice = options.choice;
  choice.loopbackOnly = !start.everyAddress;
  for (const auto& [option, file] :
       {std::pair("-log", start.log), {"-hl_log_internal", start.internalLog}}) {
    if (file.empty()) continue;
    choice.arguments.emplace_back(option);
    choice.arguments.emplace_back(gen_full_path(file.c_str()).get());
  }
  return choice;
}

bool start(Session& session, const Options& options, const StartOptions& how) {
  const HubChoice choice = choiceOf(options, how);
  if (how.stay) platform::installStopSignals();
  if (!session.joinOrStart(choice, how.stay)) return false;
  if (!session.hasStarted() && (how.everyAddress || !choice.arguments.empty()))
    tell("the hub was there already, options for a new one are left out");
  const auto location = locationOf(session);
  if (!location || !session.print({{"started", session.hasStarted()},
                                   {"host", location->host},
                                   {"port", location->port},
                                   {"process", session.process()}}))
    return false;
  while (how.stay && !platform::stopRequested())
    if (!session.serve(kStayStep)) return false;
  return true;
}

bool status(Session& session) {
  const std::uint64_t asked = platform::monotonicNanoseconds();
  const auto counts = session.count();
  const auto took = static_cast<double>(platform::monotonicNanoseconds() - asked) / 1e6;
  if (!counts) return false;
  const auto location = locationOf(session);
  return location && session.print({{"host", location->host},
                                    {"port", location->port},
                                    {"process", session.process()},
                                    {"plugins", counts->total - 1},
                                    {"persistent_plugins", counts->persistent},
                                    {"answer_milliseconds", took}});
}

}  // namespace

void addHubCommands(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "find", "Tell whether there is a hub, its port and its process, without asking it");
  prints(command, options);
  command->excludes(app.get_option("--port"));
  runs(command, options, exitCode, [&options](Session& session) { return find(session, options); });

  command = app.add_subcommand("start", "Start a hub if there is none; tell its port and process");
  prints(command, options);
  command->excludes(app.get_option("--port"));
  const auto how = std::make_shared<StartOptions>();
  command->add_flag("--no-loopback-only", how->everyAddress,
                    "Let it be reached from other machines: whoever can reach it can have it start "
                    "programs");
  command->add_option("--log", how->log, "The plugins' log")->type_name("FILE");
  command->add_option("--internal-log", how->internalLog, "The hub's log, with a trace")
      ->type_name("FILE");
  command->add_flag("--stay", how->stay,
                    "Stay connected and keep the hub up, until this program is told to stop");
  addNote(command,
          "A hub that no plugin keeps up soon can't be found any more, and stops after 4 seconds.\n"
          "If others are starting a hub, the wait for them comes on top of the time limit.");
  runs(command, options, exitCode,
       [&options, how](Session& session) { return start(session, options, *how); });

  command = app.add_subcommand(
      "status", "Tell where the hub is, how fast it answers, and how many other plugins it has");
  prints(command, options);
  runsOnHub(command, options, exitCode, status);
}

}  // namespace hublinkctl
