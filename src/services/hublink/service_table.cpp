#include "services/hublink/service_table.h"

void ServiceTable::add(std::string_view name, std::int32_t serviceRN) {
  remove(serviceRN);
  byRN_[serviceRN] = byName_.emplace(name, serviceRN);
}

void ServiceTable::remove(std::int32_t serviceRN) {
  const auto place = byRN_.find(serviceRN);
  if (place == byRN_.end()) return;
  byName_.erase(place->second);
  byRN_.erase(place);
}

std::int32_t ServiceTable::find(std::string_view name,
                                const std::function<bool(std::int32_t)>& fits) const {
  const auto [first, last] = byName_.equal_range(name);
  for (auto entry = first; entry != last; ++entry)
    if (fits(entry->second)) return entry->second;
  return -1;
}
