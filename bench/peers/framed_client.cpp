#include "bench/peers/framed_client.h"

#include <cstring>

#include "bench/packet_socket.h"

namespace {

constexpr std::size_t kBufferBytes = 4 * kBatchBytes;
// A rest that costs less to move to the front than a larger working set does.
constexpr std::size_t kSmallRest = 4096;

}  // namespace

FramedClient::FramedClient(std::uint16_t port)
    : connection_(LoopbackSocket::connectedTo(port)),
      socket_(connection_.get()),
      buffer_(kBufferBytes) {
  if (connection_) platform::makeBlocking(connection_.get(), kTransferLimit);
}

bool FramedClient::send(Message payload) {
  frame_.clear();
  appendFrame(payload, frame_);
  return sendFrame(frame_);
}

void FramedClient::prepare(const std::vector<Bytes>& payloads) {
  batch_.clear();
  for (const Bytes& payload : payloads) appendFrame(payload, batch_);
  batchFrame_ = batch_.size() / payloads.size();
}

bool FramedClient::sendPrepared(std::size_t count) {
  return socket_.send(batch_.data(), static_cast<std::int64_t>(count * batchFrame_));
}

bool FramedClient::sendText(std::string_view text) {
  return sendFrame(Bytes(text.begin(), text.end()));
}

bool FramedClient::nextFrame(Frame& frame) {
  frame = {};
  if (begin_ == end_) return true;
  if (!readFrame(Message(buffer_).subspan(begin_, end_ - begin_), frame)) return false;
  begin_ += frame.size;
  return true;
}

bool FramedClient::fill(bool patient) {
  const std::size_t rest = end_ - begin_;
  if (rest <= kSmallRest || buffer_.size() - end_ < static_cast<std::size_t>(kBatchBytes)) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, rest);
    begin_ = 0;
    end_ = rest;
  }
  if (end_ == buffer_.size()) return fail("too large a frame has arrived");
  const std::int64_t got = socket_.receiveSome(
      buffer_.data() + end_, static_cast<std::int64_t>(buffer_.size() - end_), patient);
  end_ += static_cast<std::size_t>(got);
  return got > 0;
}

bool FramedClient::awaitFrame(int kind) {
  Frame frame;
  do {
    if (!nextFrame(frame) || (frame.size == 0 && !fill(false))) return false;
  } while (frame.size == 0 || frame.kind != kind);
  return true;
}

bool FramedClient::receive(std::vector<Message>& messages, bool patient) {
  messages.clear();
  for (Frame frame;;) {
    if (!nextFrame(frame)) return false;
    if (frame.size != 0) {
      if (frame.kind == kMessage) messages.push_back(frame.payload);
    } else if (!messages.empty()) {
      return true;
    } else if (!fill(patient)) {
      return false;
    }
  }
}
