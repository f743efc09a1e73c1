// Which services are registered: names with their RNs. A name may stand there any number of times;
// among equal names the oldest registration comes first.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>

class ServiceTable {
 public:
  void add(std::string_view name, std::int32_t serviceRN);
  /// Removes the service of this RN; nothing happens if there is none.
  void remove(std::int32_t serviceRN);
  /// The first RN registered under `name` that `fits`, or -1.
  std::int32_t find(std::string_view name, const std::function<bool(std::int32_t)>& fits) const;
  std::size_t size() const { return byName_.size(); }

 private:
  friend class HublinkInspector;

  using Names = std::multimap<std::string, std::int32_t, std::less<>>;
  Names byName_;
  std::unordered_map<std::int32_t, Names::iterator> byRN_;
};
