#include "services/hublink_bridge/members.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <tuple>

#include "services/hublink_bridge/names.h"

namespace bridge {

namespace {

constexpr std::size_t kServicesOfPage = 200;
constexpr std::size_t kMostIncarnation = 16;
constexpr std::int64_t kMicroseconds = 1000;  // in a millisecond
// How long an incarnation that isn't heard any more stands against one that seems to be older: two
// of the rare announcements, and some. In ms.
constexpr std::int64_t kDoubtTime = 9000;
// What is taken for a machine that hasn't been measured, in ms: further away than any other.
constexpr std::int64_t kUnmeasured = INT32_MAX;

std::size_t bytesOf(const std::vector<ExportedService>& services) {
  std::size_t bytes = 0;
  for (const ExportedService& one : services)
    bytes += sizeof one + one.name.size() + one.program.size();
  return bytes;
}

bool readText(const nlohmann::json& object, const char* name, std::string& text) {
  const auto place = object.find(name);
  if (place == object.end() || !place->is_string()) return false;
  text = place->get_ref<const std::string&>();
  return text.size() <= kMostText && text.find('\0') == std::string::npos;
}

}  // namespace

std::string servicesToJson(const ExportedService* services, std::size_t count) {
  nlohmann::json list = nlohmann::json::array();
  for (std::size_t i = 0; i < count; ++i) {
    const ExportedService& one = services[i];
    list.push_back({{"name", one.name},
                    {"state", one.isRunning ? "running" : "startable"},
                    {"plugin", one.pluginID},
                    {"program", one.program}});
  }
  // A name that isn't UTF-8 can't be told as it is, and wouldn't be found by it.
  return nlohmann::json{{"services", list}}.dump(-1, ' ', false,
                                                 nlohmann::json::error_handler_t::replace);
}

std::vector<std::string> pagesOf(const std::vector<ExportedService>& services, std::size_t most) {
  std::vector<std::string> pages;
  for (std::size_t first = 0; first < services.size() || pages.empty();) {
    std::size_t count = std::min(services.size() - first, kServicesOfPage);
    std::string page = servicesToJson(services.data() + first, count);
    for (; page.size() > most && count > 1; page = servicesToJson(services.data() + first, count))
      count /= 2;
    first += count;
    pages.push_back(std::move(page));
  }
  return pages;
}

bool servicesFromJson(std::string_view json, std::size_t most,
                      std::vector<ExportedService>& services) {
  const nlohmann::json page = nlohmann::json::parse(json, nullptr, false);
  if (!page.is_object()) return false;
  const auto list = page.find("services");
  if (list == page.end() || !list->is_array() || list->size() > most) return false;
  for (const nlohmann::json& one : *list) {
    ExportedService service;
    std::string state;
    if (!one.is_object() || !readText(one, "name", service.name) || service.name.empty() ||
        !readText(one, "state", state))
      return false;
    readText(one, "program", service.program);
    const auto plugin = one.find("plugin");
    if (plugin != one.end() && plugin->is_number_integer()) {
      const auto number = plugin->get<std::int64_t>();
      if (number >= -1 && number <= INT32_MAX) service.pluginID = static_cast<std::int32_t>(number);
    }
    service.isRunning = state == "running";
    services.push_back(std::move(service));
  }
  return true;
}

// An older incarnation has a message that comes late, or is a second bridge of that name. If the
// one that is known stays silent, though, it was the clock that was set back between two starts.
Member* Members::admit(const std::string& machine, const std::string& incarnation,
                       std::int64_t since, std::int64_t now) {
  if (incarnation.empty() || incarnation.size() > kMostIncarnation) return nullptr;
  const auto place = members_.find(machine);
  if (place != members_.end()) {
    Member& known = place->second;
    if (known.incarnation == incarnation) {
      known.heard = known.shown = now;
      return &known;
    }
    if (since < known.since && now - known.shown < kDoubtTime) return nullptr;
  }
  if (place != members_.end()) remove(machine, "its bridge was started anew");
  if (members_.size() >= kMostMachines) return nullptr;
  Member& member = members_[machine];
  member.incarnation = incarnation;
  member.since = since;
  member.heard = member.shown = now;
  listener_.memberCame(machine);
  const auto added = members_.find(machine);
  return added == members_.end() ? nullptr : &added->second;
}

bool Members::heard(const std::string& machine, std::int64_t now) {
  const auto place = members_.find(machine);
  if (place == members_.end()) return false;
  place->second.heard = now;
  return true;
}

bool Members::alive(const std::string& machine, const std::string& incarnation, std::int64_t since,
                    std::uint64_t state, std::int64_t now) {
  const Member* member = admit(machine, incarnation, since, now);
  return !member || member->state >= state;
}

void Members::drop(std::vector<ExportedService>& services) {
  bytes_ -= bytesOf(services);
  services.clear();
}

void Members::dropPartial(const std::string& machine) {
  const auto place = partials_.find(machine);
  if (place == partials_.end()) return;
  drop(place->second.services);
  partials_.erase(place);
}

// One for which there is no room is asked for again with the next announcement.
bool Members::takePage(Partial& partial, const StatePage& page) {
  std::vector<ExportedService> services;
  if (!servicesFromJson(page.json, kMostServices - partial.services.size(), services)) return false;
  const std::size_t bytes = bytesOf(services);
  if (bytes > kMostBytes - bytes_) return false;
  bytes_ += bytes;
  partial.services.reserve(partial.services.size() + services.size());
  std::move(services.begin(), services.end(), std::back_inserter(partial.services));
  ++partial.next;
  return true;
}

void Members::stateArrived(const std::string& machine, const StatePage& page, std::int64_t now) {
  if (page.pages == 0 || page.page == 0 || page.page > page.pages || page.state == 0) return;
  const Member* known = admit(machine, page.incarnation, page.since, now);
  if (!known || page.state < known->state) return;
  Partial& partial = partials_[machine];
  // What is said to all and what is said to this one may overtake each other.
  if (partial.incarnation == page.incarnation && page.state < partial.state) return;
  if (page.page == 1) {
    drop(partial.services);
    partial = {page.incarnation, page.state, 1, {}};
  }
  const bool isOfThose = partial.incarnation == page.incarnation && partial.state == page.state;
  if (isOfThose && page.page < partial.next) return;
  if (!isOfThose || page.page > partial.next || !takePage(partial, page)) {
    dropPartial(machine);
    return;
  }
  if (page.page < page.pages) return;
  Member& member = members_[machine];
  member.version = page.version.substr(0, kMostText);
  member.state = page.state;
  drop(member.services);
  member.services = std::move(partial.services);
  partials_.erase(machine);
}

void Members::bye(const std::string& machine, const std::string& incarnation) {
  const auto place = members_.find(machine);
  if (place != members_.end() && place->second.incarnation == incarnation)
    remove(machine, "its bridge has ended");
}

// The latest counts for an eighth, as TCP smooths it (RFC 6298).
void Members::measured(const std::string& machine, std::int64_t roundTrip) {
  const auto place = members_.find(machine);
  if (place == members_.end() || roundTrip < 0) return;
  std::int64_t& smoothed = place->second.roundTrip;
  smoothed = smoothed < 0 ? roundTrip : smoothed + (roundTrip - smoothed) / 8;
}

std::int64_t Members::step(std::int64_t now) {
  if (now < due_) return due_ - now;
  std::vector<std::string> gone;
  due_ = now + silence_;
  for (const auto& [machine, member] : members_) {
    const std::int64_t missedAt = member.heard + silence_;
    if (missedAt <= now)
      gone.push_back(machine);
    else
      due_ = std::min(due_, missedAt);
  }
  for (const std::string& machine : gone) remove(machine, "it isn't heard any more");
  return members_.empty() ? -1 : due_ - now;
}

void Members::remove(const std::string& machine, const std::string& why) {
  const auto place = members_.find(machine);
  drop(place->second.services);
  members_.erase(place);
  dropPartial(machine);
  listener_.memberGone(machine, why);
}

const Member* Members::find(const std::string& machine) const {
  const auto place = members_.find(machine);
  return place == members_.end() ? nullptr : &place->second;
}

bool Members::isImported(std::string_view service) const {
  return imports_.empty() || fitsAny(imports_, service);
}

std::vector<std::string> Members::choose(std::string_view service) const {
  if (!isImported(service)) return {};
  using Rank = std::tuple<bool, std::int64_t, std::string>;
  std::vector<Rank> ranks;
  for (const auto& [machine, member] : members_) {
    bool isExported = false, isRunning = false;
    for (const ExportedService& one : member.services) {
      isExported = isExported || one.name == service;
      isRunning = isRunning || (one.name == service && one.isRunning);
    }
    const std::int64_t distance =
        member.roundTrip < 0 ? kUnmeasured : member.roundTrip / kMicroseconds;
    if (isExported) ranks.emplace_back(!isRunning, distance, machine);
  }
  std::sort(ranks.begin(), ranks.end());
  std::vector<std::string> machines;
  for (const Rank& rank : ranks) machines.push_back(std::get<std::string>(rank));
  return machines;
}

std::string Members::programOf(const std::string& machine, std::int32_t pluginID) const {
  const Member* member = find(machine);
  if (!member) return "";
  for (const ExportedService& one : member->services)
    if (one.isRunning && one.pluginID == pluginID) return one.program;
  return "";
}

}  // namespace bridge
