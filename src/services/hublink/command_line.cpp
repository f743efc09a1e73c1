#include "services/hublink/command_line.h"

#include "indgen/number.h"
#include "indgen/text.h"

const char* const kUsage =
    "Usage: %s [-port <port>|-connect_hublink <port>] [-log <log file>] "
    "[-hl_log_internal <log file> [-not_shared]\n"
    "       [-hl_zone <zone>] [-loopback_only] [-any_user] [-tcp_only] [-no_busy_poll]\n"
    "       [-launch_timeout <seconds>]\n";

const char* const kOptionHelp =
    "The hub of a suite of development tools: brokers named services between plugins.\n"
    "\n"
    "  -port <port>                  listen on this port\n"
    "  -connect_hublink <port>       connect to a tool on this port of this machine, take it as "
    "the\n"
    "                                first plugin, then listen on a free port\n"
    "  -loopback_only                listen on 127.0.0.1 alone\n"
    "  -any_user                     take connections of other users of this machine too\n"
    "  -tcp_only                     leave out the socket by which programs of this machine reach\n"
    "                                the hub more quickly than by its port\n"
    "  -no_busy_poll                 sleep at once when there is nothing to do, which costs a "
    "round\n"
    "                                trip half as much again and saves a busy hub's processor "
    "time\n"
    "  -launch_timeout <seconds>     how long a plugin that the hub starts may take to connect; "
    "30\n"
    "                                without this, 0 for any time\n"
    "  -hl_zone <zone>               the name by which tools find the hub\n"
    "  -not_shared                   let nobody find it, and stop as soon as no plugin keeps it "
    "up\n"
    "  -log <log file>               the plugins' log\n"
    "  -hl_log_internal <log file>   the hub's own log, with a trace of every message\n"
    "  --help, --version             alone on the line: tell this, or the version, and end\n"
    "\n"
    "Who is connected can have programs started as this user. From this machine these are the\n"
    "user's own processes and root's; without -loopback_only it is whoever reaches the port from\n"
    "another machine.\n";

namespace {

// Those from `notShared` on take no value.
enum class Option {
  none,
  port,
  connect,
  zone,
  log,
  internalLog,
  launchTimeout,
  notShared,
  loopbackOnly,
  anyUser,
  tcpOnly,
  noBusyPolling
};

Option optionOf(const char* argument) {
  static constexpr struct {
    const char* name;
    Option option;
  } kOptions[] = {{"port", Option::port},
                  {"connect_hublink", Option::connect},
                  {"hl_zone", Option::zone},
                  {"log", Option::log},
                  {"hl_log_internal", Option::internalLog},
                  {"launch_timeout", Option::launchTimeout},
                  {"not_shared", Option::notShared},
                  {"loopback_only", Option::loopbackOnly},
                  {"any_user", Option::anyUser},
                  {"tcp_only", Option::tcpOnly},
                  {"no_busy_poll", Option::noBusyPolling}};
  if (argument[0] != '-') return Option::none;
  for (const auto& entry : kOptions)
    if (gen_equal_nocase(argument + 1, entry.name)) return entry.option;
  return Option::none;
}

std::int32_t launchSeconds(const char* text) {
  const char* end = nullptr;
  const std::uint32_t seconds = gen_strtoul(text, &end, 10);
  const bool isNumber = *text >= '0' && *text <= '9' && *end == '\0';
  const auto limit = static_cast<std::uint32_t>(PluginRecord::kMostLaunchTimeout);
  return isNumber && seconds <= limit ? static_cast<std::int32_t>(seconds) : -1;
}

}  // namespace

CommandLine parseCommandLine(int argc, char** argv) {
  CommandLine line;
  for (int i = 1; i < argc; ++i) {
    const Option option = optionOf(argv[i]);
    if (option == Option::notShared) line.notShared = true;
    if (option == Option::loopbackOnly) line.loopbackOnly = true;
    if (option == Option::anyUser) line.anyUser = true;
    if (option == Option::tcpOnly) line.tcpOnly = true;
    if (option == Option::noBusyPolling) line.noBusyPolling = true;
    if (option == Option::none || option >= Option::notShared) continue;
    if (i + 1 == argc) {
      line.missingValue = argv[i];
      break;
    }
    const char* value = argv[++i];
    if (option == Option::zone) line.zone = value;
    if (option == Option::log) line.logFile = value;
    if (option == Option::internalLog) line.internalLogFile = value;
    if (option == Option::launchTimeout) line.launchTimeout = launchSeconds(value);
    if (option == Option::connect) line.connectMode = true;
    if (option == Option::port || option == Option::connect)
      line.port = gen_strtoul(value, nullptr, 0);
  }
  return line;
}
