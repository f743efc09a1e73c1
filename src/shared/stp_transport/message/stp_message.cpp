#include "stp_transport/message/stp_message.h"

#include <algorithm>
#include <bit>

namespace {

constexpr std::int64_t kInitialPayload = 64;

void store(unsigned char* place, std::uint16_t value) {
  place[0] = static_cast<unsigned char>(value);
  place[1] = static_cast<unsigned char>(value >> 8);
}

void store(unsigned char* place, std::uint32_t value) {
  stpWriteWord(place, value);
}

void store(unsigned char* place, std::uint64_t value) {
  stpWriteWord(place, static_cast<std::uint32_t>(value >> 32));
  stpWriteWord(place + 4, static_cast<std::uint32_t>(value));
}

}  // namespace

STPMessage::STPMessage() : STPMessage(STP_HEADER_SIZE + kInitialPayload) {
  setCursor(STP_HEADER_SIZE);
}

STPMessage::STPMessage(std::int64_t capacity) : STPBuffer(capacity) {}

void STPMessage::putString(std::int32_t tag, const char* text) {
  if (text) {
    putText(tag, text);
    return;
  }
  writeField(tag, STP_FIELD_STRING);
  writeU32(0);
}

void STPMessage::putText(std::int32_t tag, std::string_view text) {
  writeField(tag, STP_FIELD_STRING);
  const std::size_t length = text.size() + 1;
  writeU32(static_cast<std::uint32_t>(length));
  writeBytes(text.data(), static_cast<std::int64_t>(length));
}

void STPMessage::putU8(std::int32_t tag, std::uint8_t value) {
  writeField(tag, STP_FIELD_U8);
  writeU8(value);
}

void STPMessage::putU16(std::int32_t tag, std::uint16_t value) {
  writeField(tag, STP_FIELD_U16);
  writeU16(value);
}

void STPMessage::putU32(std::int32_t tag, std::uint32_t value) {
  writeField(tag, STP_FIELD_U32);
  writeU32(value);
}

void STPMessage::putU64(std::int32_t tag, std::uint64_t value) {
  writeField(tag, STP_FIELD_U64);
  writePair(value);
}

void STPMessage::putF32(std::int32_t tag, float value) {
  writeField(tag, STP_FIELD_F32);
  writeU32(std::bit_cast<std::uint32_t>(value));
}

void STPMessage::putF64(std::int32_t tag, double value) {
  writeField(tag, STP_FIELD_F64);
  writePair(std::bit_cast<std::uint64_t>(value));
}

void STPMessage::beginStruct(std::int32_t tag, std::int64_t& mark) {
  beginRange(tag, STP_FIELD_STRUCT, mark);
}

void STPMessage::beginArray(std::int32_t tag, std::int64_t& mark) {
  beginRange(tag, STP_FIELD_ARRAY, mark);
}

void STPMessage::endStruct(std::int64_t mark) {
  stpWriteWord(storage_ + mark - 4, static_cast<std::uint32_t>(cursorOffset() - mark));
}

void STPMessage::putArray(std::int32_t tag, const void* elements, std::int32_t count,
                          int elementSize) {
  std::int64_t mark;
  beginArray(tag, mark);
  const bool writable =
      count > 0 && (elementSize == 1 || elementSize == 2 || elementSize == 4 || elementSize == 8);
  writeU32(writable ? static_cast<std::uint32_t>(count) : 0);
  writeElements(elements, count, elementSize);
  endArray(mark);
}

void STPMessage::putArrayData(std::int32_t tag, const void* elements, std::int32_t count,
                              int elementSize) {
  std::int64_t mark;
  beginArray(tag, mark);
  writeElements(elements, count, elementSize);
  endArray(mark);
}

void STPMessage::dropFields() {
  const std::int64_t used = cursorOffset() - STP_HEADER_SIZE;
  setCursor(STP_HEADER_SIZE);
  std::memset(cursor_, 0, static_cast<std::size_t>(used));
}

void STPMessage::finishMessage(std::uint32_t sequence) {
  writeU32(0);
  header.sequence = sequence;
  header.headerSize = STP_HEADER_SIZE;
  header.payloadSize = static_cast<std::int32_t>(cursorOffset() - STP_HEADER_SIZE);
  stpWriteHeader(storage_, header);
}

void STPMessage::writePair(std::uint64_t value) {
  writeU32(static_cast<std::uint32_t>(value >> 32));
  writeU32(static_cast<std::uint32_t>(value));
}

void STPMessage::beginRange(std::int32_t tag, std::uint32_t kind, std::int64_t& mark) {
  writeField(tag, kind);
  writeU32(0);
  mark = cursorOffset();
}

void STPMessage::writeElements(const void* elements, std::int64_t count, int elementSize) {
  switch (elementSize) {
    case 1:
      writeBytes(elements, std::max<std::int64_t>(count, 0));
      break;
    case 2:
      writeAligned<std::uint16_t>(elements, count);
      break;
    case 4:
      writeAligned<std::uint32_t>(elements, count);
      break;
    case 8:
      writeAligned<std::uint64_t>(elements, count);
      break;
    default:
      break;
  }
}

template <class Element>
void STPMessage::writeAligned(const void* elements, std::int64_t count) {
  if (count <= 0) return;
  constexpr std::int64_t size = sizeof(Element);
  reserve(count * size + size - 1);
  alignCursor(std::min<std::int64_t>(size, 4));
  const auto* source = static_cast<const unsigned char*>(elements);
  for (std::int64_t i = 0; i < count; ++i, source += size, cursor_ += size) {
    Element element;
    std::memcpy(&element, source, sizeof element);
    store(cursor_, element);
  }
}
