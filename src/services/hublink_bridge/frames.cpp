#include "services/hublink_bridge/frames.h"

#include <string_view>

#include "stp_transport/wire/stp_wire.h"

namespace bridge {

namespace {

constexpr std::uint32_t kNullText = 0xFFFFFFFF;
constexpr std::uint8_t kKnownFlags = kFirst | kNak | kReset;

std::uint64_t readLong(const unsigned char* bytes) {
  return stpReadWord(bytes) | std::uint64_t{stpReadWord(bytes + 4)} << 32;
}

void writeLong(unsigned char* bytes, std::uint64_t value) {
  stpWriteWord(bytes, static_cast<std::uint32_t>(value));
  stpWriteWord(bytes + 4, static_cast<std::uint32_t>(value >> 32));
}

class BodyWriter {
 public:
  BodyWriter& byte(std::uint8_t value) {
    bytes_.push_back(value);
    return *this;
  }
  BodyWriter& word(std::uint32_t value) {
    unsigned char word[4];
    stpWriteWord(word, value);
    bytes_.insert(bytes_.end(), word, word + 4);
    return *this;
  }
  BodyWriter& id(std::int32_t value) { return word(static_cast<std::uint32_t>(value)); }
  BodyWriter& text(const OptionalText& value) {
    if (!value) return word(kNullText);
    word(static_cast<std::uint32_t>(value->size()));
    bytes_.insert(bytes_.end(), value->begin(), value->end());
    return *this;
  }
  Bytes take() { return std::move(bytes_); }

 private:
  Bytes bytes_;
};

// Reads what is there; what isn't, is 0 or null and makes the body a bad one.
class BodyReader {
 public:
  explicit BodyReader(const Frame& frame) : at_(frame.body), left_(frame.size) {}

  std::uint8_t byte() {
    const unsigned char* place = pass(1);
    return place ? *place : std::uint8_t{0};
  }
  std::uint32_t word() {
    const unsigned char* place = pass(4);
    return place ? stpReadWord(place) : 0;
  }
  std::int32_t id() { return static_cast<std::int32_t>(word()); }
  OptionalText text() {
    const std::uint32_t size = word();
    if (size == kNullText) return std::nullopt;
    const unsigned char* place = pass(size);
    if (!place) return std::nullopt;
    // Some would see the text up to there, others all of it.
    const std::string_view value(reinterpret_cast<const char*>(place), size);
    if (value.find('\0') != std::string_view::npos) isGood_ = false;
    return std::string(value);
  }
  std::vector<OptionalText> texts() {
    const std::uint32_t count = word();
    std::vector<OptionalText> list;
    for (std::uint32_t i = 0; i < count && isGood_; ++i) list.push_back(text());
    return list;
  }
  bool isComplete() const { return isGood_ && left_ == 0; }

 private:
  const unsigned char* pass(std::size_t size) {
    if (!isGood_ || size > left_) {
      isGood_ = false;
      return nullptr;
    }
    const unsigned char* place = at_;
    at_ += size;
    left_ -= size;
    return place;
  }

  const unsigned char* at_;
  std::size_t left_;
  bool isGood_ = true;
};

}  // namespace

std::optional<MessageHead> readMessageHead(const unsigned char* message, std::size_t size) {
  if (size < kMessageHeadSize) return std::nullopt;
  // The flags' word: what is reserved is in its upper bytes.
  const std::uint32_t flags = stpReadWord(message + 28);
  if ((flags & ~std::uint32_t{kKnownFlags}) != 0) return std::nullopt;
  return MessageHead{readLong(message), readLong(message + 8), readLong(message + 16),
                     stpReadWord(message + 24), static_cast<std::uint8_t>(flags)};
}

void writeMessageHead(unsigned char* message, const MessageHead& head) {
  writeLong(message, head.session);
  writeLong(message + 8, head.sequence);
  writeLong(message + 16, head.ack);
  stpWriteWord(message + 24, head.window);
  stpWriteWord(message + 28, head.flags);
}

void writeFrameHead(unsigned char* place, FrameKind kind, std::uint32_t link, std::size_t size) {
  *place = static_cast<unsigned char>(kind);
  stpWriteWord(place + 1, static_cast<std::uint32_t>(size));
  stpWriteWord(place + 5, link);
}

bool FrameReader::next(Frame& frame) {
  if (left_ < kFrameHeadSize) return false;
  const std::uint8_t kind = *at_;
  const std::size_t size = stpReadWord(at_ + 1);
  if (kind < static_cast<std::uint8_t>(FrameKind::open) ||
      kind > static_cast<std::uint8_t>(FrameKind::valued) || size > left_ - kFrameHeadSize)
    return false;
  frame = {static_cast<FrameKind>(kind), stpReadWord(at_ + 5), at_ + kFrameHeadSize, size};
  at_ += kFrameHeadSize + size;
  left_ -= kFrameHeadSize + size;
  return true;
}

Bytes bodyOf(const OpenBody& body) {
  BodyWriter writer;
  writer.id(body.requesterID).id(body.providerID).byte(body.flags);
  writer.text(body.service).text(body.requesterProgram).text(body.workingDirectory);
  writer.word(static_cast<std::uint32_t>(body.pairs.size()));
  for (const OptionalText& text : body.pairs) writer.text(text);
  return writer.take();
}

Bytes bodyOf(const OpenedBody& body) {
  BodyWriter writer;
  writer.byte(static_cast<std::uint8_t>(body.outcome)).id(body.providerID);
  return writer.text(body.providerProgram).take();
}

Bytes bodyOf(const ValueBody& body) {
  BodyWriter writer;
  return writer.word(body.cookie).id(body.pluginID).id(body.askingID).text(body.name).take();
}

Bytes bodyOf(const ValuedBody& body) {
  return BodyWriter().word(body.cookie).text(body.value).take();
}

bool readBody(const Frame& frame, OpenBody& body) {
  BodyReader reader(frame);
  body.requesterID = reader.id();
  body.providerID = reader.id();
  body.flags = reader.byte();
  body.service = reader.text();
  body.requesterProgram = reader.text();
  body.workingDirectory = reader.text();
  body.pairs = reader.texts();
  return reader.isComplete() && body.flags <= (OpenBody::kQueryOnly | OpenBody::kMayStart);
}

bool readBody(const Frame& frame, OpenedBody& body) {
  BodyReader reader(frame);
  const std::uint8_t outcome = reader.byte();
  body.providerID = reader.id();
  body.providerProgram = reader.text();
  if (outcome > static_cast<std::uint8_t>(OpenedBody::Outcome::notFound)) return false;
  body.outcome = static_cast<OpenedBody::Outcome>(outcome);
  return reader.isComplete();
}

bool readBody(const Frame& frame, ValueBody& body) {
  BodyReader reader(frame);
  body.cookie = reader.word();
  body.pluginID = reader.id();
  body.askingID = reader.id();
  body.name = reader.text();
  return reader.isComplete();
}

bool readBody(const Frame& frame, ValuedBody& body) {
  BodyReader reader(frame);
  body.cookie = reader.word();
  body.value = reader.text();
  return reader.isComplete();
}

bool readCredit(const Frame& frame, std::uint32_t& bytes) {
  BodyReader reader(frame);
  bytes = reader.word();
  return reader.isComplete();
}

}  // namespace bridge
