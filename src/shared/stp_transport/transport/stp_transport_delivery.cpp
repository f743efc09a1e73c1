// Who gets a received message, and whether it may run now: listeners, queues, call contexts, and
// the wait for a response.
#include <algorithm>

#include "indgen/report.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

// A peer that sends what nobody listens for or waits for must not fill the memory: of such messages
// this many are kept at most, and behind the latest no more than this many bytes together.
constexpr std::size_t kStrayMessages = 4096;
constexpr std::int64_t kStrayBytes = 16 << 20;

[[noreturn]] void failDepth() {
  gen_exit_message(1, "negative message depth!");
}

}  // namespace

void STPTransport::addListener(std::int32_t source, std::int32_t destination,
                               ResponseListener* listener, std::uint32_t type) {
  if (!listener) return;
  listeners_.emplace(ListenerKey{source, destination, static_cast<std::int32_t>(type)}, listener);
}

void STPTransport::removeListener(ResponseListener* listener) {
  std::erase_if(listeners_, [listener](const auto& entry) { return entry.second == listener; });
}

std::size_t STPTransport::countListeners(const ListenerKey& key) const {
  return listeners_.count(key);
}

void STPTransport::dispatchMessage(std::unique_ptr<STPReceivedMessage> message) {
  const STPHeader& header = message->header;
  switch (header.type) {
    case STP_DISCARD:
      return;
    case STP_SYNC:
      recordSync(*message);
      return;
    case STP_CHANNEL:
      handleChannelPacket(*message);
      return;
    default:
      break;
  }
  const std::uint32_t responseTo = header.responseTo;
  const bool awaitedByWaiter = awaited_.contains(responseTo);
  const ListenerKey key{header.sourceRN, header.destinationRN,
                        static_cast<std::int32_t>(header.type)};
  const std::size_t count = countListeners(key);
  if (count == 1) {
    if (!listeners_.find(key)->second->handleMessage(*message, !awaitedByWaiter)) {
      deferredMessages_.push_back(std::move(message));
      attend();
      return;
    }
  } else if (count > 1) {
    callListeners(key, *message);
  }
  if (count != 0 && !awaitedByWaiter) return;
  KeptMessages& kept = responseTo == 0 ? unclaimed_ : responses_;
  kept.bytes += message->capacity();
  kept.queue.push_back(std::move(message));
  if (!awaitedByWaiter) trimStrays(kept);
}

// Drops the oldest but the latest while too much is kept. What somebody is blocked on stays.
void STPTransport::trimStrays(KeptMessages& kept) {
  for (auto place = kept.queue.begin();
       (kept.queue.size() > kStrayMessages || kept.bytes > kStrayBytes) &&
       place != std::prev(kept.queue.end());) {
    if (awaited_.contains((*place)->header.responseTo))
      ++place;
    else
      kept.take(place++);
  }
}

std::unique_ptr<STPReceivedMessage> STPTransport::KeptMessages::take(MessageQueue::iterator place) {
  auto message = std::move(*place);
  queue.erase(place);
  bytes -= message->capacity();
  return message;
}

// A listener may remove itself or others while it runs: each is looked for again before its call.
void STPTransport::callListeners(const ListenerKey& key, STPReceivedMessage& message) {
  std::vector<ResponseListener*> called;
  const auto range = listeners_.equal_range(key);
  for (auto entry = range.first; entry != range.second; ++entry) called.push_back(entry->second);
  for (ResponseListener* listener : called) {
    const auto [first, last] = listeners_.equal_range(key);
    const bool registered = std::any_of(
        first, last, [listener](const auto& entry) { return entry.second == listener; });
    if (registered) listener->handleMessage(message, false);
  }
}

// A listener that is told may go, and take others with it.
void STPTransport::tellConnectionEnded() {
  std::set<ResponseListener*> told;
  for (auto entry = listeners_.begin(); entry != listeners_.end();) {
    if (!told.insert(entry->second).second) {
      ++entry;
      continue;
    }
    entry->second->connectionEnded();
    entry = listeners_.begin();
  }
}

