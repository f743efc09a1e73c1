// Construction, and the binary form of a message being read.
#include "stp_transport/message/stp_received_message.h"

#include <algorithm>
#include <bit>

namespace {

constexpr std::int64_t kSearchesPerText = 16;
constexpr std::int64_t kSmallText = 0x10000;
constexpr std::uint32_t kArrayCountWord =
    std::uint32_t{STP_TAG_ARRAY_COUNT} << STP_FIELD_TAG_SHIFT | STP_FIELD_U32;

bool isElementSize(int size) {
  return size == 1 || size == 2 || size == 4 || size == 8;
}

}  // namespace

STPReceivedMessage::STPReceivedMessage(const unsigned char* packet, std::int32_t headerSize,
                                       std::int32_t payloadSize)
    : STPMessage(std::int64_t{headerSize} + payloadSize),
      payloadStart_(headerSize),
      payloadEnd_(capacity()),
      searchBudget_(kSearchesPerText * capacity() + kSmallText) {
  std::memcpy(storage_, packet, static_cast<std::size_t>(capacity_));
  header = stpReadHeader(storage_, headerSize);
  setCursor(payloadStart_);
  fieldCursor_ = textCursor();
}

STPReceivedMessage::STPReceivedMessage(const char* text)
    : STPMessage(STP_HEADER_SIZE +
                 stpStoredSize(text ? static_cast<std::int64_t>(std::strlen(text)) : 0) + 4),
      payloadStart_(STP_HEADER_SIZE),
      payloadEnd_(capacity()),
      searchBudget_(kSearchesPerText * capacity() + kSmallText) {
  setCursor(payloadStart_);
  fieldCursor_ = textCursor();
  if (text) std::memcpy(fieldCursor_, text, std::strlen(text));
}

std::uint32_t STPReceivedMessage::findField(std::int32_t tag) {
  bool sequential = payloadStart_ == cursorOffset();
  if (!sequential) setCursor(payloadStart_);
  setLimit(payloadEnd_);
  while (tag != -1) {
    const std::uint32_t word = readU32();
    if (word == 0) break;
    std::int64_t length = word & STP_FIELD_SIZE_MASK;
    if (length == 0) length = readU32();
    if (word >> STP_FIELD_TAG_SHIFT != static_cast<std::uint32_t>(tag) ||
        isEntered(cursorOffset())) {
      sequential = false;
      cursor_ += std::min(length, remaining());
      continue;
    }
    if ((word & STP_FIELD_CLASS_MASK) == STP_FIELD_STRING) {
      cursor_ -= 4;  // the string reader takes the length word itself
      length += 4;
    }
    if (length < remaining()) limit_ = cursor_ + length;
    if (sequential) payloadStart_ = limitOffset();
    return word;
  }
  limit_ = cursor_;
  return 0;
}

std::uint8_t STPReceivedMessage::getU8(std::int32_t tag) {
  findField(tag);
  return readU8();
}

std::uint16_t STPReceivedMessage::getU16(std::int32_t tag) {
  findField(tag);
  return readU16();
}

std::uint32_t STPReceivedMessage::getU32(std::int32_t tag) {
  findField(tag);
  return readU32();
}

std::uint64_t STPReceivedMessage::getU64(std::int32_t tag) {
  findField(tag);
  return readPair();
}

float STPReceivedMessage::getF32(std::int32_t tag) {
  return std::bit_cast<float>(getU32(tag));
}

double STPReceivedMessage::getF64(std::int32_t tag) {
  return std::bit_cast<double>(getU64(tag));
}

gen_text STPReceivedMessage::getString(std::int32_t tag) {
  findField(tag);
  const std::int64_t length = readStringLength();
  if (length == 0) return gen_text();
  // One byte more than is stored: the stored characters may lack their zero.
  auto* text = static_cast<char*>(gen_alloc(static_cast<std::size_t>(length) + 1, 1));
  std::memcpy(text, cursor_, static_cast<std::size_t>(length));
  cursor_ += length;
  return gen_text(text);
}

const char* STPReceivedMessage::getStringView(std::int32_t tag) {
  const std::string_view text = getText(tag);
  const char* end = text.data() + text.size();
  if (!text.data() || end < textCursor()) return text.data();
  // The next field may begin right behind the characters, so that there is no place for a zero.
  closed_.emplace_front(text);
  return closed_.front().c_str();
}

std::string_view STPReceivedMessage::getText(std::int32_t tag) {
  findField(tag);
  const auto length = static_cast<std::size_t>(readStringLength());
  if (length == 0) return {};
  const char* text = textCursor();
  cursor_ += length;
  const void* zero = std::memchr(text, 0, length);
  return {text, zero ? static_cast<std::size_t>(static_cast<const char*>(zero) - text) : length};
}

void STPReceivedMessage::enterStruct(std::int32_t tag, Range& saved) {
  findField(tag);
  saved = {payloadStart_, payloadEnd_};
  payloadStart_ = cursorOffset();
  payloadEnd_ = limitOffset();
}

