#include "services/hublink/waiting_table.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "indgen/find.h"

namespace {

bool isOnPlugin(const Awaited& on, std::int32_t pluginID) {
  const auto* plugin = std::get_if<OnPlugin>(&on);
  return plugin && plugin->pluginID == pluginID;
}
bool isOnArrival(const Awaited& on, ArrivalID arrival) {
  const auto* hope = std::get_if<OnArrival>(&on);
  return hope && hope->arrival == arrival;
}
bool isOnStart(const Awaited& on, std::int32_t startCookie) {
  const auto* start = std::get_if<OnClientStart>(&on);
  return start && start->startCookie == startCookie;
}

// Whether a plugin that registers the service is one that the entry waits for.
bool takes(const Waiting& entry, std::int32_t pluginID) {
  if (std::holds_alternative<OnAnybody>(entry.on)) return true;
  if (const auto* arrival = std::get_if<OnArrival>(&entry.on))
    return !arrival->isOwn || std::holds_alternative<QueryWish>(entry.wish);
  return isOnPlugin(entry.on, pluginID);
}

}  // namespace

const std::string* serviceIn(const Wish& wish) {
  if (const auto* service = std::get_if<ServiceWish>(&wish)) return &service->name;
  if (const auto* query = std::get_if<QueryWish>(&wish)) return &query->name;
  return nullptr;
}

const char* workingDirOf(const Wish& wish) {
  if (const auto* service = std::get_if<ServiceWish>(&wish)) return textOrNull(service->workingDir);
  if (const auto* query = std::get_if<QueryWish>(&wish)) return textOrNull(query->workingDir);
  return nullptr;
}

std::int64_t bytesOf(const Wish& wish) {
  const std::string* name = serviceIn(wish);
  const char* directory = workingDirOf(wish);
  const auto* service = std::get_if<ServiceWish>(&wish);
  return static_cast<std::int64_t>((name ? name->size() : 0) +
                                   (directory ? std::strlen(directory) : 0)) +
         (service ? service->pairs.bytes() : 0);
}

bool sameWorkingDir(const char* a, const char* b) {
  return a && b && gen_same_path(a, b);
}

std::string WaitingTable::serviceOf(ArrivalID arrival) const {
  for (const Expected& one : expected_)
    if (isOnArrival(one.from, arrival)) return one.service;
  return {};
}

int WaitingTable::countOn(ArrivalID arrival) const {
  return static_cast<int>(
      std::count_if(entries_.begin(), entries_.end(),
                    [arrival](const Waiting& entry) { return isOnArrival(entry.on, arrival); }));
}

void WaitingTable::add(HublinkConnection* requester, Wish wish, Awaited on, UsageShare share) {
  entries_.push_back({requester, std::move(wish), on, std::move(share)});
}

void WaitingTable::expect(std::string service, ArrivalID arrival) {
  expected_.push_back({std::move(service), OnArrival{arrival, true}});
}

void WaitingTable::expectFromClient(std::string service, std::int32_t startCookie,
                                    std::int32_t setAside) {
  expected_.push_back({std::move(service), OnClientStart{startCookie}, setAside});
}

bool WaitingTable::isAwaited(std::string_view service, const char* workingDir) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const Waiting& entry) {
    const std::string* name = serviceIn(entry.wish);
    if (!name || *name != service) return false;
    const char* other = workingDirOf(entry.wish);
    return !workingDir || !other || sameWorkingDir(workingDir, other);
  });
}

bool WaitingTable::isExpected(std::string_view service) const {
  return std::any_of(expected_.begin(), expected_.end(),
                     [service](const Expected& one) { return one.service == service; });
}

Awaited WaitingTable::joining(std::string_view service) const {
  for (auto one = expected_.rbegin(); one != expected_.rend(); ++one)
    if (const auto* arrival = std::get_if<OnArrival>(&one->from);
        arrival && one->service == service)
      return OnArrival{arrival->arrival, false};
  return OnAnybody{};
}

WaitingList WaitingTable::take(const std::function<bool(const Waiting&)>& ends) {
  WaitingList taken;
  for (auto place = entries_.begin(); place != entries_.end();) {
    const auto entry = place++;
    if (ends(*entry)) taken.splice(taken.end(), entries_, entry);
  }
  return taken;
}

// Whoever waits for this plugin and no other.
WaitingList WaitingTable::takeThoseOn(std::int32_t pluginID) {
  return take([pluginID](const Waiting& entry) { return isOnPlugin(entry.on, pluginID); });
}

WaitingList WaitingTable::registered(std::int32_t pluginID, const char* workingDir,
                                     std::string_view service) {
  std::erase_if(expected_, [&](const Expected& one) {
    return isOnPlugin(one.from, pluginID) && one.service == service;
  });
  return take([&](const Waiting& entry) {
    const std::string* name = serviceIn(entry.wish);
    if (!name || *name != service || !takes(entry, pluginID)) return false;
    const char* wanted = workingDirOf(entry.wish);
    return !wanted || sameWorkingDir(wanted, workingDir);
  });
}

