// The questions of one kind that a plugin has asked the hub and nobody has answered yet.
//
// Who has asked is told once: by the answer, at the end of his time, or at the end of the
// connection. An answer names its question by a key; of those with the same key the first one that
// was asked is meant. Answers of a kind that has no key come in the order of the questions.
#pragma once

#include <functional>
#include <map>
#include <utility>

#include "hublink_plugin/timed_calls.h"

/// The key of a kind that has none.
struct InTurn {
  bool operator<(const InTurn&) const { return false; }
};

enum class NoAnswer {
  timedOut,
  disconnected,  ///< or never connected
};

template <class Key, class Handler>
class OpenQuestions {
 public:
  /// How a handler, which isn't null, is told that there is no answer.
  using Failure = std::function<void(const Handler& handler, NoAnswer reason)>;

  OpenQuestions(TimedCalls& timedCalls, Failure failure)
      : timedCalls_(timedCalls), failure_(std::move(failure)) {}
  OpenQuestions(const OpenQuestions&) = delete;
  OpenQuestions& operator=(const OpenQuestions&) = delete;

  /// Takes down a question, which fails after `milliseconds` (negative: never). With `late` it then
  /// still waits for its answer, in its turn, which is handed to that: so that what nobody waits
  /// for any more is undone, or isn't taken for the answer of the next. Both handlers may be null.
  void ask(Key key, Handler handler, int milliseconds, Handler late = {}) {
    const auto place =
        open_.emplace(std::move(key), Question{std::move(handler), std::move(late), {}});
    if (milliseconds < 0) return;
    place->second.limit = timedCalls_.add(milliseconds, [this, place] {
      const Handler waiting = place->second.handler;
      forgo(place);
      fail(waiting, NoAnswer::timedOut);
    });
  }
  /// False if nobody waits for this answer, also if it was handed to a `late` one.
  template <class... Answer>
  bool answer(const Key& key, const Answer&... answer) {
    const auto place = open_.lower_bound(key);
    if (place == open_.end() || key < place->first) return false;
    timedCalls_.cancel(place->second.limit);
    const Question question = std::move(open_.extract(place).mapped());
    if (question.handler)
      question.handler(answer...);
    else if (question.late)
      question.late(answer...);
    return static_cast<bool>(question.handler);
  }
  /// Forgoes an answer: who has asked isn't told anything any more. False if there is no such
  /// question.
  bool giveUp(const Key& key) {
    const auto place = open_.lower_bound(key);
    if (place == open_.end() || key < place->first) return false;
    timedCalls_.cancel(place->second.limit);
    forgo(place);
    return true;
  }
  /// Tells a handler, which may be null, that there is no answer.
  void fail(const Handler& handler, NoAnswer reason) const {
    if (handler) failure_(handler, reason);
  }
  /// Takes all of them out, at the end of the connection: who has asked is told by the call of what
  /// it gives. Those that are asked meanwhile are new ones.
  [[nodiscard]] std::function<void()> takeAll() {
    for (const auto& [key, question] : open_) timedCalls_.cancel(question.limit);
    return [this, taken = std::exchange(open_, {})] {
      for (const auto& [key, question] : taken) fail(question.handler, NoAnswer::disconnected);
    };
  }

 private:
  struct Question {
    Handler handler;  // null if nobody waits
    Handler late;
    TimedCallID limit;
  };
  using Table = std::multimap<Key, Question>;

  void forgo(typename Table::iterator place) {
    place->second.handler = nullptr;
    if (!place->second.late) open_.erase(place);
  }

  TimedCalls& timedCalls_;
  Failure failure_;
  Table open_;
};
