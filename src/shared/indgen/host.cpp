#include "indgen/host.h"

#include <cstdio>
#include <string>

#include "indgen/text.h"
#include "platform/host.h"

gen_text gen_host_name() {
  return gen_strdup(platform::hostName().c_str());
}

const char* gen_full_host_name() {
  static char known[1024];
  if (*known) return known;
  std::string name = platform::hostName();
  if (name.find('.') == std::string::npos) {
    const std::string full = platform::canonicalHostName(name.c_str());
    if (!full.empty()) name = full;
  }
  std::snprintf(known, sizeof known, "%s", name.c_str());
  return known;
}
