#include "services/hublink/service_table.h"

#include <utility>

void ServiceTable::add(std::string_view name, std::int32_t serviceRN,
                       const HublinkConnection* provider, UsageShare share) {
  remove(serviceRN);
  byRN_[serviceRN] = byName_.emplace(name, Entry{serviceRN, provider, std::move(share)});
}

std::optional<std::string> ServiceTable::remove(std::int32_t serviceRN) {
  const auto place = byRN_.find(serviceRN);
  if (place == byRN_.end()) return std::nullopt;
  std::string name = std::move(byName_.extract(place->second).key());
  byRN_.erase(place);
  return name;
}

void ServiceTable::removeAllOf(const HublinkConnection* provider) {
  for (auto place = byName_.begin(); place != byName_.end();) {
    if (place->second.provider != provider) {
      ++place;
      continue;
    }
    byRN_.erase(place->second.serviceRN);
    place = byName_.erase(place);
  }
}

std::int32_t ServiceTable::find(std::string_view name,
                                const std::function<bool(std::int32_t)>& fits) const {
  const auto [first, last] = byName_.equal_range(name);
  for (auto entry = first; entry != last; ++entry)
    if (fits(entry->second.serviceRN)) return entry->second.serviceRN;
  return -1;
}

void ServiceTable::forEachFrom(
    std::string_view name,
    const std::function<bool(const std::string& name, std::int32_t rn)>& visit) const {
  for (auto entry = byName_.lower_bound(name); entry != byName_.end(); ++entry)
    if (!visit(entry->first, entry->second.serviceRN)) return;
}
