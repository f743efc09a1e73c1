// A message being built: header words held apart until finishMessage, and a payload in one of two
// forms. The binary form is a sequence of tagged fields, the ascii form is text; a message is
// written in one of them only.
//
// A message belongs to whoever built it. Queueing it on a transport copies its bytes.
#pragma once

#include <cstdint>
#include <string_view>

#include "stp_transport/message/stp_buffer.h"
#include "stp_transport/wire/stp_wire.h"

class STPMessage : public STPBuffer {
 public:
  /// An empty message with all header words 0: room for the header and 64 bytes of payload, the
  /// cursor behind the header.
  STPMessage();
  /// A message with all header words 0 that holds `text` and a blank in the ascii form (nothing for
  /// a null or empty text) and an end word; the cursor stands in front of the end word.
  explicit STPMessage(const char* text);

  STPHeader header;
  /// Set when delivery of the message was put off.
  bool deferred = false;

  // --- Binary form: each appends one field at the cursor. Tags are the writer's own. ---
  void putString(std::int32_t tag, const char* text);  ///< null and empty differ on the wire
  /// The same for a text whose length is known; its closing zero stands behind it.
  void putText(std::int32_t tag, std::string_view text);
  void putU8(std::int32_t tag, std::uint8_t value);
  void putU16(std::int32_t tag, std::uint16_t value);
  void putU32(std::int32_t tag, std::uint32_t value);
  void putU64(std::int32_t tag, std::uint64_t value);  ///< high word first
  void putF32(std::int32_t tag, float value);
  void putF64(std::int32_t tag, double value);  ///< high word first
  /// Opens a struct; `mark` is for endStruct, which writes the length into its place.
  void beginStruct(std::int32_t tag, std::int64_t& mark);
  void beginStruct(std::int64_t& mark) { beginStruct(0, mark); }
  void endStruct(std::int64_t mark);
  void beginArray(std::int32_t tag, std::int64_t& mark);
  void beginArray(std::int64_t& mark) { beginArray(0, mark); }
  void endArray(std::int64_t mark) { endStruct(mark); }
  /// An array of `count` bare values of `elementSize` bytes (1, 2, 4 or 8), behind a 32-bit count.
  void putArray(std::int32_t tag, const void* elements, std::int32_t count, int elementSize);
  /// The same without the count. A count below 0 is one of 0, and so is any of another element
  /// size.
  void putArrayData(std::int32_t tag, const void* elements, std::int32_t count, int elementSize);

  // --- Ascii form: each appends at the cursor; a null `name` writes the bare value. ---
  void writeBlockBegin(const char* name = nullptr);
  void writeBlockEnd();
  void writeArrayBegin(std::int32_t size, const char* name = nullptr);  ///< below 0: no size
  void writeArrayEnd();
  void writeInt(std::uint32_t value, const char* name = nullptr);
  void writeInt64(std::uint64_t value, const char* name = nullptr);
  void writeString(const char* text, const char* name = nullptr);  ///< escaped; null is "null "
  void writeWord(const char* text, const char* name = nullptr);    ///< no quoting
  void writeQuoted(const char* text, const char* name = nullptr);  ///< no escaping

  /// Takes back all fields that were put into a message of one's own.
  void dropFields();

  /// Closes the message under a sequence number: end word, sizes, and the header words over the
  /// first bytes of the storage. Called once; the cursor stays behind the end word.
  void finishMessage(std::uint32_t sequence);

 protected:
  /// For a received message: storage of exactly `capacity` bytes.
  explicit STPMessage(std::int64_t capacity);

 private:
  void writeField(std::int32_t tag, std::uint32_t kind) {
    writeU32(static_cast<std::uint32_t>(tag) << STP_FIELD_TAG_SHIFT | kind);
  }
  void writePair(std::uint64_t value);
  void beginRange(std::int32_t tag, std::uint32_t kind, std::int64_t& mark);
  void writeElements(const void* elements, std::int64_t count, int elementSize);
  template <class Element>
  void writeAligned(const void* elements, std::int64_t count);
  void writeText(std::string_view text) {
    writeBytes(text.data(), static_cast<std::int64_t>(text.size()));
  }
  void writeName(const char* name);
};
