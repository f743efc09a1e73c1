// Names of this machine, of its user, and of the running program. Each gives an empty text when the
// system has no answer.
#pragma once

#include <string>

namespace platform {

/// The name that the machine gives itself, with or without its domain.
std::string hostName();
/// The full name that the resolver gives for a host.
std::string canonicalHostName(const char* host);
/// The effective user's name in the password database.
std::string userName();
/// The directory under which this user's programs keep their settings: `$XDG_CONFIG_HOME` if it is
/// absolute, else `.config` under `$HOME`. It need not exist.
std::string userConfigDirectory();
/// Full path of the running executable.
std::string executablePath();

}  // namespace platform
