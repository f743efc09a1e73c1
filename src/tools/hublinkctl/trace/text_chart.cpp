#include "tools/hublinkctl/trace/text_chart.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "indgen/printable.h"

namespace trace {
namespace {

using Kind = Event::Kind;

constexpr std::size_t kLaneWidth = 5;
// Those for whom there is no lane left share the last.
constexpr std::size_t kMostLanes = 16;
constexpr std::size_t kMostItems = 32;

std::string timeText(const Event& event) {
  if (!event.time) return std::string(12, ' ');
  const std::int64_t day = ((*event.time % 86400000) + 86400000) % 86400000;
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", static_cast<int>(day / 3600000),
                static_cast<int>(day / 60000 % 60), static_cast<int>(day / 1000 % 60),
                static_cast<int>(day % 1000));
  return text;
}

std::string fieldText(const Field& field) {
  const auto one = [&](const std::string& value) {
    return field.isText ? "\"" + gen_printable(value) + "\"" : value;
  };
  if (!field.isList) return field.name + "=" + one(field.value);
  std::string list;
  for (std::size_t i = 0; i < std::min(field.items.size(), kMostItems); ++i)
    list += (i > 0 ? ", " : "") + one(field.items[i]);
  if (field.items.size() > kMostItems)
    list += ", and further to " + std::to_string(field.items.size());
  return field.name + "=[" + list + "]";
}

// The place of a lane's bar; lane 0 is the hub's.
std::size_t barOf(std::size_t lane) {
  return lane * kLaneWidth + kLaneWidth / 2;
}

std::string arrow(const Event& event, std::string chart, std::size_t lane) {
  const std::size_t first = barOf(0) + 1;
  const std::size_t last = barOf(lane) - 1;
  std::fill(chart.begin() + static_cast<std::ptrdiff_t>(first),
            chart.begin() + static_cast<std::ptrdiff_t>(last) + 1,
            event.kind == Kind::reply ? '.' : '-');
  if (event.kind == Kind::received)
    chart[first] = '<';
  else
    chart[last] = event.kind == Kind::sendFailed ? 'x' : '>';
  return chart;
}

}  // namespace

TextChart::TextChart(std::ostream& out, std::size_t lanes)
    : out_(out), lanes_(std::min(lanes, kMostLanes)) {
  out_ << "Times are UTC. o: a plugin shows up, X: its connection was reaped, *: the hub itself, "
          "?: can't be read.\n";
  writeLine("", "hub", "");
}

void TextChart::writeLine(const std::string& time, const std::string& chart,
                          const std::string& text) {
  std::string line = time;
  line.resize(12, ' ');
  line += " " + chart;
  if (!text.empty()) line += "  " + text;
  line.erase(line.find_last_not_of(' ') + 1);
  out_ << line << '\n';
}

std::string TextChart::bars() const {
  std::string chart((lanes_.size() + 1) * kLaneWidth, ' ');
  chart[barOf(0)] = '|';
  for (std::size_t lane = 0; lane < lanes_.size(); ++lane)
    if (!lanes_[lane].empty()) chart[barOf(lane + 1)] = '|';
  return chart;
}

std::size_t TextChart::sharedLane() const {
  return kMostLanes - 1;
}

// The lane of a plugin, from 1. One that shows up gets a line of its own before.
std::size_t TextChart::laneOf(int plugin, const std::string& label) {
  std::size_t lane = 0;
  for (; lane < lanes_.size(); ++lane)
    if (std::find(lanes_[lane].begin(), lanes_[lane].end(), plugin) != lanes_[lane].end())
      return lane + 1;
  for (lane = 0; lane < lanes_.size() && !lanes_[lane].empty();) ++lane;
  lane = std::min(lane, sharedLane());
  if (lane == lanes_.size()) lanes_.emplace_back();
  std::string chart = bars();
  chart[barOf(lane + 1)] = 'o';
  lanes_[lane].push_back(plugin);
  writeLine("", chart, "plugin " + label);
  return lane + 1;
}

std::string TextChart::textOf(const Event& event) const {
  if (!event.isMessage()) return gen_printable(event.text);
  std::string text = pluginLabel(*event.pluginID, gen_printable(event.pluginName)) + ": " +
                     gen_printable(event.message);
  if (event.kind == Kind::sendFailed) text += " (not sent: the connection had failed)";
  for (std::size_t i = 0; i < event.fields.size(); ++i)
    text += (i > 0 ? ", " : " ") + fieldText(event.fields[i]);
  if (!event.text.empty()) text += " ? " + gen_printable(event.text);
  return text;
}

// The date stands above the first line of each day.
void TextChart::noticeDay(const Event& event) {
  if (!event.time) return;
  const auto day = std::chrono::floor<std::chrono::days>(std::chrono::milliseconds(*event.time));
  if (day.count() == day_) return;
  day_ = day.count();
  const std::chrono::year_month_day date{std::chrono::sys_days(day)};
  char text[32];
  std::snprintf(text, sizeof text, "%d-%02u-%02u", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  writeLine(text, bars(), "");
}

void TextChart::add(const Event& event) {
  noticeDay(event);
  std::string text;
  for (const std::size_t id : tracker_.assign(event)) text += "#" + std::to_string(id + 1) + " ";
  text += textOf(event);
  std::size_t lane = 0;
  if (event.pluginID)
    lane = laneOf(*event.pluginID, pluginLabel(*event.pluginID, gen_printable(event.pluginName)));
  std::string chart = bars();
  if (event.isMessage()) {
    chart = arrow(event, std::move(chart), lane);
  } else if (event.kind == Kind::down) {
    chart[barOf(lane)] = 'X';
    std::erase(lanes_[lane - 1], *event.pluginID);
  } else {
    chart[barOf(0)] = event.kind == Kind::unreadable ? '?' : '*';
  }
  writeLine(timeText(event), chart, text);
}

void TextChart::skip(const Event& event) {
  tracker_.assign(event);
  if (event.kind != Kind::down) return;
  for (std::vector<int>& lane : lanes_) std::erase(lane, *event.pluginID);
}

void TextChart::finish(const RequestIds* only) {
  if (only ? !only->empty() : !tracker_.requests().empty()) out_ << "\nRequests:\n";
  std::size_t number = 0;
  for (const Request& request : tracker_.requests()) {
    if (only && !only->contains(number++)) continue;
    out_ << "#" << (only ? number : ++number) << " plugin " << request.requester << ": "
         << request.asked;
    if (!request.title.empty()) out_ << " " << gen_printable(request.title);
    out_ << ": " << gen_printable(request.outcome);
    if (request.begin && request.end) out_ << " after " << *request.end - *request.begin << " ms";
    if (!request.ending.empty()) out_ << ", " << request.ending;
    out_ << '\n';
  }
}

}  // namespace trace
