// What the command lines of all tools have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "indgen/printable.h"

/// Adds --version, and has wrong usage told in one line that nothing in it can break out of.
inline void addToolOptions(CLI::App& app) {
  app.set_version_flag("--version", app.get_name() + " " HUBLINK_VERSION, "Print the version");
  app.failure_message([](const CLI::App* tool, const CLI::Error& error) {
    return tool->get_name() + ": " + gen_printable(error.what()) + '\n';
  });
}
