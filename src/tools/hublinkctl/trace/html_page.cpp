#include "tools/hublinkctl/trace/html_page.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/hublinkctl/trace/page.h"

namespace trace {
namespace {

using nlohmann::json;

constexpr const char* kKinds[] = {"received", "sent",     "reply",    "sendFailed",
                                  "launch",   "failed",   "accepted", "created",
                                  "down",     "shutdown", "note",     "unreadable"};

template <class Number>
json orNull(const std::optional<Number>& number) {
  return number ? json(*number) : json(nullptr);
}

json jsonOf(const Field& field) {
  const json value = field.isList ? json(field.items) : json(field.value);
  return json::array({field.name, value, field.isText});
}

json jsonOf(const Event& event, const RequestIds& requests) {
  json fields = json::array();
  for (const Field& field : event.fields) fields.push_back(jsonOf(field));
  return json::array({orNull(event.time), kKinds[static_cast<int>(event.kind)],
                      orNull(event.pluginID), event.pluginName, event.message, fields, event.text,
                      requests});
}

json jsonOf(const Request& request) {
  constexpr const char* kStates[] = {"open", "done", "failed"};
  return {{"asked", request.asked},
          {"title", request.title},
          {"outcome", request.outcome},
          {"ending", request.ending},
          {"state", kStates[static_cast<int>(request.state)]},
          {"requester", request.requester},
          {"provider", request.provider},
          {"begin", orNull(request.begin)},
          {"end", orNull(request.end)}};
}

// Inside a script element "<" would be read as a tag's beginning.
std::string embeddable(const json& document) {
  std::string result;
  for (const char c : document.dump(-1, ' ', false, json::error_handler_t::replace))
    c == '<' ? result += "\\u003c" : result += c;
  return result;
}

}  // namespace

void HtmlPage::add(Event event) {
  RequestIds requests = tracker_.assign(event);
  entries_.push_back({std::move(event), std::move(requests)});
}

std::string HtmlPage::text(const std::string& title) const {
  json document = {{"title", title}, {"events", json::array()}, {"requests", json::array()}};
  for (const Entry& entry : entries_)
    document["events"].push_back(jsonOf(entry.event, entry.requests));
  for (const Request& request : tracker_.requests())
    document["requests"].push_back(jsonOf(request));
  std::string page = kPage;
  return page.replace(page.find(kPageData), std::strlen(kPageData), embeddable(document));
}

}  // namespace trace
