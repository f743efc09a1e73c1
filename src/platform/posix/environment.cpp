// The environment of this process and of those that it starts.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>

#include "platform/process.h"

extern char** environ;

namespace platform {
namespace {

// What the system takes at most for one text and for all texts of a program that it starts.
constexpr std::size_t kLongestText = std::size_t{128} << 10, kMostTexts = std::size_t{6} << 20;

// The variables that were set here, in the form in which the environment points to them: the C
// library would keep every value that a variable has ever had. The environment points to them until
// the very end, so they are never destroyed.
using Texts = std::map<std::string, std::unique_ptr<std::string>, std::less<>>;
Texts& texts() {
  static Texts& all = *std::make_unique<Texts>().release();
  return all;
}

std::size_t cost(const char* text) {
  return strlen(text) + 1 + sizeof text;
}

std::size_t costOfAll() {
  std::size_t total = 0;
  for (char** text = environ; text && *text; ++text) total += cost(*text);
  return total;
}

std::size_t mostForAll() {
  const long known = sysconf(_SC_ARG_MAX);
  return (known > 0 ? std::min(static_cast<std::size_t>(known), kMostTexts) : kLongestText) / 2;
}

}  // namespace

const char* environmentVariable(const char* name) {
  return name ? getenv(name) : nullptr;
}

int setEnvironmentVariable(const char* name, const char* value) {
  if (!name || !value || !*name || strchr(name, '=')) return -EINVAL;
  auto text = std::make_unique<std::string>(std::string(name) + "=" + value);
  if (text->size() >= kLongestText) return -E2BIG;
  const char* before = getenv(name);
  const std::size_t freed = before ? strlen(name) + 1 + cost(before) : 0;
  if (cost(text->c_str()) > freed && costOfAll() - freed + cost(text->c_str()) > mostForAll())
    return -E2BIG;
  if (putenv(text->data()) != 0) return -errno;
  texts()[name] = std::move(text);
  return 0;
}

int unsetEnvironmentVariable(const char* name) {
  if (!name) return -EINVAL;
  if (unsetenv(name) != 0) return -errno;
  texts().erase(name);
  return 0;
}

}  // namespace platform
