#include "tools/hublinkctl/metrics.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

#include "indgen/printable.h"

namespace hublinkctl {
namespace {

enum class Type : std::uint8_t { gauge, counter, time };

struct Metric {
  const char* name;
  Type type;
  const char* help;
  const char* field;
};

constexpr Metric kOfHub[] = {
    {"hublink_start_time_seconds", Type::time, "When the hub was started, since 1970.", "since"},
    {"hublink_plugins", Type::gauge, "Plugins that are connected.", "plugins"},
    {"hublink_plugins_negotiating", Type::gauge, "Plugins that still negotiate.", "negotiating"},
    {"hublink_plugins_persistent", Type::gauge, "Plugins that keep the hub up.", "persistent"},
    {"hublink_services", Type::gauge, "Services that are registered.", "services"},
    {"hublink_links", Type::gauge, "Links between plugins.", "links"},
    {"hublink_launches", Type::gauge, "Launches in hand.", "launches"},
    {"hublink_waiting_questions", Type::gauge, "Questions without an answer yet.", "waiting"},
    {"hublink_descriptors", Type::gauge, "File descriptors that are open.", "descriptors"},
    {"hublink_descriptors_limit", Type::gauge, "The most there may be.", "most_descriptors"},
    {"hublink_plugin_ids", Type::gauge, "Plugin IDs in use.", "plugin_ids"},
    {"hublink_plugin_ids_limit", Type::gauge, "The most there may be.", "most_plugin_ids"},
    {"hublink_rns", Type::gauge, "RNs that are handed out.", "rns"},
    {"hublink_rns_limit", Type::gauge, "The most there may be.", "most_rns"},
    {"hublink_packets_total", Type::counter, "Packets relayed.", "packets"},
    {"hublink_bytes_total", Type::counter, "Bytes relayed.", "bytes"},
};

constexpr Metric kOfPlugin[] = {
    {"hublink_plugin_start_time_seconds", Type::time, "When it came, since 1970.", "since"},
    {"hublink_plugin_services", Type::gauge, "Services that it has registered.", "services"},
    {"hublink_plugin_links", Type::gauge, "Ends of links that it has.", "links"},
    {"hublink_plugin_waiting_questions", Type::gauge, "Its questions without an answer yet.",
     "waiting"},
    {"hublink_plugin_queued_bytes", Type::gauge, "What waits to be written to it.", "queued_bytes"},
    {"hublink_plugin_slow_since_seconds", Type::time,
     "Since when it doesn't take what it is sent, since 1970; 0 if it does.", "slow_since"},
    {"hublink_plugin_stalled", Type::gauge, "Plugins that aren't read because of it.", "stalled"},
    {"hublink_plugin_sent_packets_total", Type::counter, "Packets from it.", "sent_packets"},
    {"hublink_plugin_sent_bytes_total", Type::counter, "Bytes from it.", "sent_bytes"},
    {"hublink_plugin_received_packets_total", Type::counter, "Packets to it.", "received_packets"},
    {"hublink_plugin_received_bytes_total", Type::counter, "Bytes to it.", "received_bytes"},
};

constexpr Metric kOfLink[] = {
    {"hublink_link_start_time_seconds", Type::time, "When it came up, since 1970.", "since"},
    {"hublink_link_requester_packets_total", Type::counter, "Packets from the requester.",
     "requester_packets"},
    {"hublink_link_requester_bytes_total", Type::counter, "Bytes from the requester.",
     "requester_bytes"},
    {"hublink_link_provider_packets_total", Type::counter, "Packets from the provider.",
     "provider_packets"},
    {"hublink_link_provider_bytes_total", Type::counter, "Bytes from the provider.",
     "provider_bytes"},
};

constexpr Metric kOfLaunch[] = {
    {"hublink_launches_in_hand", Type::gauge, "Launches in hand of this program.", "count"},
    {"hublink_launch_oldest_start_time_seconds", Type::time,
     "When the oldest of them was begun, since 1970.", "since"},
    {"hublink_launch_waiting_questions", Type::gauge, "Questions that wait for them.", "waiting"},
};

std::string label(const char* name, const Facts& value) {
  std::string text = std::string(name) + "=\"";
  const std::string shown = value.is_string() ? gen_printable(value.get<std::string>())
                            : value.is_null() ? std::string()
                                              : value.dump();
  for (const char c : shown) {
    if (c == '\\' || c == '"') text += '\\';
    text += c;
  }
  return text + '"';
}

std::string valueOf(const Facts& item, const Metric& metric) {
  const Facts& value = item.at(metric.field);
  if (value.is_null()) return "0";
  if (metric.type != Type::time) return value.dump();
  const std::uint64_t time = value.get<std::uint64_t>();
  char text[32];
  std::snprintf(text, sizeof text, "%llu.%03d", static_cast<unsigned long long>(time / 1000),
                static_cast<int>(time % 1000));
  return text;
}

struct Labelled {
  std::string labels;  ///< without the braces
  const Facts* item;
};

void addMetrics(std::string& text, const Metric* begin, const Metric* end,
                const std::vector<Labelled>& items) {
  for (const Metric* metric = begin; metric != end; ++metric) {
    const std::string name = metric->name;
    text += "# HELP " + name + ' ' + metric->help + "\n# TYPE " + name +
            (metric->type == Type::counter ? " counter\n" : " gauge\n");
    for (const Labelled& each : items)
      text += name + (each.labels.empty() ? "" : '{' + each.labels + '}') + ' ' +
              valueOf(*each.item, *metric) + '\n';
  }
}

template <std::size_t count>
void addMetrics(std::string& text, const Metric (&metrics)[count],
                const std::vector<Labelled>& items) {
  addMetrics(text, metrics, metrics + count, items);
}

// Several launches of one program don't differ by what is known of them.
std::map<std::string, Facts> launchesByLabels(const Facts& launches) {
  std::map<std::string, Facts> sums;
  for (const Facts& launch : launches) {
    const std::string labels =
        label("program", launch.at("program")) + ',' + label("service", launch.at("service"));
    const auto [place, isNew] = sums.try_emplace(
        labels, Facts{{"count", 0}, {"since", launch.at("since")}, {"waiting", 0}});
    Facts& sum = place->second;
    sum["count"] = sum.at("count").get<int>() + 1;
    sum["since"] = std::min(sum.at("since"), launch.at("since"));
    sum["waiting"] = sum.at("waiting").get<int>() + launch.at("waiting").get<int>();
  }
  return sums;
}

}  // namespace

std::string metricsText(const Facts& snapshot) {
  const Facts& hub = snapshot.at("hub");
  std::string text =
      "# HELP hublink_info The hub.\n# TYPE hublink_info gauge\n"
      "hublink_info{" +
      label("version", hub.at("version")) + ',' + label("host", hub.at("host")) + ',' +
      label("port", hub.at("port")) + "} 1\n";
  addMetrics(text, kOfHub, {{"", &hub}});

  std::vector<Labelled> items;
  for (const Facts& plugin : snapshot.at("plugins"))
    items.push_back(
        {label("plugin", plugin.at("plugin_id")) + ',' + label("program", plugin.at("program")),
         &plugin});
  addMetrics(text, kOfPlugin, items);

  items.clear();
  for (const Facts& link : snapshot.at("links")) {
    std::string labels = label("service", link.at("service"));
    for (const char* end : {"requester_id", "requester_rn", "provider_id", "provider_rn"})
      labels += ',' + label(end, link.at(end));
    items.push_back({labels, &link});
  }
  addMetrics(text, kOfLink, items);

  items.clear();
  const auto launches = launchesByLabels(snapshot.at("launches"));
  for (const auto& [labels, sum] : launches) items.push_back({labels, &sum});
  addMetrics(text, kOfLaunch, items);
  return text;
}

}  // namespace hublinkctl
