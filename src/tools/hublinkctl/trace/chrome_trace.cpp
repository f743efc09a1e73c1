#include "tools/hublinkctl/trace/chrome_trace.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

namespace trace {
namespace {

using nlohmann::json;

constexpr int kHub = 65536;  // above all plugin IDs
constexpr std::size_t kMostArguments = 32;

struct Slice {
  int plugin;
  std::int64_t begin, end;  // microseconds
  std::size_t request;
  bool isAsker;
};

json argumentsOf(const Event& event) {
  json arguments = json::object();
  for (const Field& field : event.fields) {
    const auto count = static_cast<std::ptrdiff_t>(std::min(field.items.size(), kMostArguments));
    arguments[field.name] =
        field.isList
            ? json(std::vector<std::string>(field.items.begin(), field.items.begin() + count))
            : json(field.value);
  }
  if (!event.text.empty()) arguments["text"] = event.text;
  return arguments;
}

json metadata(const char* what, int plugin, const char* field, const json& value) {
  return {{"ph", "M"}, {"name", what}, {"pid", plugin}, {"tid", 0}, {"args", {{field, value}}}};
}

class Writer {
 public:
  Writer(const std::vector<Event>& events, const Selection& selection) {
    for (std::size_t i = 0; i < events.size(); ++i) take(events[i], selection.hasEvent(i));
    for (const std::size_t id : selection.requests())
      if (began_.contains(id)) addRequest(id);
    for (const int plugin : plugins_) addName(plugin);
    placeSlices();
  }
  std::string text() const {
    return json{{"displayTimeUnit", "ms"}, {"traceEvents", out_}}.dump(
               -1, ' ', false, json::error_handler_t::replace) +
           '\n';
  }

 private:
  // Lines without a time stand at that of the line before.
  std::int64_t timeOf(const Event& event) {
    const std::int64_t start = event.time ? *event.time * 1000 : now_;
    now_ = std::max(now_ + 1, start);
    return now_;
  }

  void take(const Event& event, bool isShown) {
    const std::int64_t time = timeOf(event);
    const int plugin = event.pluginID.value_or(kHub);
    const RequestIds ids = tracker_.assign(event);
    if (event.message == "RegisterServiceList" && event.kind == Event::Kind::received)
      if (const Field* list = event.find("name_list"))
        services_[plugin].insert(list->items.begin(), list->items.end());
    if (!event.pluginName.empty()) programs_[plugin] = event.pluginName;
    for (const std::size_t id : ids) {
      const Request& request = tracker_.requests()[id];
      began_.emplace(id, time);
      if (!ended_.contains(id) && event.isMessage() && plugin != request.requester) {
        auto& part = parts_.emplace(std::pair(id, plugin), std::pair(time, time)).first->second;
        part.second = time;
      }
      if (request.state != Request::State::open) ended_.emplace(id, time);
    }
    if (!isShown || !event.time) return;
    plugins_.insert(plugin);
    out_.push_back({{"ph", "i"},
                    {"s", "t"},
                    {"cat", event.isMessage() ? "message" : "hub"},
                    {"name", event.isMessage() ? event.message : event.text},
                    {"pid", plugin},
                    {"tid", 0},
                    {"ts", time},
                    {"args", argumentsOf(event)}});
  }

  void addRequest(std::size_t id) {
    const Request& request = tracker_.requests()[id];
    const auto end = ended_.find(id);
    const std::int64_t until = end == ended_.end() ? now_ : end->second;
    slices_.push_back({request.requester, began_[id], until, id, true});
    plugins_.insert(request.requester);
    for (auto part = parts_.lower_bound({id, INT32_MIN});
         part != parts_.end() && part->first.first == id; ++part) {
      const auto [first, last] = part->second;
      slices_.push_back({part->first.second, first, std::max(last, first + 1), id, false});
      plugins_.insert(part->first.second);
    }
  }

  void addName(int plugin) {
    const std::string& program = programs_[plugin];
    const std::string name =
        plugin == kHub ? "hub"
                       : (program.empty() ? "plugin" : program) + " " + std::to_string(plugin);
    out_.push_back(metadata("process_name", plugin, "name", name));
    out_.push_back(metadata("process_sort_index", plugin, "sort_index", plugin % kHub));
    out_.push_back(metadata("thread_name", plugin, "name", name));
    std::string labels;
    for (const std::string& service : services_[plugin])
      labels += (labels.empty() ? "" : ", ") + service;
    if (!labels.empty()) out_.push_back(metadata("process_labels", plugin, "labels", labels));
  }

  void placeSlices() {
    std::sort(slices_.begin(), slices_.end(), [](const Slice& a, const Slice& b) {
      return std::tie(a.begin, a.request, a.plugin) < std::tie(b.begin, b.request, b.plugin);
    });
    std::map<int, std::vector<std::int64_t>> ends;  // of the last slice on each track
    for (const Slice& slice : slices_) {
      std::vector<std::int64_t>& tracks = ends[slice.plugin];
      const auto place = std::find_if(tracks.begin(), tracks.end(),
                                      [&](std::int64_t end) { return end <= slice.begin; });
      const auto track = place - tracks.begin();
      if (place == tracks.end()) tracks.push_back(0);
      tracks[static_cast<std::size_t>(track)] = slice.end;
      addSlice(slice, track);
    }
  }

  void addSlice(const Slice& slice, std::ptrdiff_t track) {
    const Request& request = tracker_.requests()[slice.request];
    const json place = {{"pid", slice.plugin}, {"tid", track}, {"ts", slice.begin}};
    json whole = place;
    whole.update({{"ph", "X"},
                  {"cat", "request"},
                  {"name", request.asked + (request.title.empty() ? "" : " " + request.title)},
                  {"dur", slice.end - slice.begin},
                  {"args",
                   {{"request", slice.request + 1},
                    {"outcome", request.outcome},
                    {"ending", request.ending},
                    {"failed", request.state == Request::State::failed}}}});
    out_.push_back(whole);
    const bool isAlone = parts_.lower_bound({slice.request, INT32_MIN}) ==
                         parts_.lower_bound({slice.request + 1, INT32_MIN});
    if (isAlone) return;
    json flow = place;
    flow.update({{"cat", "request"}, {"name", "request"}, {"id", slice.request + 1}});
    flow["ph"] = slice.isAsker ? "s" : "f";
    if (!slice.isAsker) flow["bp"] = "e";
    out_.push_back(flow);
  }

  RequestTracker tracker_;
  std::int64_t now_ = 0;
  std::map<std::size_t, std::int64_t> began_, ended_;  // by request
  // By request and plugin: from its first to its last line.
  std::map<std::pair<std::size_t, int>, std::pair<std::int64_t, std::int64_t>> parts_;
  std::map<int, std::set<std::string>> services_;
  std::map<int, std::string> programs_;
  std::set<int> plugins_;  // that are shown
  std::vector<Slice> slices_;
  json out_ = json::array();
};

}  // namespace

std::string chromeTrace(const std::vector<Event>& events, const Selection& selection) {
  return Writer(events, selection).text();
}

}  // namespace trace