void WaitingTable::arrived(ArrivalID arrival, std::int32_t pluginID) {
  for (Waiting& entry : entries_) {
    if (!isOnArrival(entry.on, arrival)) continue;
    if (std::get<OnArrival>(entry.on).isOwn && !std::holds_alternative<QueryWish>(entry.wish))
      entry.on = OnPlugin{pluginID};
    else
      entry.on = OnAnybody{};
  }
  for (Expected& one : expected_)
    if (isOnArrival(one.from, arrival)) one.from = OnPlugin{pluginID};
}

WaitingTable::FailedArrival WaitingTable::arrivalFailed(ArrivalID arrival) {
  FailedArrival result;
  const auto place =
      std::find_if(expected_.begin(), expected_.end(),
                   [arrival](const Expected& one) { return isOnArrival(one.from, arrival); });
  if (place != expected_.end()) {
    result.service = std::move(place->service);
    expected_.erase(place);
  }
  const bool othersCome = result.service && isExpected(*result.service);
  const Awaited next = othersCome ? joining(*result.service) : OnAnybody{};
  result.ended = take([&](const Waiting& entry) {
    return isOnArrival(entry.on, arrival) && (!othersCome || std::get<OnArrival>(entry.on).isOwn);
  });
  for (Waiting& entry : entries_)
    if (isOnArrival(entry.on, arrival)) entry.on = next;
  return result;
}

WaitingList WaitingTable::negotiated(std::int32_t pluginID) {
  return take([pluginID](const Waiting& entry) {
    return std::holds_alternative<PluginWish>(entry.wish) && isOnPlugin(entry.on, pluginID);
  });
}

std::optional<std::string> WaitingTable::serviceOfStart(std::int32_t startCookie) const {
  for (const Expected& one : expected_)
    if (isOnStart(one.from, startCookie)) return one.service;
  return std::nullopt;
}

// Takes the start off the table, with the one who began it.
WaitingTable::ClientStartEnd WaitingTable::endClientStart(std::int32_t startCookie) {
  ClientStartEnd end;
  WaitingList own =
      take([startCookie](const Waiting& entry) { return isOnStart(entry.on, startCookie); });
  if (!own.empty()) end.own = std::move(own.front());
  std::erase_if(expected_, [&](const Expected& one) {
    if (!isOnStart(one.from, startCookie)) return false;
    end.setAside = one.setAside;
    return true;
  });
  return end;
}

WaitingTable::ClientStartEnd WaitingTable::clientStarted(std::int32_t startCookie,
                                                         std::int32_t pluginID, bool isProviding) {
  const auto own = std::find_if(entries_.begin(), entries_.end(), [&](const Waiting& entry) {
    return isOnStart(entry.on, startCookie);
  });
  if (own == entries_.end()) return {};
  if (std::holds_alternative<PluginWish>(own->wish)) return endClientStart(startCookie);
  ClientStartEnd end;
  own->on = OnPlugin{pluginID};
  const auto one = std::find_if(
      expected_.begin(), expected_.end(),
      [startCookie](const Expected& start) { return isOnStart(start.from, startCookie); });
  if (one == expected_.end()) return end;
  // Somebody may have named the ID that was set aside.
  end.setAside = std::exchange(one->setAside, 0);
  for (Waiting& entry : entries_)
    if (isOnPlugin(entry.on, end.setAside)) entry.on = OnPlugin{pluginID};
  one->from = OnPlugin{pluginID};
  if (isProviding) expected_.erase(one);
  return end;
}

WaitingTable::ClientStartEnd WaitingTable::clientStartFailed(std::int32_t startCookie) {
  ClientStartEnd end = endClientStart(startCookie);
  if (end.setAside != 0) end.others = takeThoseOn(end.setAside);
  return end;
}

WaitingTable::Departure WaitingTable::gone(const HublinkConnection* plugin, std::int32_t pluginID) {
  Departure departure;
  const WaitingList own =
      take([plugin](const Waiting& entry) { return entry.requester == plugin; });
  departure.ended = takeThoseOn(pluginID);
  for (const Waiting& entry : own) {
    const auto* start = std::get_if<OnClientStart>(&entry.on);
    const std::int32_t setAside = start ? endClientStart(start->startCookie).setAside : 0;
    if (setAside == 0) continue;
    departure.setAside.push_back(setAside);
    departure.ended.splice(departure.ended.end(), takeThoseOn(setAside));
  }
  std::erase_if(expected_,
                [pluginID](const Expected& one) { return isOnPlugin(one.from, pluginID); });
  return departure;
}
