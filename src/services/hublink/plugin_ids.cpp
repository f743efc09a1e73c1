#include "services/hublink/plugin_ids.h"

#include <cstdio>
#include <utility>

#include "indgen/report.h"
#include "services/hublink/hub_log.h"

std::int32_t PluginIDs::next() {
  std::int32_t nextPluginID = 0;
  if (last_ < limit_) {
    nextPluginID = ++last_;
  } else {
    nextPluginID = unlearned_.front();
    unlearned_.pop_front();
  }
  GEN_ASSERT(nextPluginID > 0);
  GEN_ASSERT(nextPluginID < 65536);
  if (!areLeft()) noteUsedUp();
  return nextPluginID;
}

// Told once: those who still come cost no more than a line in the log each.
void PluginIDs::noteUsedUp() {
  if (std::exchange(usedUp_, true)) return;
  constexpr const char* kText = "All %d plugin IDs are used up: no further plugin is taken.\n";
  log_.logInternal(kText, limit_);
  std::fprintf(stderr, kText, limit_);
}
