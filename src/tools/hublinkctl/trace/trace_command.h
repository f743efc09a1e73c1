// The subcommand that shows a hub's internal log as a sequence chart.
#pragma once

#include <CLI/CLI.hpp>

/// Adds the subcommand `trace` to `app`. When it is chosen, parsing runs it and sets `exitCode`: 0,
/// or 2 if the log can't be read or is none, or the chart can't be written, with a message on
/// standard error.
void addTraceCommand(CLI::App& app, int& exitCode);
