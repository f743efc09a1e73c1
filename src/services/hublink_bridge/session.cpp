// Life and times of a session, and what it sends.
#include "services/hublink_bridge/session.h"

#include <algorithm>
#include <utility>

namespace bridge {

namespace {

// What has come is acknowledged after this much, however much goes the other way, or by a timer
// that is set with the first of them.
constexpr std::size_t kAckBytes = 64 << 10;
constexpr std::size_t kAckMessages = 64;
// Bounds of the time without an acknowledgement after which the oldest message goes again.
constexpr std::int64_t kLeastPatience = 1000;
constexpr std::int64_t kMostPatience = 8000;
// The other side may ask for all again as often as this, or once in a round trip.
constexpr std::int64_t kAllAgainMilliseconds = 50;
constexpr std::int64_t kRetryMilliseconds = 100;
// Something is said as often as this, so that a side which still has the session when the other
// has ended it learns of that.
constexpr std::int64_t kSpeakMilliseconds = 3000;
constexpr std::int64_t kUnusedMilliseconds = 30000;

// A message may be no larger than the smallest window that the other side may go by at first.
constexpr std::size_t kMostMessage = Session::kStartWindow;
// A piece of DATA that is smaller isn't put at the end of a message.
constexpr std::size_t kLeastPiece = 512;
// Bytes that may wait beyond the window, and those at which the other side keeps us waiting while
// it makes us answer.
constexpr std::size_t kBacklog = 256 << 10;
constexpr std::size_t kMostWaiting = 2 * std::size_t{Session::kMaxWindow};
constexpr std::ptrdiff_t kMostKept = 1 << 30;
// After so many milliseconds without anything under way it lets go of its buffers.
constexpr std::int64_t kRestMilliseconds = 1000;

std::size_t frameBytes(const Bytes& message) {
  return message.size() - kMessageHeadSize;
}

}  // namespace

Session::Session(std::string machine, std::uint64_t id, bool isInitiator, SessionHost& host,
                 const SessionOptions& options, std::int64_t now)
    : machine_(std::move(machine)),
      id_(id),
      isInitiator_(isInitiator),
      host_(host),
      grace_(options.grace),
      maxMessage_(std::clamp(options.maxMessage, kLeastMaxMessage, kMostMessage)),
      mostWindow_(std::clamp(options.window, kMinWindow, kMaxWindow)),
      window_(std::min(kStartWindow, mostWindow_)),
      widestWindow_(kStartWindow),
      measuredSince_(now),
      heardAt_(now),
      spokeAt_(now),
      movedAt_(now),
      ackDue_(kNever),
      retryDue_(kNever),
      allAgainDue_(kNever),
      noneAgainBefore_(now),
      patience_(kLeastPatience) {}

void Session::setWindow(std::uint32_t bytes) {
  mostWindow_ = std::clamp(bytes, kMinWindow, kMaxWindow);
  window_ = std::min(window_, mostWindow_);
}

std::array<unsigned char, kMessageHeadSize> Session::resetMessage(std::uint64_t id) {
  std::array<unsigned char, kMessageHeadSize> message;
  MessageHead head;
  head.session = id;
  head.flags = kReset;
  writeMessageHead(message.data(), head);
  return message;
}

void Session::end(const std::string& why, bool tellsPeer) {
  if (hasEnded_) return;
  hasEnded_ = true;
  if (tellsPeer && isUp_) {
    const auto reset = resetMessage(id_);
    host_.transmit(*this, reset.data(), reset.size());
  }
  messages_.clear();
  buffers_.clear();
  sent_ = again_ = underWay_ = waiting_ = openData_ = 0;
  host_.sessionEnded(*this, why);
}

// --- Frames into messages ---

bool Session::hasRoom() const {
  const std::size_t open = peerWindow_ > underWay_ ? peerWindow_ - underWay_ : 0;
  return !hasEnded_ && waiting_ < open + kBacklog;
}

// True if there was none.
bool Session::tellRoom() {
  if (!hasRoom()) {
    isFull_ = true;
    return false;
  }
  if (!std::exchange(isFull_, false)) return false;
  host_.roomAgain(*this);
  return true;
}

bool Session::send(FrameKind kind, std::uint32_t link, const unsigned char* body,
                   std::size_t size) {
  if (hasEnded_) return false;
  if (kind == FrameKind::data) {
    sendData(link, body, size);
  } else {
    if (size > kMaxBody) return false;
    append(openMessage(kFrameHeadSize + size), kind, link, body, size);
    openData_ = 0;
  }
  if (!hasRoom()) isFull_ = true;
  return true;
}

void Session::sendData(std::uint32_t link, const unsigned char* bytes, std::size_t size) {
  while (size > 0) {
    // What goes on where the last frame ends becomes a part of it.
    if (openData_ != 0 && openLink_ == link && messages_.back().bytes.size() < maxMessage_) {
      Bytes& message = messages_.back().bytes;
      const std::size_t piece = std::min(size, maxMessage_ - message.size());
      appendBytes(message, bytes, piece);
      writeFrameHead(message.data() + openData_, FrameKind::data, link,
                     message.size() - openData_ - kFrameHeadSize);
      bytes += piece;
      size -= piece;
      continue;
    }
    Message& message = openMessage(kFrameHeadSize + std::min(size, kLeastPiece));
    const std::size_t piece = std::min(size, maxMessage_ - message.bytes.size() - kFrameHeadSize);
    const std::size_t place = message.bytes.size();
    append(message, FrameKind::data, link, bytes, piece);
    openData_ = place;
    openLink_ = link;
    bytes += piece;
    size -= piece;
  }
}

// The message at the end, if it hasn't left and can take `need` bytes more, else a new one.
Session::Message& Session::openMessage(std::size_t need) {
  if (sent_ < messages_.size() && !messages_.back().isTried &&
      messages_.back().bytes.size() + need <= maxMessage_)
    return messages_.back();
  openData_ = 0;
  Message& message = messages_.emplace_back();
  buffers_.require(message.bytes, kMessageHeadSize + need);
  message.bytes.resize(kMessageHeadSize);
  return message;
}

void Session::append(Message& message, FrameKind kind, std::uint32_t link,
                     const unsigned char* body, std::size_t size) {
  unsigned char head[kFrameHeadSize];
  writeFrameHead(head, kind, link, size);
  buffers_.require(message.bytes, message.bytes.size() + kFrameHeadSize + size);
  appendBytes(message.bytes, head, kFrameHeadSize);
  appendBytes(message.bytes, body, size);
}

void Session::appendBytes(Bytes& message, const unsigned char* bytes, std::size_t size) {
  if (size == 0) return;
  buffers_.require(message, message.size() + size);
  message.insert(message.end(), bytes, bytes + size);
  waiting_ += size;
}

// --- Messages out ---

// One that is larger than the window goes alone.
bool Session::mayLeave(const Message& message) const {
  return sent_ == 0 || underWay_ + frameBytes(message.bytes) <= peerWindow_;
}

bool Session::transmit(unsigned char* message, std::size_t size, std::uint64_t sequence,
                       std::int64_t now) {
  if (!isUp_) return false;
  MessageHead head{id_, sequence, expected_, window_, 0};
  if (isInitiator_ && !isPeerKnown_) head.flags |= kFirst;
  if (isNakWanted_) head.flags |= kNak;
  writeMessageHead(message, head);
  spokeAt_ = now;  // if it is refused, too: until the retry there is no point in speaking
  if (!host_.transmit(*this, message, size)) {
    retryDue_ = now + kRetryMilliseconds;
    return false;
  }
  unackedBytes_ = unackedMessages_ = 0;
  isAckWanted_ = isNakWanted_ = false;
  ackDue_ = kNever;
  return true;
}

void Session::transmitAck(std::int64_t now) {
  unsigned char message[kMessageHeadSize];
  // What is still to go again isn't missing yet.
  transmit(message, sizeof message, firstSequence_ + again_, now);
}

bool Session::transmitAgain(std::size_t index, std::int64_t now) {
  Message& message = messages_[index];
  if (index == 0) oldestAt_ = now;
  if (!transmit(message.bytes.data(), message.bytes.size(), firstSequence_ + index, now))
    return false;
  message.isResent = true;
  ++counters_.resentMessages;
  return true;
}

void Session::writeOut(std::int64_t now) {
  for (; again_ < sent_; ++again_)
    if (!transmitAgain(again_, now)) return;
  while (sent_ < messages_.size() && mayLeave(messages_[sent_])) {
    Message& message = messages_[sent_];
    // A carrier that has refused it may have sent it all the same.
    message.isTried = true;
    if (sent_ + 1 == messages_.size()) openData_ = 0;
    if (!transmit(message.bytes.data(), message.bytes.size(), firstSequence_ + sent_, now)) return;
    const std::size_t size = frameBytes(message.bytes);
    message.sentAt = movedAt_ = now;
    if (sent_ == 0) oldestAt_ = now;
    again_ = ++sent_;
    underWay_ += size;
    waiting_ -= size;
    ++counters_.sentMessages;
    counters_.sentBytes += size;
  }
  if (sent_ == messages_.size()) openData_ = 0;
}

void Session::sendAllAgain(std::int64_t now) {
  if (now < noneAgainBefore_) {
    allAgainDue_ = noneAgainBefore_;
    return;
  }
  allAgainDue_ = kNever;
  noneAgainBefore_ = now + std::max(kAllAgainMilliseconds, roundTrip_);
  again_ = 0;
}

void Session::flush(std::int64_t now) {
  if (hasEnded_) return;
  if (waiting_ > kMostWaiting || kept_ > kMostKept) {
    end("too much waits for " + machine_, true);
    return;
  }
  if (now >= allAgainDue_) sendAllAgain(now);
  writeOut(now);
  if (tellRoom()) writeOut(now);
  if (isAckWanted_ || isNakWanted_ || unackedBytes_ >= kAckBytes ||
      unackedMessages_ >= kAckMessages)
    transmitAck(now);
}

// --- Time ---

void Session::carrierChanged(bool isUp, std::int64_t now) {
  if (hasEnded_ || isUp == isUp_) return;
  if (!isUp) {
    isUp_ = false;
    downSince_ = now;
    return;
  }
  if (isAwayTooLong(now)) return;
  isUp_ = true;
  // Nobody knows what was lost, in either direction.
  noneAgainBefore_ = now;
  sendAllAgain(now);
  isNakWanted_ = true;
  flush(now);
}

bool Session::isAwayTooLong(std::int64_t now) {
  if (isUp_ || now - downSince_ <= grace_) return false;
  end("without a connection for longer than the grace", false);
  return true;
}

void Session::setPatience(std::int64_t milliseconds) {
  patience_ = std::clamp(milliseconds, kLeastPatience, kMostPatience);
}

bool Session::isAtRest(std::int64_t now) const {
  return messages_.empty() && now - movedAt_ >= kUnusedMilliseconds;
}

std::int64_t Session::step(std::int64_t now) {
  if (hasEnded_ || isAwayTooLong(now)) return -1;
  const std::int64_t silentFrom = heardAt_ + grace_ + kSilence;
  if (now >= silentFrom) {
    end("nothing was heard of " + machine_, true);
    return -1;
  }
  if (messages_.empty() && now - oldestAt_ >= kRestMilliseconds) buffers_.clear();
  std::int64_t next = silentFrom;
  if (!isUp_) return std::min(next, downSince_ + grace_ + 1) - now;
  if (now >= ackDue_ || now >= spokeAt_ + kSpeakMilliseconds) {
    isAckWanted_ = true;
    ackDue_ = kNever;
  }
  if (isAckWanted_ || now >= retryDue_ || now >= allAgainDue_) {
    retryDue_ = kNever;
    flush(now);
    if (hasEnded_) return -1;
  }
  if (sent_ > 0 && now >= oldestAt_ + patience_) {
    if (transmitAgain(0, now)) {
      isProbing_ = true;
      setPatience(2 * patience_);
    }
  }
  next = std::min({next, ackDue_, retryDue_, allAgainDue_, spokeAt_ + kSpeakMilliseconds});
  if (sent_ > 0) next = std::min(next, oldestAt_ + patience_);
  return std::max<std::int64_t>(next - now, 1);
}

}  // namespace bridge
