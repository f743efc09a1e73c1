// What a session takes. Every message may be forged, old or garbled: one that breaks a rule ends
// the session, one that isn't the next changes nothing.
#include <algorithm>
#include <utility>

#include "services/hublink_bridge/session.h"

namespace bridge {

namespace {

constexpr std::int64_t kAckMilliseconds = 20;
// For how much of what comes there is a window, and how long that is measured.
constexpr std::int64_t kWindowMilliseconds = 2000;
constexpr std::int64_t kMeasureMilliseconds = 100;

}  // namespace

void Session::breakOff(const char* why) {
  end(machine_ + " sent " + why, true);
}

void Session::take(unsigned char* message, std::size_t size, std::int64_t now) {
  if (hasEnded_) return;
  const std::optional<MessageHead> head = readMessageHead(message, size);
  if (!head) {
    breakOff("a malformed head");
    return;
  }
  if (head->session != id_) return;
  if ((head->flags & kReset) != 0) {
    end("ended by " + machine_, false);
    return;
  }
  if (isInitiator_ && (head->flags & kFirst) != 0) {
    breakOff("an opening for a session that isn't its own");
    return;
  }
  if (!takeAck(*head, now)) return;
  heardAt_ = now;
  isPeerKnown_ = true;
  if (size > kMessageHeadSize)
    takeFrames(*head, message + kMessageHeadSize, size - kMessageHeadSize, now);
  else if (head->sequence > expected_)
    missed();
}

// False if that has ended the session.
bool Session::takeAck(const MessageHead& head, std::int64_t now) {
  if (head.window < kMinWindow) {
    breakOff("too small a window");
    return false;
  }
  if (head.ack < firstSequence_) return true;  // it is late
  if (head.ack - firstSequence_ > sent_) {
    breakOff("an acknowledgement of what it can't have");
    return false;
  }
  const auto arrived = static_cast<std::size_t>(head.ack - firstSequence_);
  if (arrived > 0) measureRoundTrip(messages_[isProbing_ ? 0 : arrived - 1], now);
  for (std::size_t i = 0; i < arrived; ++i) {
    Message& message = messages_.front();
    underWay_ -= message.bytes.size() - kMessageHeadSize;
    buffers_.put(std::move(message.bytes));
    messages_.pop_front();
  }
  firstSequence_ = head.ack;
  sent_ -= arrived;
  again_ -= std::min(again_, arrived);
  if (arrived > 0) {
    oldestAt_ = now;
    allAgainDue_ = kNever;  // what the other side lacked when it asked has come
    // The oldest was lost, or it was only slow: behind what is under way still, an acknowledgement
    // tells the other side what should have come, and it asks for what hasn't.
    if (std::exchange(isProbing_, false) && sent_ > 0) isAckWanted_ = true;
  }
  if (arrived > 0 || head.sequence >= windowSequence_) {
    peerWindow_ = std::min(head.window, kMaxWindow);
    windowSequence_ = head.sequence;
    if (!hasRoom()) isFull_ = true;  // a smaller window takes it away, too
  }
  if ((head.flags & kNak) != 0 && sent_ > 0) {
    setPatience(4 * roundTrip_);  // what has taken long was lost
    sendAllAgain(now);
  }
  return true;
}

// By the message whose arrival was answered. One that has gone again tells nothing of the line, but
// if it was only slow, the next ones are not to go again too early.
void Session::measureRoundTrip(const Message& message, std::int64_t now) {
  const std::int64_t time = now - message.sentAt;
  if (!message.isResent) {
    roundTrip_ = roundTrip_ < 0 ? time : (7 * roundTrip_ + time) / 8;
    setPatience(std::max(4 * roundTrip_, 2 * time));
  } else if (isProbing_) {
    setPatience(std::max(patience_, 2 * time));
  }
}

// A window of more than comes in some seconds only waits on its way, in the queue of the NATS
// server for this line: other links are late behind it, and at 10 seconds the server ends the
// connection. It opens step by step, since what has waited in front of us comes all at once.
void Session::fitWindow(std::size_t size, std::int64_t now) {
  measured_ += size;
  const std::int64_t time = now - measuredSince_;
  if (time < kMeasureMilliseconds) return;
  // After a rest there is nothing to go by.
  if (time <= kWindowMilliseconds) {
    const std::uint64_t wanted =
        measured_ * std::uint64_t{kWindowMilliseconds} / static_cast<std::uint64_t>(time);
    const std::uint32_t least = std::min(kStartWindow, mostWindow_);
    window_ = static_cast<std::uint32_t>(
        std::clamp<std::uint64_t>(wanted, window_ / 2, std::uint64_t{window_} * 2));
    window_ = std::clamp(window_, least, mostWindow_);
    widestWindow_ = std::max(widestWindow_, window_);
  }
  measured_ = 0;
  measuredSince_ = now;
}

// One that came too early isn't kept: the other side sends it again with what is missing. It is
// asked once; if that is lost, its own timer has to do.
void Session::missed() {
  if (missedAt_ == expected_) return;
  missedAt_ = expected_;
  isNakWanted_ = true;
}

// A message counts as a whole or not at all.
bool Session::isWellFormed(unsigned char* frames, std::size_t size) const {
  const FrameKind wrongWay = isInitiator_ ? FrameKind::open : FrameKind::opened;
  FrameReader reader(frames, size);
  Frame frame;
  while (reader.next(frame))
    if (frame.kind == wrongWay || (frame.kind != FrameKind::data && frame.size > kMaxBody))
      return false;
  return !reader.isBroken();
}

void Session::takeFrames(const MessageHead& head, unsigned char* frames, std::size_t size,
                         std::int64_t now) {
  if (head.sequence != expected_) {
    ++counters_.droppedMessages;
    if (head.sequence > expected_)
      missed();
    else
      isAckWanted_ = true;  // the last one seems to be lost
    return;
  }
  if (unackedBytes_ + size > widestWindow_) {
    breakOff("more than its window");
    return;
  }
  if (!isWellFormed(frames, size)) {
    breakOff("a malformed message");
    return;
  }
  ++expected_;
  movedAt_ = now;
  if (unackedMessages_ == 0) ackDue_ = now + kAckMilliseconds;
  unackedBytes_ += size;
  ++unackedMessages_;
  ++counters_.receivedMessages;
  counters_.receivedBytes += size;
  fitWindow(size, now);
  FrameReader reader(frames, size);
  Frame frame;
  while (!hasEnded_ && reader.next(frame)) host_.frameArrived(*this, frame);
}

}  // namespace bridge
