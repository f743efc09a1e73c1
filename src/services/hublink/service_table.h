// Which services are registered: names with their RNs. A name may stand there any number of times;
// among equal names the oldest registration comes first.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "services/hublink/plugin_usage.h"

class HublinkConnection;

class ServiceTable {
 public:
  /// `provider` is only told apart from others; `share` stays with the entry.
  void add(std::string_view name, std::int32_t serviceRN, const HublinkConnection* provider,
           UsageShare share);
  /// Removes the service of this RN and gives its name; none if there is no such service.
  std::optional<std::string> remove(std::int32_t serviceRN);
  /// Removes all that `provider` has registered, however many others there are.
  void removeAllOf(const HublinkConnection* provider);
  /// The first RN registered under `name` that `fits`, or -1.
  std::int32_t find(std::string_view name, const std::function<bool(std::int32_t)>& fits) const;
  std::size_t size() const { return byName_.size(); }
  /// Shows names and RNs from `name` on, in the order of names, as long as `visit` says so.
  void forEachFrom(
      std::string_view name,
      const std::function<bool(const std::string& name, std::int32_t rn)>& visit) const;

 private:
  friend class HublinkInspector;

  struct Entry {
    std::int32_t serviceRN;
    const HublinkConnection* provider;
    UsageShare share;
  };
  using Names = std::multimap<std::string, Entry, std::less<>>;
  Names byName_;
  std::unordered_map<std::int32_t, Names::iterator> byRN_;
};
