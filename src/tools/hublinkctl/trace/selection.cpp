#include "tools/hublinkctl/trace/selection.h"

#include <algorithm>

namespace trace {
namespace {

// A title may have several services, with blanks between them.
bool names(const std::string& title, const std::string& service) {
  return (" " + title + " ").find(" " + service + " ") != std::string::npos;
}

bool fits(const Request& request, const Filter& filter) {
  return (!filter.plugin || request.requester == *filter.plugin ||
          request.provider == *filter.plugin) &&
         (filter.service.empty() || names(request.title, filter.service)) &&
         (!filter.failed || request.state == Request::State::failed);
}

}  // namespace

Selection::Selection(const std::vector<Event>& events, const Filter& filter) {
  RequestTracker tracker;
  std::vector<RequestIds> belongsTo;
  for (const Event& event : events) belongsTo.push_back(tracker.assign(event));
  for (std::size_t id = 0; id < tracker.requests().size(); ++id)
    if (fits(tracker.requests()[id], filter)) requests_.insert(id);
  const bool isPluginAlone = filter.plugin && filter.service.empty() && !filter.failed;
  for (std::size_t i = 0; i < events.size(); ++i)
    events_.push_back(!filter.isGiven() || (isPluginAlone && events[i].pluginID == filter.plugin) ||
                      std::any_of(belongsTo[i].begin(), belongsTo[i].end(),
                                  [this](std::size_t id) { return requests_.contains(id); }));
}

}  // namespace trace
