// The subcommands by which the hub is told to do something about plugins: launch, connect, value,
// setenv, debug, log.
#include <vector>

#include "generated/hublink_plugin_impl.h"
#include "indgen/find.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/launch_watch.h"

namespace hublinkctl {
namespace {

struct Connected {
  std::int32_t plugin = -1;
  std::string errors;
};
using Answered = std::function<void(const Connected&)>;

HublinkPlugin::PluginHandler passedTo(const Answered& answered) {
  return [answered](std::int32_t plugin, const std::string& errors) {
    answered(Connected{plugin, errors});
  };
}

bool told(Session& session, const std::optional<Connected>& answer,
          const std::string& reason = {}) {
  if (!answer) return false;
  if (answer->plugin == -1)
    return session.fail(ExitCode::no, answer->errors + (reason.empty() ? "" : ": " + reason));
  return session.print({{"plugin", answer->plugin}});
}

// The hub's own working directory is none of the user's business.
bool launch(Session& session, std::vector<std::string> command, const std::string& directory) {
  if (command[0].find('/') != std::string::npos)
    command[0] = gen_full_path(command[0].c_str()).get();
  LaunchWatch watch(session);
  if (!watch.watchProgram(command[0])) return false;
  const auto answer = session.ask<Connected>([&](const auto& answered) {
    session.plugin().requestPluginLaunch(command, directory.empty() ? nullptr : directory.c_str(),
                                         passedTo(answered), kNoLimit);
  });
  return told(session, answer, watch.reason());
}

bool connect(Session& session, const std::string& host, std::uint16_t port) {
  return told(session, session.ask<Connected>([&](const auto& answered) {
    session.plugin().requestPluginConnect(host, port, passedTo(answered), kNoLimit);
  }));
}

bool value(Session& session, std::int32_t plugin, const std::string& name) {
  using Value = std::optional<std::string>;
  const auto answer = session.ask<Value>([&](const auto& answered) {
    session.plugin().requestValue(plugin, name, answered, kNoLimit);
  });
  if (!answer) return false;
  if (*answer) return session.print({{"value", **answer}});
  return session.fail(ExitCode::no, "plugin " + std::to_string(plugin) + " has no value " + name);
}

void addLaunch(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand("launch", "Have the hub start a plugin; tell its number");
  prints(command, options);
  struct Launch {
    std::vector<std::string> command;
    std::string directory;
  };
  const auto what = std::make_shared<Launch>();
  command
      ->add_option("PROGRAM", what->command,
                   "The program, sought beside the hub and in PATH, and its arguments; options of "
                   "this program stand before it")
      ->required()
      ->expected(1, -1)
      ->type_name("");
  command->positionals_at_end();
  command->add_option("--directory", what->directory, "Its working directory; otherwise the hub's")
      ->type_name("DIRECTORY")
      ->check(CLI::ExistingDirectory.description(""));
  runsOnHub(command, options, exitCode,
            [what](Session& session) { return launch(session, what->command, what->directory); });
}

void addConnect(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "connect", "Have the hub connect to a plugin that listens; tell its number");
  prints(command, options);
  struct Address {
    std::string host;
    std::uint16_t port = 0;
  };
  const auto to = std::make_shared<Address>();
  command->add_option("HOST", to->host, "As the hub sees it")->required()->type_name("");
  command->add_option("PORT", to->port, "Where the plugin listens")
      ->required()
      ->type_name("")
      ->check(within(1, 65535));
  runsOnHub(command, options, exitCode,
            [to](Session& session) { return connect(session, to->host, to->port); });
}

void addValue(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand("value", "Ask a plugin for a named value");
  prints(command, options);
  struct Question {
    std::int32_t plugin = -1;
    std::string name;
  };
  const auto question = std::make_shared<Question>();
  command->add_option("PLUGIN", question->plugin, "The plugin's number")
      ->required()
      ->type_name("")
      ->check(within(0, 65535));
  command->add_option("NAME", question->name, "The value's name")->required()->type_name("");
  runsOnHub(command, options, exitCode, [question](Session& session) {
    return value(session, question->plugin, question->name);
  });
}

void addSetenv(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "setenv", "Set an environment variable of the hub, which plugins that it starts then have");
  struct Variable {
    std::string name, value;
  };
  const auto variable = std::make_shared<Variable>();
  const auto isName = [](const std::string& name) {
    return name.empty() || name.find('=') != std::string::npos
               ? "\"" + name + "\" is no name of a variable"
               : std::string();
  };
  command->add_option("NAME", variable->name, "Not empty, without =")
      ->required()
      ->type_name("")
      ->check(CLI::Validator(isName, ""));
  command->add_option("VALUE", variable->value, "Empty if it is left out")->type_name("");
  runsOnHub(command, options, exitCode, [variable](Session& session) {
    session.plugin().hub().SetEnvironmentVariable(variable->name.c_str(), variable->value.c_str());
    return session.count().has_value();
  });
}

void addDebug(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "debug", "Have the hub tell plugins of a program, when it starts them, to be debugged");
  struct Debug {
    std::string program;
    bool off = false;
    std::optional<std::string> debugger, debuggerOptions;
  };
  const auto debug = std::make_shared<Debug>();
  command->add_option("PLUGIN", debug->program, "The program's name as it is launched")
      ->required()
      ->type_name("");
  command->add_flag("--off", debug->off, "No longer");
  command->add_option("--debugger", debug->debugger, "The debugger, for all of them")
      ->type_name("PROGRAM");
  command
      ->add_option("--options", debug->debuggerOptions, "The debugger's options, for all of them")
      ->type_name("TEXT");
  runsOnHub(command, options, exitCode, [debug](Session& session) {
    const auto pointer = [](const auto& text) { return text ? text->c_str() : nullptr; };
    session.plugin().hub().DebugPlugin(debug->program.c_str(), !debug->off,
                                       pointer(debug->debugger), pointer(debug->debuggerOptions));
    return session.count().has_value();
  });
}

void addLog(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand("log", "Write a line into the plugins' log");
  const auto text = std::make_shared<std::string>();
  command->add_option("TEXT", *text, "The line")->required()->type_name("");
  runsOnHub(command, options, exitCode, [text](Session& session) {
    if (!session.plugin().isLogKept())
      return session.fail(ExitCode::no, "the hub keeps no plugins' log");
    session.plugin().hub().LogMessageEvent((*text + '\n').c_str());
    return session.count().has_value();
  });
}

}  // namespace

void addPluginCommands(CLI::App& app, Options& options, int& exitCode) {
  addLaunch(app, options, exitCode);
  addConnect(app, options, exitCode);
  addValue(app, options, exitCode);
  addSetenv(app, options, exitCode);
  addDebug(app, options, exitCode);
  addLog(app, options, exitCode);
}

}  // namespace hublinkctl
