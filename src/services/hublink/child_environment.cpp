#include "services/hublink/child_environment.h"

#include <cstring>

#include "indgen/path.h"
#include "platform/process.h"
#include "services/hublink/hub_log.h"

void ChildEnvironment::setVariable(const char* variable, const char* value) {
  if (!value) return;
  if (!variable || !*variable || std::strchr(variable, '=')) {
    log_.logInternal("Ignored the environment variable \"%s\".\n", variable ? variable : "");
    return;
  }
  change(variable, value);
}

// A variable that is too large would keep every later child from starting.
void ChildEnvironment::change(const char* variable, const char* value) {
  const int outcome = platform::setEnvironmentVariable(variable, value);
  if (outcome < 0)
    log_.logInternal("Ignored the environment variable \"%.100s\" of %lu bytes: %s.\n", variable,
                     static_cast<unsigned long>(std::strlen(value)), std::strerror(-outcome));
}

void ChildEnvironment::apply(const std::vector<NameAndValue>& environment) {
  for (const NameAndValue& entry : environment) {
    if (entry.name != "LIBPATH") continue;
    std::string cleaned = entry.value;
    gen_clean_path(cleaned.data());
    cleaned.resize(std::strlen(cleaned.c_str()));
    const char* present = platform::environmentVariable("PATH");
    const std::string path = present && *present ? std::string(present) + ":" + cleaned : cleaned;
    change("PATH", path.c_str());
  }
}
