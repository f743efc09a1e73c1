// Functions that are to be called at a time, by the plugin that serves them. Each is called once
// and then forgotten; those that are still there when the list goes are destroyed uncalled.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

/// Names a call that is due some time. The first one is none.
struct TimedCallID {
  std::uint64_t at = 0;  ///< ms of the steady clock
  std::uint64_t number = 0;
  bool operator<(const TimedCallID& other) const {
    return at != other.at ? at < other.at : number < other.number;
  }
};

class TimedCalls {
 public:
  using Call = std::function<void()>;

  TimedCalls() = default;
  TimedCalls(const TimedCalls&) = delete;
  TimedCalls& operator=(const TimedCalls&) = delete;
  ~TimedCalls();

  /// Has `call` made once `milliseconds` have passed; 0 or less: in the next step.
  TimedCallID add(int milliseconds, Call call);
  /// False if it was made already, or has been taken back before.
  bool cancel(TimedCallID id) { return calls_.erase(id) != 0; }
  /// Makes those that are due, in the order of their times, of equal ones in that in which they
  /// were added. What they add themselves waits for the next step, whatever its time.
  void callDue();
  /// Milliseconds until the first is due: 0 if it is, -1 without any.
  int next() const;

 private:
  std::uint64_t lastNumber_ = 0;
  std::map<TimedCallID, Call> calls_;
};
