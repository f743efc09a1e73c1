#include "platform/host.h"

#include <limits.h>
#include <netdb.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace platform {

std::string hostName() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

std::string canonicalHostName(const char* host) {
  if (!host || !*host) return {};
  addrinfo hints{};
  hints.ai_flags = AI_CANONNAME;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0) return {};
  std::string name;
  if (found && found->ai_canonname) name = found->ai_canonname;
  freeaddrinfo(found);
  return name;
}

std::string userName() {
  std::vector<char> room(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &entry, room.data(), room.size(), &found) != 0 || !found) return {};
  return found->pw_name ? found->pw_name : "";
}

std::string userConfigDirectory() {
  // A relative value would mean another directory after every change of the working directory.
  const char* config = getenv("XDG_CONFIG_HOME");
  if (config && config[0] == '/') return config;
  const char* home = getenv("HOME");
  if (home && home[0] == '/') return std::string(home) + "/.config";
  return {};
}

std::string executablePath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0 || static_cast<size_t>(length) == sizeof path) return {};
  return std::string(path, static_cast<size_t>(length));
}

}  // namespace platform
