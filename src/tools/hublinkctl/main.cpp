// The command line for people and scripts: finds a hub, looks into it and has it do things.
#include "indgen/memory.h"
#include "indgen/program.h"
#include "platform/process.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/trace/trace_command.h"
#include "tools/tool_options.h"

namespace hublinkctl {

void runs(CLI::App* command, const Options& options, int& exitCode, Action action) {
  command->callback([&options, &exitCode, action = std::move(action)] {
    Session session(options);
    action(session);
    exitCode = static_cast<int>(session.exitCode());
  });
}

void runsOnHub(CLI::App* command, const Options& options, int& exitCode, Action action) {
  runs(command, options, exitCode, [action = std::move(action)](Session& session) {
    return session.join() && action(session);
  });
}

void prints(CLI::App* command, Options& options) {
  command->add_flag("--json", options.json, "Print for machines");
}

void addNote(CLI::App* command, const std::string& text) {
  command->footer(text + "\n" + command->get_footer());
}

namespace {

void addOptions(CLI::App& app, Options& options) {
  app.add_option("--zone", options.choice.zone,
                 "The hub of this name; without one, the installation's hub for this user")
      ->type_name("NAME");
  app.add_option("--hub", options.choice.program,
                 "The hub's program; otherwise the one beside this program, in ../lib/hublink from "
                 "there, or in PATH")
      ->type_name("PROGRAM");
  app.add_option("--port", options.port,
                 "The hub that listens on this port of 127.0.0.1, wherever its record is")
      ->type_name("N")
      ->check(within(1, 65535));
  app.add_flag("--any-user", options.choice.anyUser,
               "Take a hub that runs as another user; one that is started takes every user too");
  app.add_option("--timeout", options.timeoutSeconds, "How long to wait for the hub and its answer")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(within(0.001, 1000000.0));
}

int run(int argc, char** argv) {
  Options options;
  int exitCode = static_cast<int>(ExitCode::fine);
  CLI::App app(
      "Finds a hub, looks into it and has it do things. It never keeps a hub up, except by "
      "`start --stay`.",
      "hublinkctl");
  app.footer(
      std::string("--zone, --hub, --port, --any-user and --timeout may stand before and behind the "
                  "subcommand.\n\n") +
      kExitCodeHelp);
  app.fallthrough();
  app.require_subcommand(1);
  addToolOptions(app);
  addOptions(app, options);
  addHubCommands(app, options, exitCode);
  addHubsCommand(app, options, exitCode);
  addInternalLogCommand(app, options, exitCode);
  addListCommands(app, options, exitCode);
  addRealmCommands(app, options, exitCode);
  addTopCommand(app, options, exitCode);
  addServiceCommands(app, options, exitCode);
  addInterfaceCommands(app, options, exitCode);
  addPingCommand(app, options, exitCode);
  addPluginCommands(app, options, exitCode);
  addWebCommands(app, options, exitCode);
  addTraceCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const std::vector<std::string> words = app.remaining();
    const bool isUnknown = error.get_exit_code() != 0 && app.get_subcommands().empty() &&
                           !words.empty() && words.front()[0] != '-';
    if (isUnknown) tell("there is no subcommand " + words.front() + "; --help lists them");
    return isUnknown || app.exit(error) != 0 ? static_cast<int>(ExitCode::usage) : exitCode;
  }
  return exitCode;
}

}  // namespace
}  // namespace hublinkctl

int main(int argc, char** argv) {
  platform::ignoreBrokenPipe();
  gen_install_new_handler();
  gen_initialise();
  return hublinkctl::run(argc, argv);
}
