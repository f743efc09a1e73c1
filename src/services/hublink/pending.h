// Requests that wait: for a provider to register the service (PendingRequest) or for a provider to
// answer (PendingAccept). The tables keep the order of arrival and own their texts; the connections
// in them are the hub's, which takes a departed one out of both.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "generated/hublink_router_impl.h"
#include "services/hublink/plugin_usage.h"

class HublinkConnection;

/// A text field that may be none.
using OptionalText = std::optional<std::string>;

inline OptionalText optionalText(const char* text) {
  return text ? OptionalText(text) : OptionalText();
}
inline const char* textOrNull(const OptionalText& text) {
  return text ? text->c_str() : nullptr;
}

/// An owned copy of a message's array of texts, which may be null.
class TextPairs {
 public:
  TextPairs() = default;
  explicit TextPairs(const StringArray& texts);
  /// The texts as a message takes them, valid while this object isn't changed or moved.
  StringArray view() const;
  /// What the texts take.
  std::int64_t bytes() const;

 private:
  std::vector<OptionalText> texts_;
  mutable std::vector<const char*> pointers_;
};

struct PendingRequest {
  HublinkConnection* requester = nullptr;
  std::string serviceName;
  std::int32_t pluginID = -1;  ///< -1: any provider will do
  TextPairs pairs;
  bool isIdQuery = false;
  std::int32_t queryCookie = -1;
  OptionalText workingDir;  ///< only a provider with this working directory will do
  std::int32_t clientCookie = -1;
  UsageShare share;  ///< of what the requester waits for
};

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

/// In order of arrival.
using PendingRequests = std::list<PendingRequest>;
struct ByPluginID {
  bool operator()(const HublinkConnection* a, const HublinkConnection* b) const;
};
/// By provider, and for each provider in order of arrival.
using PendingAccepts = std::multimap<HublinkConnection*, PendingAccept, ByPluginID>;

/// Whether two working directories, each possibly null, name the same one. Two nulls don't.
bool sameWorkingDir(const char* a, const char* b);
