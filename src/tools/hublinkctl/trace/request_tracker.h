// Finds out what belongs together: for each event the requests that it is a part of.
//
// A request is a question of a plugin with all that comes of it: for a connection to a service that
// is the launch of a provider and its registration, the question to the provider and its answer,
// the reply, and the end of the link. Questions are told apart by cookies, RNs, names and plugin
// IDs; where a log holds none of these, answers are taken to come in the order of the questions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/hublinkctl/trace/trace_event.h"

namespace trace {

struct Request {
  enum class State { open, done, failed };
  std::string asked;  ///< the message that asked
  std::string title;  ///< what for: a service, a program...
  std::string outcome = "no answer";
  std::string ending;  ///< how what came of it ended: a link, or a plugin that was launched
  State state = State::open;
  int requester = -1;
  int provider = -1;                  ///< the other plugin, if there is one
  std::optional<std::int64_t> begin;  ///< milliseconds since 1970, UTC
  std::optional<std::int64_t> end;    ///< when it was answered
};

/// Places of requests in RequestTracker::requests(), each once.
using RequestIds = std::set<std::size_t>;

class RequestTracker {
 public:
  /// Takes the next event, and gives the requests that it belongs to.
  RequestIds assign(const Event& event);
  const std::deque<Request>& requests() const { return requests_; }

 private:
  struct Launch {
    std::string name;
    std::size_t request;
  };
  /// What an answer is matched by: the plugin that gets it, its message, and a cookie or name.
  struct AnswerKey {
    int plugin;
    std::string answer;
    std::string token;
    bool operator<(const AnswerKey& other) const {
      return std::tie(plugin, answer, token) < std::tie(other.plugin, other.answer, other.token);
    }
  };

  RequestIds assignReceived(const Event& event);
  RequestIds assignSent(const Event& event);
  RequestIds assignOwnLine(const Event& event);
  RequestIds assignDown(const Event& event);
  RequestIds ask(const Event& event, std::string title, AnswerKey key);
  void answer(std::size_t id, const Event& event, std::string outcome, bool failed);
  std::optional<std::size_t> takeAnswered(const AnswerKey& key);
  std::optional<std::size_t> takeUnasked(int requester, const std::string& service);
  std::optional<std::size_t> linkOf(int rn, int otherRN) const;
  void connectionReply(const Event& event, RequestIds& ids);
  void endLink(std::size_t id, const std::string& ending);
  void noticeNewcomer(const Event& event);
  void addNewcomersRequest(const Event& event, RequestIds& ids) const;
  void involve(int plugin, std::size_t id);

  std::deque<Request> requests_;
  std::optional<std::size_t> current_;  // of the message that the hub handles
  std::map<AnswerKey, std::deque<std::size_t>> unanswered_;
  std::map<int, std::vector<std::size_t>> unasked_;  // by requester, until the provider is asked
  std::map<int, std::size_t> links_;                 // by the RN of the requester's end
  std::map<std::size_t, std::pair<int, int>> ends_;  // of a link: that RN and the service's
  std::map<int, RequestIds> involved_;               // by plugin, until it goes
  std::map<int, std::vector<std::string>> registering_;
  std::map<std::string, std::string> services_;  // by RN, in decimal
  std::deque<Launch> launches_;                  // whose plugin hasn't been seen
  std::map<int, std::size_t> startCookies_;
  std::map<int, std::size_t> newcomers_;
  std::set<int> seen_;
};

}  // namespace trace
