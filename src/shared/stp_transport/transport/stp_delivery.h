// Who gets a received message, and whether it may run now: the listeners of one end of a
// connection, the messages that nobody has taken yet, and the calls that this end is in.
//
// The process runs on one thread, and a caller that waits for a response doesn't stop the world:
// messages keep coming in while it is on the stack. Which of them may run nested in its call, and
// which wait for their turn, is told by the words of their headers and by the depth counters of the
// process (stp_process_state.h). Any call of a listener may come back to this object.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <tuple>

#include "stp_transport/message/stp_received_message.h"
#include "stp_transport/transport/response_listener.h"
#include "stp_transport/transport/stp_call_stack.h"

class STPDelivery {
 public:
  using Message = std::unique_ptr<STPReceivedMessage>;

  STPDelivery() = default;
  STPDelivery(const STPDelivery&) = delete;
  STPDelivery& operator=(const STPDelivery&) = delete;

  // --- Listeners ---
  /// `source` and `destination` as they stand in an incoming header. A null listener is ignored.
  void addListener(std::int32_t source, std::int32_t destination, ResponseListener* listener,
                   std::uint32_t type);
  void removeListener(ResponseListener* listener);

  // --- Messages ---
  /// Shows a message to its listeners. It is kept if there are none, if somebody waits for it, or
  /// if the only one refuses it: then it is put off.
  void dispatch(Message message);
  /// Whether a message may run now or must wait for its turn.
  bool canDeliver(const STPReceivedMessage& message) const;
  bool hasDeferred() const { return !deferred_.empty(); }
  /// Whether anything that was put off may run now.
  bool hasDeliverable() const;
  /// Dispatches again what was put off and may run now, each message once.
  void retryDeferred();
  /// The first message of this kind that was put off, which is now the caller's, or null.
  Message takeDeferred(std::int32_t source, std::int32_t destination, std::uint32_t type);
  /// Dispatches again the first message that found no listener; false if there is none.
  bool redispatchUnclaimed(std::int32_t source, std::int32_t destination, std::uint32_t type);

  // --- Calls ---
  void enterCall(std::uint32_t chain, std::uint32_t depth, std::uint32_t flags);
  void leaveCall();
  const STPCallContext& currentContext() const { return calls_.current(); }
  /// The same for a request, whose number would be `sequence`: outside of all calls it begins a
  /// chain of its own.
  const STPCallContext& requestContext(std::uint32_t sequence);
  void setChainSite(std::uint16_t site) { calls_.setSite(site); }

  // --- Responses ---
  /// Whether the response to `sequence` may still be collected.
  void expect(std::uint32_t sequence) { awaited_.insert(sequence); }
  void giveUp(std::uint32_t sequence) { awaited_.erase(sequence); }
  /// The response to `sequence`, or null.
  Message takeResponse(std::uint32_t sequence);

  // --- The connection ---
  /// The delivery at the other end of a pair in this process, or null: a message that it is blocked
  /// on comes from its own call.
  void setOtherEnd(const STPDelivery* otherEnd) { otherEnd_ = otherEnd; }
  /// No response comes any more. The listeners are told if anything was put off, which stays.
  void connectionEnded();

 private:
  using ListenerKey = std::tuple<std::int32_t, std::int32_t, std::int32_t>;
  using Queue = std::list<Message>;
  /// Messages that nobody has taken yet.
  struct Kept {
    Queue queue;
    std::int64_t bytes = 0;  ///< that they hold

    void add(Message message);
    Message take(Queue::iterator place);
  };

  bool isAwaited(std::uint32_t sequence) const { return awaited_.contains(sequence); }
  void callListeners(const ListenerKey& key, STPReceivedMessage& message);
  void trimStrays(Kept& kept);
  static Queue::iterator firstIn(Queue& queue, std::int32_t source, std::int32_t destination,
                                 std::uint32_t type);

  std::multimap<ListenerKey, ResponseListener*> listeners_;
  Kept responses_;                   // that no listener has consumed
  Kept unclaimed_;                   // messages that found no listener
  Queue deferred_;                   // messages that their listener has refused
  std::set<std::uint32_t> awaited_;  // calls that are sent and whose response may be collected
  STPCallStack calls_;
  const STPDelivery* otherEnd_ = nullptr;
};