void STPReceivedMessage::leaveStruct(const Range& saved) {
  payloadStart_ = saved.start;
  payloadEnd_ = saved.end;
}

void* STPReceivedMessage::getArrayAlloc(std::int32_t tag, std::int32_t& count, int elementSize) {
  unsigned char* elements = nullptr;
  readCounted(tag, elementSize, [&](std::size_t number) {
    count = static_cast<std::int32_t>(number);
    elements =
        static_cast<unsigned char*>(gen_alloc(number, static_cast<std::size_t>(elementSize)));
    return elements;
  });
  return elements;
}

void STPReceivedMessage::readCounted(
    std::int32_t tag, int elementSize,
    const std::function<unsigned char*(std::size_t count)>& allocate) {
  Range saved;
  enterStruct(tag, saved);
  const std::int64_t announced = readU32();
  const std::int64_t held = isElementSize(elementSize) ? remaining() / elementSize : 0;
  const std::int64_t count = std::min(announced, held);
  readElements(allocate(static_cast<std::size_t>(count)), count, elementSize);
  if (announced > held) cursor_ = limit_;
  leaveStruct(saved);
}

void STPReceivedMessage::getArray(std::int32_t tag, void* elements, std::int32_t count,
                                  int elementSize) {
  Range saved;
  enterStruct(tag, saved);
  readElements(static_cast<unsigned char*>(elements), count, elementSize);
  leaveStruct(saved);
}

STPReceivedMessage::Count STPReceivedMessage::getCount(std::int32_t tag) {
  const bool present = findField(tag) != 0;
  const std::uint32_t value = readU32();
  return present ? Count{value, limitOffset()} : Count{};
}

std::int32_t STPReceivedMessage::enterElements(const Count& count, Range& saved) {
  const std::int64_t from = std::max(count.behind, payloadStart_);
  setLimit(payloadEnd_);
  Range array{from, from};
  std::int64_t first = from;
  std::uint32_t held = 0;
  for (std::int64_t start = count.behind != 0 ? from : payloadEnd_;;) {
    setCursor(start);
    const Field head = stepOver();
    if (head.word == 0) break;
    if (head.word == kArrayCountWord && !isEntered(head.end)) {
      std::uint32_t number = 0;
      std::int64_t end = head.end;
      for (Field element; number < head.value; ++number, end = element.end) {
        element = stepOver();
        if (element.word >> STP_FIELD_TAG_SHIFT != STP_TAG_ARRAY_ELEMENT) break;
      }
      const bool matches = number == count.value && head.value == count.value;
      if (matches || start == from) {
        array = {start, end};
        first = head.end;
        held = number;
      }
      if (matches) break;
    }
    start = head.end;
  }
  saved = {payloadStart_, payloadEnd_};
  if (array.start == payloadStart_)
    saved.start = array.end;
  else if (array.end != from)
    entered_.push_back(array);
  payloadStart_ = first;
  payloadEnd_ = array.end;
  setCursor(first);
  return static_cast<std::int32_t>(held);
}

STPReceivedMessage::Field STPReceivedMessage::stepOver() {
  Field field;
  field.word = readU32();
  std::int64_t length = field.word & STP_FIELD_SIZE_MASK;
  if (field.word != 0 && length == 0) length = readU32();
  if (length == 4 && remaining() >= 4) field.value = stpReadWord(cursor_);
  cursor_ += std::min(length, remaining());
  field.end = cursorOffset();
  return field;
}

bool STPReceivedMessage::isEntered(std::int64_t offset) const {
  // Not those of a range that is being read just now.
  return std::any_of(entered_.begin(), entered_.end(), [&](const Range& array) {
    return array.start >= payloadStart_ && array.start < offset && offset <= array.end;
  });
}

void STPReceivedMessage::readElements(unsigned char* elements, std::int64_t count,
                                      int elementSize) {
  if (count <= 0 || !isElementSize(elementSize)) return;
  alignCursor(std::min(elementSize, 4));
  const std::int64_t held = std::min(count, std::max<std::int64_t>(remaining(), 0) / elementSize);
  const auto each = [&](auto read) {
    for (std::int64_t i = 0; i < held; ++i) {
      const auto element = read();
      std::memcpy(elements + i * elementSize, &element, sizeof element);
    }
  };
  switch (elementSize) {
    case 1:
      std::memcpy(elements, cursor_, static_cast<std::size_t>(held));
      cursor_ += held;
      break;
    case 2:
      each([this] { return readU16(); });
      break;
    case 4:
      each([this] { return readU32(); });
      break;
    default:
      each([this] { return readPair(); });
      break;
  }
  if (held == count) return;
  std::memset(elements + held * elementSize, 0,
              static_cast<std::size_t>((count - held) * elementSize));
  cursor_ = limit_;
}

std::uint64_t STPReceivedMessage::readPair() {
  const std::uint64_t high = readU32();
  return high << 32 | readU32();
}

std::int64_t STPReceivedMessage::readStringLength() {
  const std::int64_t length = readU32();
  return fits(length) ? length : 0;
}
