#include "services/hublink_bridge/stand_in_table.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "services/hublink_bridge/hub_desk.h"
#include "services/hublink_bridge/parts.h"

namespace bridge {

void StandInTable::want(const RemotePluginKey& key, const std::string& program, Handler handler) {
  const auto place = entries_.find(key);
  Entry* entry = place == entries_.end() ? make(key) : &place->second;
  // One whose connection has ended goes in the next sweep, and nobody may rely on it until then.
  if (!entry || !entry->standIn->plugin().isConnected()) {
    handler(nullptr);
    return;
  }
  if (entry->isKnown) {
    entry->idleSince = clockNow();
    handler(entry->standIn.get());
    return;
  }
  entry->waiting.push_back(std::move(handler));
  if (entry->waiting.size() > 1) return;
  entry->standIn->standFor(key, program);
  desk_.standsFor(*entry->standIn, [this, key](const std::string& why) { told(key, why); });
}

// A connection to the hub for a key that has none, of which the hub hasn't been told.
StandInTable::Entry* StandInTable::make(const RemotePluginKey& key) {
  const std::int64_t now = clockNow();
  const bool isFull = countOf(key.machine) >= kMostOfMachine;
  if (isFull || hasHadItsShare(key.machine)) {
    const auto idle = findIdle(isFull || made_ < kMostMade ? key.machine : "");
    if (idle == entries_.end()) return nullptr;
    auto node = entries_.extract(idle);
    node.key() = key;
    node.mapped().isKnown = false;
    node.mapped().idleSince = now;
    return &entries_.insert(std::move(node)).position->second;
  }
  if (now < noneBefore_) return nullptr;
  auto standIn = std::make_unique<StandIn>(listener_);
  std::string error;
  if (!standIn->connect(port_, error)) {
    noneBefore_ = now + kHubPause;
    std::fprintf(stderr, "hublink-bridge: no connection for a stand-in: %s\n", error.c_str());
    return nullptr;
  }
  ++made_;
  ++madeFor_[key.machine];
  Entry& entry = entries_[key];
  entry.standIn = std::move(standIn);
  entry.idleSince = now;
  return &entry;
}

// The one that nobody has needed for the longest time; of a machine, or with an empty name of any.
StandInTable::Entries::iterator StandInTable::findIdle(const std::string& machine) {
  auto found = entries_.end();
  for (auto place = entries_.begin(); place != entries_.end(); ++place) {
    const Entry& entry = place->second;
    const bool isIdle = entry.isKnown && entry.links == 0 &&
                        entry.standIn->plugin().isConnected() &&
                        (machine.empty() || place->first.machine == machine);
    if (isIdle && (found == entries_.end() || entry.idleSince < found->second.idleSince))
      found = place;
  }
  return found;
}

bool StandInTable::hasHadItsShare(const std::string& machine) const {
  const auto made = madeFor_.find(machine);
  return made_ >= kMostMade || (made != madeFor_.end() && made->second >= kMostMadeForMachine);
}

std::size_t StandInTable::countOf(const std::string& machine) const {
  std::size_t count = 0;
  for (auto place = entries_.lower_bound({machine, INT32_MIN});
       place != entries_.end() && place->first.machine == machine; ++place)
    ++count;
  return count;
}

void StandInTable::told(const RemotePluginKey& key, const std::string& error) {
  const auto place = entries_.find(key);
  if (place == entries_.end()) return;
  Entry& entry = place->second;
  entry.isKnown = error.empty();
  if (!error.empty()) {
    std::fprintf(stderr, "hublink-bridge: no stand-in for plugin %d of %s: %s\n", key.pluginID,
                 key.machine.c_str(), error.c_str());
    entry.standIn->plugin().disconnect();
  }
  StandIn* standIn = entry.isKnown ? entry.standIn.get() : nullptr;
  for (const Handler& tell : std::exchange(entry.waiting, {})) tell(standIn);
}

StandIn* StandInTable::find(const RemotePluginKey& key) const {
  const auto place = entries_.find(key);
  return place != entries_.end() && place->second.isKnown ? place->second.standIn.get() : nullptr;
}

StandIn* StandInTable::findLocal(std::int32_t pluginID) const {
  for (const auto& [key, entry] : entries_)
    if (entry.isKnown && entry.standIn->plugin().pluginID() == pluginID) return entry.standIn.get();
  return nullptr;
}

void StandInTable::linkBegins(StandIn& standIn) {
  ++entries_[standIn.key()].links;
}

void StandInTable::linkEnds(StandIn& standIn, std::int64_t now) {
  const auto place = entries_.find(standIn.key());
  if (place == entries_.end()) return;
  --place->second.links;
  place->second.idleSince = now;
}

void StandInTable::serve() {
  // Handlers may add some, which are found in the next pass; none is taken out meanwhile.
  for (auto& [key, entry] : entries_)
    if (entry.standIn->plugin().nextTimeout() == 0) entry.standIn->plugin().serve(0);
}

void StandInTable::flush() {
  for (auto& [key, entry] : entries_) entry.standIn->plugin().flush();
}

int StandInTable::nextTimeout(std::int64_t now) const {
  std::int64_t next = -1;
  const auto atMost = [&next](std::int64_t milliseconds) {
    if (next < 0 || milliseconds < next) next = std::max<std::int64_t>(milliseconds, 0);
  };
  for (const auto& [key, entry] : entries_) {
    const int own = entry.standIn->plugin().nextTimeout();
    if (own >= 0) atMost(own);
    if (entry.links == 0 && !hasHadItsShare(key.machine)) atMost(entry.idleSince + kIdleTime - now);
  }
  return static_cast<int>(next);
}

void StandInTable::sweep(std::int64_t now) {
  std::erase_if(entries_, [this, now](const auto& one) {
    const Entry& entry = one.second;
    // The ends of its links are told first.
    if (!entry.waiting.empty() || entry.links > 0) return false;
    if (!entry.standIn->plugin().isConnected()) return true;
    return now >= entry.idleSince + kIdleTime && !hasHadItsShare(one.first.machine);
  });
}

void StandInTable::disconnectAll() {
  for (auto& [key, entry] : entries_) entry.standIn->plugin().disconnect();
}

void StandInTable::forEach(
    const std::function<void(const StandIn& standIn, int links)>& visit) const {
  for (const auto& [key, entry] : entries_)
    if (entry.isKnown) visit(*entry.standIn, entry.links);
}

}  // namespace bridge
