#include "services/hublink/rn_table.h"

#include <limits>

std::int32_t RNTable::takeNext() {
  if (next_ < kFirst) next_ = kFirst;
  const std::int32_t rn = next_;
  next_ = rn == kLast ? 0 : rn + 1;
  return rn;
}

RNTable::Page& RNTable::spellOut(std::size_t index) {
  if (index >= slots_.size()) slots_.resize(index + 1);
  Slot& slot = slots_[index];
  if (!slot.page) {
    slot.page = std::make_unique<Page>();
    if (slot.whole) {
      slot.page->owners.fill(slot.whole);
      slot.page->used = kPageSize;
      slot.whole = nullptr;
    }
    live_.insert(index);
  }
  return *slot.page;
}

std::int32_t RNTable::assign(HublinkConnection* owner) {
  const std::int32_t rn = takeNext();
  Page& page = spellOut(static_cast<std::size_t>(rn) / kPageSize);
  HublinkConnection*& place = page.owners[static_cast<std::size_t>(rn) % kPageSize];
  if (place)
    note(place, -1);
  else
    ++page.used;
  place = owner;
  if (page.traffic) (*page.traffic)[static_cast<std::size_t>(rn) % kPageSize] = {};
  note(owner, 1);
  return rn;
}

// Null if the traffic of this RN isn't counted.
RNTable::TrafficOfRN* RNTable::trafficPlace(std::int32_t rn) {
  if (rn < kFirst) return nullptr;
  const std::size_t index = static_cast<std::size_t>(rn) / kPageSize;
  if (index >= slots_.size() || !slots_[index].page) return nullptr;
  Page& page = *slots_[index].page;
  if (!page.traffic) page.traffic = std::make_unique<TrafficPage>();
  return &(*page.traffic)[static_cast<std::size_t>(rn) % kPageSize];
}

void RNTable::count(std::int32_t source, std::int32_t destination, const Traffic& traffic) {
  const auto add = [&traffic](Traffic& sum) {
    sum.packets += traffic.packets;
    sum.bytes += traffic.bytes;
  };
  add(relayed_);
  if (TrafficOfRN* from = trafficPlace(source)) add(from->sent);
  if (TrafficOfRN* to = trafficPlace(destination)) add(to->received);
}

RNTable::TrafficOfRN RNTable::traffic(std::int32_t rn) const {
  const std::size_t index = rn < kFirst ? slots_.size() : static_cast<std::size_t>(rn) / kPageSize;
  if (index >= slots_.size() || !slots_[index].page || !slots_[index].page->traffic) return {};
  return (*slots_[index].page->traffic)[static_cast<std::size_t>(rn) % kPageSize];
}

std::int64_t RNTable::count(const HublinkConnection* owner) const {
  const auto place = counts_.find(owner);
  return place == counts_.end() ? 0 : place->second;
}

void RNTable::note(const HublinkConnection* owner, std::int64_t change) {
  const auto place = counts_.try_emplace(owner, 0).first;
  place->second += change;
  if (place->second == 0) counts_.erase(place);
}

void RNTable::assignBlock(HublinkConnection* owner, std::int32_t count,
                          const std::function<void(std::int32_t)>& visit) {
  std::int32_t left = count;
  while (left > 0) {
    const bool pageStart = next_ >= kFirst && static_cast<std::size_t>(next_) % kPageSize == 0;
    if (!pageStart || left < static_cast<std::int32_t>(kPageSize)) {
      visit(assign(owner));
      --left;
      continue;
    }
    const std::size_t index = static_cast<std::size_t>(next_) / kPageSize;
    if (index >= slots_.size()) slots_.resize(index + 1);
    forget(index);
    slots_[index].whole = owner;
    note(owner, kPageSize);
    live_.insert(index);
    for (std::size_t i = 0; i < kPageSize; ++i, --left) visit(takeNext());
  }
}

void RNTable::forget(std::size_t index) {
  Slot& slot = slots_[index];
  if (slot.whole) note(slot.whole, -static_cast<std::int64_t>(kPageSize));
  if (slot.page && slot.page->used > 0)
    for (const HublinkConnection* owner : slot.page->owners)
      if (owner) note(owner, -1);
  slot = Slot();
  live_.erase(index);
}

void RNTable::clear(std::size_t index, std::size_t place) {
  Page& page = spellOut(index);
  note(page.owners[place], -1);
  page.owners[place] = nullptr;
  if (--page.used == 0) forget(index);
}

void RNTable::release(const HublinkConnection* owner, std::int32_t rn) {
  if (!owner || this->owner(rn) != owner) return;
  clear(static_cast<std::size_t>(rn) / kPageSize, static_cast<std::size_t>(rn) % kPageSize);
}

void RNTable::releaseAll(const HublinkConnection* owner,
                         const std::function<void(std::int32_t)>& visit) {
  for (auto live = live_.begin(); live != live_.end();) {
    const std::size_t index = *live++;  // the slot may go with its last RN
    if (slots_[index].whole == owner) forget(index);
    for (std::size_t place = 0; place < kPageSize && slots_[index].page; ++place) {
      if (slots_[index].page->owners[place] != owner) continue;
      visit(static_cast<std::int32_t>(index * kPageSize + place));
      clear(index, place);
    }
  }
}