bool STPTransport::canDeliver(const STPReceivedMessage& message) const {
  const STPProcessState& process = stpProcess();
  const STPHeader& header = message.header;
  if (process.sendDepth > 0) return false;
  if (process.messageDepth == 0) return true;
  if (header.responseTo != 0) return true;
  const auto depth = static_cast<std::uint16_t>(header.depth);
  for (const auto& response : responses_.queue) {
    // One that nobody collects any more, since its call has given up, comes before nothing.
    if (response->header.sourceRN == header.sourceRN &&
        static_cast<std::uint16_t>(response->header.depth) == depth &&
        awaited_.contains(response->header.responseTo))
      return false;
  }
  if (header.flags & STP_ANY_TIME) return true;
  if (!(header.flags & STP_IN_CHAIN_ONLY) && process.holdDepth == 0) return true;
  // The other end of a pair in this process is blocked on this very message: its own call, not one
  // from outside.
  if (partner_ && partner_->awaited_.contains(header.sequence)) return true;
  const STPCallContext& context = currentContext();
  return header.chain == context.chain() && depth > context.callDepth;
}

bool STPTransport::hasDeliverable() const {
  if (isClosed() || stpProcess().sendDepth >= 1) return false;
  if (hasInput() && !isStalled() && !(heldBack_ && isOverfull())) return true;
  if (isOverfull()) return false;
  return std::any_of(deferredMessages_.begin(), deferredMessages_.end(),
                     [this](const auto& message) { return canDeliver(*message); });
}

bool STPTransport::redispatchUnclaimed(std::int32_t source, std::int32_t destination,
                                       std::uint32_t type) {
  MessageQueue& queue = unclaimed_.queue;
  const auto place = std::find_if(queue.begin(), queue.end(), [&](const auto& message) {
    return message->header.sourceRN == source && message->header.destinationRN == destination &&
           message->header.type == type;
  });
  if (place == queue.end()) return false;
  dispatchMessage(unclaimed_.take(place));
  return true;
}

const STPCallContext& STPTransport::requestContext() {
  if (calls_.empty()) calls_.setBaseSerial(static_cast<std::uint16_t>(lastSequence_ + 1));
  return calls_.current();
}

void STPTransport::enterCall(std::uint32_t chain, std::uint32_t depth, std::uint32_t flags) {
  if (stpProcess().messageDepth < 0) failDepth();
  ++stpProcess().messageDepth;
  calls_.push(chain, depth, flags);
}

void STPTransport::leaveCall() {
  if (--stpProcess().messageDepth < 0) failDepth();
  calls_.pop();
}

std::unique_ptr<STPReceivedMessage> STPTransport::takeResponse(std::uint32_t sequence) {
  MessageQueue& queue = responses_.queue;
  const auto place = std::find_if(queue.begin(), queue.end(), [sequence](const auto& message) {
    return message->header.responseTo == sequence;
  });
  return place == queue.end() ? nullptr : responses_.take(place);
}

std::unique_ptr<STPReceivedMessage> STPTransport::awaitResponse(std::uint32_t sequence,
                                                                RetryHandler* retry,
                                                                STPStatus* status) {
  if (sequence == 0) return nullptr;
  const Hold hold(this);
  status_.clear();
  auto response = takeResponse(sequence);
  if (!response) {
    const bool holds = (currentContext().callFlags & STP_HOLD_OTHERS) != 0;
    if (holds) ++stpProcess().holdDepth;
    awaited_.insert(sequence);
    waitThenTest(retry, [&] {
      response = takeResponse(sequence);
      return response != nullptr;
    });
    if (holds) --stpProcess().holdDepth;
  }
  awaited_.erase(sequence);
  if (!response && status_.good()) {
    if (isClosed())
      status_.set(STP_PEER_CLOSED,
                  "[awaitResponse]: connection closed while waiting to receive response");
    else
      status_.set(STP_TIMEOUT,
                  "[awaitResponse]: reached timeout while waiting to receive response");
  }
  leaveCall();
  copyStatus(status);
  return response;
}
