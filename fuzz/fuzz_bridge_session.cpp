// Any messages of another machine's reach a session and a link on it. Each message has its length
// in front, in two bytes.
#include <algorithm>
#include <cstdlib>

#include "services/hublink_bridge/link_flow.h"

namespace {

using namespace bridge;

class Receiver : public SessionHost, public PacketOutlet {
 public:
  explicit Receiver(bool isInitiator)
      : session_("other", kID, isInitiator, *this, {}, 0), out_(session_, 1), in_(session_, 1) {
    out_.send(packet_, sizeof packet_);
    if (!in_.start(*this, 11, 12)) std::abort();
  }
  void take(const unsigned char* bytes, std::size_t size) {
    Bytes message(bytes, bytes + size);
    for (std::size_t i = 0; i < 8 && i < size; ++i)
      message[i] = static_cast<unsigned char>(kID >> (8 * i));
    session_.take(message.data(), size, now_);
    if (session_.hasRoom()) out_.sendMore();
    in_.written(place_ - place_ % 64);
    session_.flush(now_);
    session_.step(now_ += size % 100);
  }

 private:
  static constexpr std::uint64_t kID = 0x0807060504030201;

  bool transmit(Session&, const unsigned char* message, std::size_t size) override {
    if (!readMessageHead(message, size)) std::abort();
    return true;
  }
  std::uint64_t passOn(const unsigned char* packets, std::size_t size) override {
    for (std::size_t at = 0; at < size;) {  // whole ones, under our numbers
      const STPPacketTest test = stpTestPacket(packets + at, static_cast<std::int64_t>(size - at));
      if (test.state != STPPacketState::complete || stpReadWord(packets + at + 12) != 12)
        std::abort();
      at +=
          static_cast<std::size_t>(stpStoredSize(std::int64_t{test.headerSize} + test.payloadSize));
    }
    return place_ += size;
  }
  template <class Body>
  bool reads(const Frame& frame) {
    Body body;
    return readBody(frame, body);
  }
  bool isGood(const Frame& frame) {
    switch (frame.kind) {
      case FrameKind::open:
        return reads<OpenBody>(frame);
      case FrameKind::opened:
        return reads<OpenedBody>(frame);
      case FrameKind::value:
        return reads<ValueBody>(frame);
      case FrameKind::valued:
        return reads<ValuedBody>(frame);
      case FrameKind::data:
        return in_.take(frame.body, frame.size);
      case FrameKind::credit:
        return out_.takeCredit(frame);
      case FrameKind::close:
        in_.close();
        out_.close();
    }
    return true;
  }
  void frameArrived(Session& session, const Frame& frame) override {
    if (ended_) std::abort();
    if (!isGood(frame)) session.end("malformed", true);
  }
  void sessionEnded(Session&, const std::string&) override {
    if (ended_) std::abort();
    ended_ = true;
  }

  const unsigned char packet_[44] = {44};
  std::uint64_t place_ = 0;
  std::int64_t now_ = 0;
  bool ended_ = false;
  Session session_;
  OutgoingFlow out_;
  IncomingFlow in_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  if (size == 0) return 0;
  Receiver receiver(data[0] % 2 == 1);
  for (std::size_t at = 1; size - at >= 2;) {
    const std::size_t length = std::min<std::size_t>(data[at] | data[at + 1] << 8, size - at - 2);
    receiver.take(data + at + 2, length);
    at += 2 + length;
  }
  return 0;
}
