// The subcommands by group. Each operation adds its group to the application; `exitCode` is set
// when a subcommand has run. `options` and `exitCode` must outlive the application.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

#include "tools/hublinkctl/session.h"

namespace hublinkctl {

void addHubCommands(CLI::App& app, Options& options, int& exitCode);
void addHubsCommand(CLI::App& app, Options& options, int& exitCode);
void addInternalLogCommand(CLI::App& app, Options& options, int& exitCode);
void addListCommands(CLI::App& app, Options& options, int& exitCode);
void addRealmCommands(CLI::App& app, Options& options, int& exitCode);
void addServiceCommands(CLI::App& app, Options& options, int& exitCode);
void addInterfaceCommands(CLI::App& app, Options& options, int& exitCode);
void addPingCommand(CLI::App& app, Options& options, int& exitCode);
void addTopCommand(CLI::App& app, Options& options, int& exitCode);
void addPluginCommands(CLI::App& app, Options& options, int& exitCode);
void addWebCommands(CLI::App& app, Options& options, int& exitCode);

/// What a subcommand does; false if it has failed.
using Action = std::function<bool(Session& session)>;
/// Runs `action` when `command` was given.
void runs(CLI::App* command, const Options& options, int& exitCode, Action action);
/// The same behind a connection to a hub that is there.
void runsOnHub(CLI::App* command, const Options& options, int& exitCode, Action action);
/// Lets `command` print for machines.
void prints(CLI::App* command, Options& options);
/// Puts `text` in front of what stands below every help.
void addNote(CLI::App* command, const std::string& text);
/// Takes the numbers from `least` to `most`, which only an error names.
template <class Number>
CLI::Validator within(Number least, Number most) {
  return CLI::Range(least, most).description("");
}

}  // namespace hublinkctl
