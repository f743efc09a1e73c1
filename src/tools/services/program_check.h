// Whether the hub would find the programs that a description file names.
#pragma once

#include <string>

#include "service_database/plugin_record.h"

namespace services {

/// What is in the way of starting `program` for this plugin, and what to write instead; empty if
/// nothing is. It is sought as by a hub beside this program with this program's PATH.
std::string troubleWithProgram(const PluginRecord& plugin, const std::string& program);

}  // namespace services
