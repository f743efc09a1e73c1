#include "tools/hublinkctl/trace/request_tracker.h"

#include <algorithm>

namespace trace {
namespace {

using Kind = Event::Kind;

// The answer that ends a question, and by which field both are matched; null if by nothing.
struct Question {
  const char* asked;
  const char* answer;
  const char* token;
  const char* title;  // the field that tells what for
};
constexpr Question kQuestions[] = {
    {"RequestServiceConnection", "ConnectionReplyEvent", "client_cookie", "serviceName"},
    {"RequestPluginIdForService", "PluginIdForServiceReplyEvent", "cookie", "serviceName"},
    {"RequestPluginLaunch", "PluginConnectedEvent", "cookie", "argv"},
    {"RequestPluginConnect", "PluginConnectedEvent", "cookie", "host"},
    {"RequestValueOfNameOnPlugin", "ValueOfNameOnPluginEvent", "name", "name"},
    {"RequestLocation", "LocationEvent", nullptr, nullptr},
    {"ReserveRNBlock", "RNBlockReservedEvent", nullptr, "count"},
    {"RegisterServiceList", "RNBlockReservedEvent", nullptr, "name_list"},
    {"NumPersistentServices", "NumPersistentServices", nullptr, nullptr},
};

template <class Match>
const Question* findQuestion(Match match) {
  const auto* place = std::find_if(std::begin(kQuestions), std::end(kQuestions), match);
  return place == std::end(kQuestions) ? nullptr : place;
}

std::string shown(const Event& event, const char* name) {
  const Field* field = name ? event.find(name) : nullptr;
  if (!field) return {};
  if (!field->isList) return field->value;
  std::string line;
  for (const std::string& item : field->items) line += (line.empty() ? "" : " ") + item;
  return line;
}

std::string plugin(int id) {
  return "plugin " + std::to_string(id);
}

// The outcome that an answer tells of, but for that of a connection.
std::pair<std::string, bool> outcomeOf(const Event& event) {
  if (event.message == "PluginConnectedEvent") {
    const int id = event.number("pluginID");
    return id == -1 ? std::pair(event.value("errors"), true) : std::pair(plugin(id), false);
  }
  if (event.message == "PluginIdForServiceReplyEvent") {
    const int id = event.number("plugin_id");
    return id == -1 ? std::pair(std::string("nobody provides it"), true)
                    : std::pair(plugin(id), false);
  }
  if (event.message == "ValueOfNameOnPluginEvent")
    return {"\"" + event.value("value") + "\"", false};
  return {"answered", false};
}

bool isAboutCurrent(const Event& event) {
  for (const char* start : {"Warning: ", "Service ", "Plugin id ", "Local connection "})
    if (event.text.starts_with(start)) return true;
  return event.kind == Kind::launch || event.kind == Kind::launchFailed ||
         event.kind == Kind::created;
}

}  // namespace

RequestIds RequestTracker::assign(const Event& event) {
  noticeNewcomer(event);
  switch (event.kind) {
    case Kind::received:
      return assignReceived(event);
    case Kind::sent:
    case Kind::reply:
      return assignSent(event);
    case Kind::down:
      return assignDown(event);
    case Kind::sendFailed:
    case Kind::unreadable:
      return {};
    default:
      return assignOwnLine(event);
  }
}

void RequestTracker::involve(int plugin, std::size_t id) {
  if (plugin != -1) involved_[plugin].insert(id);
}

// A plugin that the hub has launched shows up under its program's name.
void RequestTracker::noticeNewcomer(const Event& event) {
  if (!event.isMessage() || !seen_.insert(*event.pluginID).second || event.pluginName.empty())
    return;
  const auto place = std::find_if(launches_.begin(), launches_.end(), [&](const Launch& launch) {
    return launch.name == event.pluginName;
  });
  if (place == launches_.end()) return;
  newcomers_[*event.pluginID] = place->request;
  involve(*event.pluginID, place->request);
  launches_.erase(place);
}

// What a plugin does at its start belongs to the request for whose sake it was started.
void RequestTracker::addNewcomersRequest(const Event& event, RequestIds& ids) const {
  const auto place = newcomers_.find(*event.pluginID);
  if (place != newcomers_.end() && requests_[place->second].state == Request::State::open)
    ids.insert(place->second);
}

RequestIds RequestTracker::ask(const Event& event, std::string title, AnswerKey key) {
  const std::size_t id = requests_.size();
  Request request;
  request.asked = event.message;
  request.title = std::move(title);
  request.requester = *event.pluginID;
  request.begin = event.time;
  requests_.push_back(std::move(request));
  unanswered_[std::move(key)].push_back(id);
  involve(*event.pluginID, id);
  current_ = id;
  return {id};
}

void RequestTracker::answer(std::size_t id, const Event& event, std::string outcome, bool failed) {
  Request& request = requests_[id];
  request.outcome = std::move(outcome);
  request.state = failed ? Request::State::failed : Request::State::done;
  request.end = event.time;
  std::erase_if(launches_, [id](const Launch& launch) { return launch.request == id; });
  std::erase(unasked_[request.requester], id);
  for (const int plugin : {request.requester, request.provider})
    if (!ends_.contains(id)) involved_[plugin].erase(id);
}

// The oldest question that such an answer may be to.
std::optional<std::size_t> RequestTracker::takeAnswered(const AnswerKey& key) {
  const auto place = unanswered_.find(key);
  if (place == unanswered_.end()) return std::nullopt;
  const std::size_t id = place->second.front();
  place->second.pop_front();
  if (place->second.empty()) unanswered_.erase(place);
  return id;
}

// The question for a connection of which a provider hears now: the one that the hub handles, else
// the oldest for that service.
std::optional<std::size_t> RequestTracker::takeUnasked(int requester, const std::string& service) {
  std::vector<std::size_t>& waiting = unasked_[requester];
  auto place = current_ ? std::find(waiting.begin(), waiting.end(), *current_) : waiting.end();
  if (place == waiting.end())
    place = std::find_if(waiting.begin(), waiting.end(), [&](std::size_t id) {
      return service.empty() || requests_[id].title == service;
    });
  if (place == waiting.end()) return std::nullopt;
  const std::size_t id = *place;
  waiting.erase(place);
  return id;
}

std::optional<std::size_t> RequestTracker::linkOf(int rn, int otherRN) const {
  for (const auto& [local, service] : {std::pair(rn, otherRN), std::pair(otherRN, rn)}) {
    const auto place = links_.find(local);
    if (place != links_.end() && ends_.at(place->second).second == service) return place->second;
  }
  return std::nullopt;
}

RequestIds RequestTracker::assignReceived(const Event& event) {
  const int sender = *event.pluginID;
  current_.reset();
  RequestIds ids;
  const Question* question =
      findQuestion([&](const Question& entry) { return event.message == entry.asked; });
  // The hub says nothing to an empty list.
  if (event.message == "RegisterServiceList" && event.find("name_list") &&
      event.find("name_list")->items.empty())
    return ids;
  if (question) {
    ids = ask(event, shown(event, question->title),
              {sender, question->answer, shown(event, question->token)});
    if (event.message == "RequestServiceConnection") unasked_[sender].push_back(*current_);
    if (event.message == "RequestValueOfNameOnPlugin")
      requests_[*current_].provider = event.number("plugin_id");
    if (event.message == "RegisterServiceList") {
      const Field* names = event.find("name_list");
      registering_[sender] = names ? names->items : std::vector<std::string>();
      addNewcomersRequest(event, ids);
    }
  } else if (event.message == "ConnectionAcceptedEvent") {
    if (const auto id = linkOf(event.number("remoteRN"), event.number("serviceRN")))
      ids.insert(*id);
  } else if (event.message == "DropServiceConnection") {
    if (const auto id = linkOf(event.number("localRN"), event.number("serviceRN"))) {
      ids.insert(*id);
      endLink(*id, "ended by " + plugin(sender));
    }
  } else if (event.message == "ReleaseRN") {
    const auto place = links_.find(event.number("rn"));
    if (place != links_.end()) {
      ids.insert(place->second);
      links_.erase(place);
    }
  } else if (event.message == "ValueOfNameOnPluginResponseEvent") {
    const auto place = unanswered_.find(
        {event.number("requesting_plugin_id"), "ValueOfNameOnPluginEvent", event.value("name")});
    if (place != unanswered_.end()) ids.insert(place->second.front());
  } else if (event.message == "StartPluginEvent") {
    const auto place = startCookies_.find(event.number("cookie"));
    if (place != startCookies_.end()) {
      ids.insert(place->second);
      newcomers_[sender] = place->second;
    }
  }
  return ids;
}

RequestIds RequestTracker::assignSent(const Event& event) {
  const int receiver = *event.pluginID;
  RequestIds ids;
  if (event.message == "ConnectionRequestedEvent") {
    const int requester = event.number("requesting_plugin_id");
    const int serviceRN = event.number("serviceRN");
    const auto service = services_.find(std::to_string(serviceRN));
    if (const auto id =
            takeUnasked(requester, service == services_.end() ? std::string() : service->second)) {
      ids.insert(*id);
      requests_[*id].provider = receiver;
      links_[event.number("remoteRN")] = *id;
      ends_[*id] = {event.number("remoteRN"), serviceRN};
      involve(receiver, *id);
    }
  } else if (event.message == "ConnectionReplyEvent") {
    connectionReply(event, ids);
  } else if (event.message == "ConnectionDroppedEvent") {
    if (const auto id = linkOf(event.number("remoteRN"), event.number("serviceRN"))) {
      ids.insert(*id);
      endLink(*id, "ended");
    }
  } else if (event.message == "ForwardedRequestValueOfNameOnPlugin") {
    if (current_) ids.insert(*current_);
  } else if (event.message == "StartPlugin") {
    if (current_) {
      ids.insert(*current_);
      startCookies_[event.number("cookie")] = *current_;
    }
  } else if (event.message == "PluginId" || event.message == "StartLogging") {
    addNewcomersRequest(event, ids);
  } else if (const Question* question = findQuestion(
                 [&](const Question& entry) { return event.message == entry.answer; })) {
    if (const auto id = takeAnswered({receiver, question->answer, shown(event, question->token)})) {
      ids.insert(*id);
      auto [outcome, failed] = outcomeOf(event);
      answer(*id, event, std::move(outcome), failed);
    }
    const Field* list = event.find("rn_list");
    const std::vector<std::string> names = std::exchange(registering_[receiver], {});
    for (std::size_t i = 0; list && i < std::min(names.size(), list->items.size()); ++i)
      services_[list->items[i]] = names[i];
    if (list) addNewcomersRequest(event, ids);
  }
  return ids;
}

void RequestTracker::connectionReply(const Event& event, RequestIds& ids) {
  const AnswerKey key{*event.pluginID, event.message, shown(event, "client_cookie")};
  const auto link = links_.find(event.number("localRN"));
  std::optional<std::size_t> id;
  if (link != links_.end()) {
    id = link->second;
    const auto place = unanswered_.find(key);
    if (place != unanswered_.end()) std::erase(place->second, *id);
    if (place != unanswered_.end() && place->second.empty()) unanswered_.erase(place);
  } else {
    id = takeAnswered(key);
  }
  if (!id) return;
  ids.insert(*id);
  const bool accepted = event.number("wasAccepted") == 1;
  if (!accepted && link != links_.end()) {
    ends_.erase(*id);
    links_.erase(link);
  }
  if (event.number("wasFound") != 1)
    answer(*id, event, requests_[*id].provider == -1 ? "not found" : "the provider has gone", true);
  else if (event.number("is_shared_object") == 1)
    answer(*id, event, "the library " + event.value("shared_object_name"), false);
  else if (accepted)
    answer(*id, event, "accepted by " + plugin(event.number("plugin_id")), false);
  else
    answer(*id, event, "refused by " + plugin(event.number("plugin_id")), true);
}

void RequestTracker::endLink(std::size_t id, const std::string& ending) {
  Request& request = requests_[id];
  if (request.ending.empty()) request.ending = ending;
  for (const int plugin : {request.requester, request.provider}) involved_[plugin].erase(id);
}

RequestIds RequestTracker::assignOwnLine(const Event& event) {
  if (!current_ || !isAboutCurrent(event)) return {};
  const std::size_t id = *current_;
  if (event.kind == Kind::launch) {
    launches_.push_back({event.message.substr(event.message.rfind('/') + 1), id});
  } else if (event.kind == Kind::launchFailed) {
    std::erase_if(launches_, [id](const Launch& launch) { return launch.request == id; });
  } else if (event.kind == Kind::created) {
    newcomers_[*event.pluginID] = id;
  }
  return {id};
}

RequestIds RequestTracker::assignDown(const Event& event) {
  const int gone = *event.pluginID;
  current_.reset();
  seen_.insert(gone);
  const auto node = involved_.extract(gone);
  RequestIds ids = node.empty() ? RequestIds() : node.mapped();
  for (const std::size_t id : ids) {
    Request& request = requests_[id];
    if (request.state != Request::State::open)
      endLink(id, "ended as " + plugin(gone) + " went");
    else if (request.requester == gone)
      answer(id, event, plugin(gone) + ", which asked, went first", true);
  }
  // The hub answers none of its questions any more.
  std::erase_if(unanswered_, [gone](const auto& entry) { return entry.first.plugin == gone; });
  unasked_.erase(gone);
  newcomers_.erase(gone);
  return ids;
}

}  // namespace trace
