#include "tools/hublinkctl/top_frame.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "platform/clock.h"
#include "tools/hublinkctl/table.h"

namespace hublinkctl {
namespace {

constexpr const char* kHelp =
    "p plugins  l links  t by traffic  b by backlog  a by age  r the other way round  "
    "space now  h no help  q end\n";

const std::vector<Column>& columnsOf(const TopView& view) {
  static const std::vector<Column> plugins{{"PLUGIN", "plugin_id", Shown::count},
                                           {"PROGRAM", "program"},
                                           {"AGE", "since", Shown::age},
                                           {"LINKS", "links", Shown::count},
                                           {"PACKETS/S", "packet_rate", Shown::count},
                                           {"BYTES/S", "byte_rate", Shown::bytes},
                                           {"QUEUED", "queued_bytes", Shown::bytes},
                                           {"SLOW", "slow_since", Shown::age},
                                           {"STALLED", "stalled", Shown::count}};
  static const std::vector<Column> links{{"SERVICE", "service"},
                                         {"REQUESTER", "requester_id", Shown::count},
                                         {"PROVIDER", "provider_id", Shown::count},
                                         {"AGE", "since", Shown::age},
                                         {"PACKETS/S", "packet_rate", Shown::count},
                                         {"BYTES/S", "byte_rate", Shown::bytes},
                                         {"QUEUED", "queued_bytes", Shown::bytes}};
  return view.links ? links : plugins;
}

std::uint64_t sumOf(const Facts& item, const char* one, const char* other) {
  return item.at(one).get<std::uint64_t>() + item.at(other).get<std::uint64_t>();
}

// The largest first; the oldest, whose time is the smallest.
double rankOf(const Facts& item, TopOrder order) {
  if (order == TopOrder::backlog) return -item.at("queued_bytes").get<double>();
  if (order == TopOrder::age) return item.at("since").is_null() ? 0 : item["since"].get<double>();
  const Facts& rate = item.at("byte_rate");
  return -(rate.is_null() ? item.at("total_bytes") : rate).get<double>();
}

// The first `count` lines.
std::string firstLines(const std::string& text, std::size_t count) {
  std::size_t end = 0;
  for (; count > 0 && end < text.size(); --count) end = text.find('\n', end) + 1;
  return text.substr(0, end);
}

}  // namespace

void TopFrame::addRates(Facts& item, Key key, Counts counts, std::map<Key, Counts>& seen) {
  const auto before = counts_.find(key);
  // A link that has come in place of another has less.
  const bool isKnown = seconds_ && before != counts_.end() &&
                       before->second.bytes <= counts.bytes &&
                       before->second.packets <= counts.packets;
  const auto rate = [&](std::uint64_t now, std::uint64_t then) {
    return Facts(std::llround(static_cast<double>(now - then) / *seconds_));
  };
  item["packet_rate"] = isKnown ? rate(counts.packets, before->second.packets) : Facts();
  item["byte_rate"] = isKnown ? rate(counts.bytes, before->second.bytes) : Facts();
  item["total_bytes"] = counts.bytes;
  seen[key] = counts;
}

bool TopFrame::look(StatusClient& client) {
  auto hub = client.hub();
  auto plugins = hub ? client.list(Listed::plugins) : std::nullopt;
  auto links = plugins ? client.list(Listed::links) : std::nullopt;
  if (!links) return false;
  const std::uint64_t now = platform::monotonicMilliseconds();
  if (time_ != 0 && now > time_) seconds_ = static_cast<double>(now - time_) / 1000;
  time_ = now;
  std::map<Key, Counts> seen;
  std::map<std::int32_t, std::uint64_t> queued;
  addRates(*hub, {0, 0}, {hub->at("packets"), hub->at("bytes")}, seen);
  for (Facts& item : *plugins) {
    const std::int32_t id = item.at("plugin_id");
    addRates(item, {id, 0},
             {sumOf(item, "sent_packets", "received_packets"),
              sumOf(item, "sent_bytes", "received_bytes")},
             seen);
    queued[id] = item.at("queued_bytes");
  }
  for (Facts& item : *links) {
    const std::int32_t requester = item.at("requester_id"), provider = item.at("provider_id");
    addRates(item, {requester, item.at("requester_rn")},
             {sumOf(item, "requester_packets", "provider_packets"),
              sumOf(item, "requester_bytes", "provider_bytes")},
             seen);
    // What waits for either end: the hub doesn't count it for each link.
    item["queued_bytes"] = queued[requester] + queued[provider];
  }
  hub_ = std::move(*hub);
  plugins_ = std::move(*plugins);
  links_ = std::move(*links);
  counts_ = std::move(seen);
  return true;
}

std::string TopFrame::heading(const TopView& view) const {
  constexpr const char* kOrders[] = {"traffic", "backlog", "age"};
  const std::int64_t now = platform::unixMilliseconds();
  const auto shown = [&](const char* field, Shown how) {
    return shownValue(hub_.at(field), how, now);
  };
  return "hub " + shown("version", Shown::text) + "  port " + shown("port", Shown::count) +
         "  process " + shown("process", Shown::count) + "  up " + shown("since", Shown::age) +
         "  " + shown("packet_rate", Shown::count) + " packets/s  " +
         shown("byte_rate", Shown::bytes) + "/s\n" + std::to_string(plugins_.size()) +
         " plugins  " + shown("services", Shown::count) + " services  " +
         std::to_string(links_.size()) + " links  " + shown("launches", Shown::count) +
         " launches  " + (view.links ? "links by " : "plugins by ") +
         kOrders[static_cast<int>(view.order)] + (view.reverse ? " reversed" : "") +
         ", h for help\n";
}

std::string TopFrame::text(const TopView& view, std::size_t width, std::size_t height,
                           bool colours) const {
  std::vector<Facts> items;
  for (const Facts& item : view.links ? links_ : plugins_) items.push_back(item);
  std::stable_sort(items.begin(), items.end(), [&](const Facts& a, const Facts& b) {
    return rankOf(a, view.order) < rankOf(b, view.order);
  });
  if (view.reverse) std::reverse(items.begin(), items.end());
  const std::string table =
      tableOf(columnsOf(view), Facts(items), width, platform::unixMilliseconds());
  const std::string text = heading(view) + (view.help ? kHelp : "") + "\n" +
                           (colours ? coloured(table, Facts(items)) : table);
  return height == 0 ? text : firstLines(text, height);
}

}  // namespace hublinkctl
