// Requests that wait for a provider's answer, by provider and for each in order of arrival. The
// table owns its texts; the connections in it are the hub's, which takes a departed one out of it.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "services/hublink/hublink_connection.h"
#include "services/hublink/plugin_usage.h"
#include "services/hublink/text_pairs.h"

struct PendingAccept {
  HublinkConnection* requester = nullptr;
  HublinkConnection* provider = nullptr;
  std::string serviceName;
  std::int32_t localRN = -1;
  std::int32_t serviceRN = -1;
  TextPairs pairs;
  std::int32_t clientCookie = -1;
  UsageShare share;  ///< of what the requester waits for
};

struct ByPluginID {
  bool operator()(const HublinkConnection* a, const HublinkConnection* b) const {
    return a->getPluginID() < b->getPluginID();
  }
};
using PendingAccepts = std::multimap<HublinkConnection*, PendingAccept, ByPluginID>;
