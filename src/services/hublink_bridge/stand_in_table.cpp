#include "services/hublink_bridge/stand_in_table.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/clock.h"
#include "services/hublink_bridge/hub_desk.h"

namespace bridge {

void StandInTable::want(const RemotePluginKey& key, const std::string& program, Handler handler) {
  Entry& entry = entries_[key];
  if (entry.standIn && !entry.standIn->plugin().isConnected()) {
    // It ends in the next sweep, and nobody may rely on it until then.
    handler(nullptr);
    return;
  }
  if (entry.isKnown) {
    handler(entry.standIn.get());
    return;
  }
  entry.waiting.push_back(std::move(handler));
  if (entry.standIn) return;
  entry.idleSince = static_cast<std::int64_t>(platform::monotonicMilliseconds());
  entry.standIn = std::make_unique<StandIn>(listener_, key, program);
  std::string error;
  if (!entry.standIn->connect(port_, error)) {
    told(key, error);
    return;
  }
  desk_.standsFor(*entry.standIn, [this, key](const std::string& why) { told(key, why); });
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
    if (entry.standIn && entry.standIn->plugin().nextTimeout() == 0)
      entry.standIn->plugin().serve(0);
}

void StandInTable::flush() {
  for (auto& [key, entry] : entries_)
    if (entry.standIn) entry.standIn->plugin().flush();
}

int StandInTable::nextTimeout(std::int64_t now) const {
  std::int64_t next = -1;
  const auto atMost = [&next](std::int64_t milliseconds) {
    if (next < 0 || milliseconds < next) next = std::max<std::int64_t>(milliseconds, 0);
  };
  for (const auto& [key, entry] : entries_) {
    if (!entry.standIn) continue;
    const int own = entry.standIn->plugin().nextTimeout();
    if (own >= 0) atMost(own);
    if (entry.links == 0) atMost(entry.idleSince + kIdleTime - now);
  }
  return static_cast<int>(next);
}

void StandInTable::sweep(std::int64_t now) {
  std::erase_if(entries_, [now](const auto& one) {
    const Entry& entry = one.second;
    if (!entry.waiting.empty()) return false;
    if (!entry.standIn) return true;
    // The ends of its links are told first.
    if (entry.links > 0) return false;
    return !entry.standIn->plugin().isConnected() || now >= entry.idleSince + kIdleTime;
  });
}

void StandInTable::disconnectAll() {
  for (auto& [key, entry] : entries_)
    if (entry.standIn) entry.standIn->plugin().disconnect();
}

void StandInTable::forEach(
    const std::function<void(const StandIn& standIn, int links)>& visit) const {
  for (const auto& [key, entry] : entries_)
    if (entry.isKnown) visit(*entry.standIn, entry.links);
}

}  // namespace bridge
