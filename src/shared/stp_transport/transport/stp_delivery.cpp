#include "stp_transport/transport/stp_delivery.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "indgen/report.h"
#include "stp_transport/transport/stp_process_state.h"

namespace {

// A peer that sends what nobody listens for or waits for must not fill the memory: of such messages
// this many are kept at most, and behind the latest no more than this many bytes together.
constexpr std::size_t kStrayMessages = 4096;
constexpr std::int64_t kStrayBytes = 16 << 20;

[[noreturn]] void failDepth() {
  gen_exit_message(1, "negative message depth!");
}

}  // namespace

void STPDelivery::addListener(std::int32_t source, std::int32_t destination,
                              ResponseListener* listener, std::uint32_t type) {
  if (!listener) return;
  listeners_.emplace(ListenerKey{source, destination, static_cast<std::int32_t>(type)}, listener);
}

void STPDelivery::removeListener(ResponseListener* listener) {
  std::erase_if(listeners_, [listener](const auto& entry) { return entry.second == listener; });
}

void STPDelivery::dispatch(Message message) {
  const STPHeader& header = message->header;
  const bool hasWaiter = isAwaited(header.responseTo);
  const ListenerKey key{header.sourceRN, header.destinationRN,
                        static_cast<std::int32_t>(header.type)};
  const auto [first, last] = listeners_.equal_range(key);
  const auto count = std::distance(first, last);
  if (count == 1) {
    if (!first->second->handleMessage(*message, !hasWaiter)) {
      deferred_.push_back(std::move(message));
      return;
    }
  } else if (count > 1) {
    callListeners(key, *message);
  }
  if (count != 0 && !hasWaiter) return;
  Kept& kept = header.responseTo == 0 ? unclaimed_ : responses_;
  kept.add(std::move(message));
  if (!hasWaiter) trimStrays(kept);
}

// Drops the oldest but the latest while too much is kept. What somebody is blocked on stays.
void STPDelivery::trimStrays(Kept& kept) {
  for (auto place = kept.queue.begin();
       (kept.queue.size() > kStrayMessages || kept.bytes > kStrayBytes) &&
       place != std::prev(kept.queue.end());) {
    if (isAwaited((*place)->header.responseTo))
      ++place;
    else
      kept.take(place++);
  }
}

void STPDelivery::Kept::add(Message message) {
  bytes += message->capacity();
  queue.push_back(std::move(message));
}

STPDelivery::Message STPDelivery::Kept::take(Queue::iterator place) {
  Message message = std::move(*place);
  queue.erase(place);
  bytes -= message->capacity();
  return message;
}

// A listener may remove itself or others while it runs: each is looked for again before its call.
void STPDelivery::callListeners(const ListenerKey& key, STPReceivedMessage& message) {
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

bool STPDelivery::canDeliver(const STPReceivedMessage& message) const {
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
        isAwaited(response->header.responseTo))
      return false;
  }
  if (header.flags & STP_ANY_TIME) return true;
  if (!(header.flags & STP_IN_CHAIN_ONLY) && process.holdDepth == 0) return true;
  // The other end of a pair in this process is blocked on this very message: its own call, not one
  // from outside.
  if (otherEnd_ && otherEnd_->isAwaited(header.sequence)) return true;
  const STPCallContext& context = currentContext();
  return header.chain == context.chain() && depth > context.callDepth;
}

bool STPDelivery::hasDeliverable() const {
  return std::any_of(deferred_.begin(), deferred_.end(),
                     [this](const auto& message) { return canDeliver(*message); });
}

// From the head again after each delivery, which may have changed the list. A listener that refuses
// for ever gets each message once in a call.
void STPDelivery::retryDeferred() {
  std::size_t offers = deferred_.size();
  auto place = deferred_.begin();
  while (offers > 0 && place != deferred_.end()) {
    if (!canDeliver(**place)) {
      ++place;
      continue;
    }
    Message message = std::move(*place);
    deferred_.erase(place);
    --offers;
    dispatch(std::move(message));
    place = deferred_.begin();
  }
}

STPDelivery::Queue::iterator STPDelivery::firstIn(Queue& queue, std::int32_t source,
                                                  std::int32_t destination, std::uint32_t type) {
  return std::find_if(queue.begin(), queue.end(), [&](const auto& message) {
    return message->header.sourceRN == source && message->header.destinationRN == destination &&
           message->header.type == type;
  });
}

STPDelivery::Message STPDelivery::takeDeferred(std::int32_t source, std::int32_t destination,
                                               std::uint32_t type) {
  const auto place = firstIn(deferred_, source, destination, type);
  if (place == deferred_.end()) return nullptr;
  Message message = std::move(*place);
  deferred_.erase(place);
  return message;
}

bool STPDelivery::redispatchUnclaimed(std::int32_t source, std::int32_t destination,
                                      std::uint32_t type) {
  const auto place = firstIn(unclaimed_.queue, source, destination, type);
  if (place == unclaimed_.queue.end()) return false;
  dispatch(unclaimed_.take(place));
  return true;
}

void STPDelivery::enterCall(std::uint32_t chain, std::uint32_t depth, std::uint32_t flags) {
  if (stpProcess().messageDepth < 0) failDepth();
  ++stpProcess().messageDepth;
  calls_.push(chain, depth, flags);
}

void STPDelivery::leaveCall() {
  if (--stpProcess().messageDepth < 0) failDepth();
  calls_.pop();
}

const STPCallContext& STPDelivery::requestContext(std::uint32_t sequence) {
  if (calls_.empty()) calls_.setBaseSerial(static_cast<std::uint16_t>(sequence));
  return calls_.current();
}

STPDelivery::Message STPDelivery::takeResponse(std::uint32_t sequence) {
  Queue& queue = responses_.queue;
  const auto place = std::find_if(queue.begin(), queue.end(), [sequence](const auto& message) {
    return message->header.responseTo == sequence;
  });
  return place == queue.end() ? nullptr : responses_.take(place);
}

// A listener that is told may go, and take others with it.
void STPDelivery::connectionEnded() {
  responses_ = Kept();
  awaited_.clear();
  if (deferred_.empty()) return;
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
