// Functions that any thread hands over to the thread of a plugin, which calls them in the order in
// which they came. Those that are still there when the list goes are destroyed uncalled.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>

class PostedCalls {
 public:
  using Call = std::function<void()>;

  PostedCalls() = default;
  PostedCalls(const PostedCalls&) = delete;
  PostedCalls& operator=(const PostedCalls&) = delete;
  ~PostedCalls() { close(); }

  /// Takes a call from any thread and wakes the plugin's, whatever it waits for.
  void add(Call call);

  // The others are for the plugin's thread.
  bool isEmpty() const { return !isFilled_; }
  /// Makes the calls that are there. What comes meanwhile waits for the next step.
  void callAll();
  /// Destroys those that are there and whatever comes from now on.
  void close();

 private:
  /// The first one, if there is any.
  bool take(Call& call);

  std::mutex mutex_;
  std::deque<Call> calls_;
  std::atomic<bool> isFilled_ = false;  // changes under the lock
  bool isClosed_ = false;
};
