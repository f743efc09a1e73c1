// What the classes made by stpc share, so that their code stays short: arrays as arguments, a
// reader that owns what one message's fields take up, writers for arrays and file names, and the
// trace.
//
// Tags here are the own side's; the reader translates them into the peer's.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "indgen/memory.h"
#include "stp_transport/log/stp_log.h"
#include "stp_transport/message/stp_received_message.h"
#include "stp_transport/spec/stp_specclass.h"
#include "stp_transport/transport/counted_ptr.h"

/// An array as an argument: a view of elements that belong to somebody else. In a handler it is
/// valid for the length of the call. A count below 0 is sent as an empty array.
template <class T>
struct STPArray {
  std::int32_t count = 0;
  const T* data = nullptr;
};

using StringArray = STPArray<const char*>;  ///< each text may be null
using RNArray = STPArray<std::int32_t>;

/// Reads the fields of one message in the order of its format. Texts and arrays that it gives live
/// as long as the reader.
class STPStubReader {
 public:
  STPStubReader(STPReceivedMessage& message, const std::vector<std::int32_t>& tagMap)
      : message_(message), tagMap_(tagMap) {}
  STPStubReader(const STPStubReader&) = delete;
  STPStubReader& operator=(const STPStubReader&) = delete;

  /// A field that isn't there reads as 0 or null.
  bool u1(std::int32_t tag) { return message_.getU8(peerTag(tag)) != 0; }
  std::uint16_t u2(std::int32_t tag) { return message_.getU16(peerTag(tag)); }
  std::int32_t u4(std::int32_t tag) {
    return static_cast<std::int32_t>(message_.getU32(peerTag(tag)));
  }
  std::uint64_t u8(std::int32_t tag) { return message_.getU64(peerTag(tag)); }
  float f4(std::int32_t tag) { return message_.getF32(peerTag(tag)); }
  double f8(std::int32_t tag) { return message_.getF64(peerTag(tag)); }
  const char* str(std::int32_t tag) { return keepText(message_.getString(peerTag(tag))); }
  /// The same as an owner of its own, for a text that outlives the reader.
  gen_text ownedText(std::int32_t tag) { return message_.getString(peerTag(tag)); }

  /// Reads the count field of a pointer array.
  template <class T>
  void count(std::int32_t tag, STPArray<T>& array) {
    const STPReceivedMessage::Count count = message_.getCount(peerTag(tag));
    array.count = static_cast<std::int32_t>(count.value);
    counts_.emplace_back(&array, count);
  }
  /// Reads the elements of a pointer array whose count field has been read. A message may say one
  /// count there and bring another number of elements; the lesser holds.
  template <class T>
  void elements(STPArray<T>& array) {
    STPReceivedMessage::Range saved;
    const std::int32_t made = message_.enterElements(countOf(&array), saved);
    T* data = static_cast<T*>(keep(gen_alloc(static_cast<std::size_t>(made), sizeof(T))));
    for (std::int32_t i = 0; i < made; ++i) readElement(data[i]);
    message_.leaveStruct(saved);
    array.data = data;
    array.count = lesserCount(array.count, made);
  }

  /// Reads a dynamic array, a field by itself, whose count field has been read into `array.count`.
  /// The lesser count holds here, too.
  template <class T>
  void packed(std::int32_t tag, STPArray<T>& array) {
    std::int32_t made = 0;
    array.data = static_cast<const T*>(keep(message_.getArrayAlloc(peerTag(tag), made, sizeof(T))));
    array.count = lesserCount(array.count, made);
  }

  /// Makes a block the range of the reads until the end of the scope.
  class Block {
   public:
    Block(STPStubReader& reader, std::int32_t tag) : message_(reader.message_) {
      message_.enterStruct(reader.peerTag(tag), saved_);
    }
    ~Block() { message_.leaveStruct(saved_); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

   private:
    STPReceivedMessage& message_;
    STPReceivedMessage::Range saved_;
  };

 private:
  struct Free {
    void operator()(void* block) const { gen_free(block); }
  };

  std::int32_t peerTag(std::int32_t tag) const { return tagMap_[static_cast<std::size_t>(tag)]; }
  STPReceivedMessage::Count countOf(const void* array) const;
  void* keep(void* block);
  const char* keepText(gen_text text) { return static_cast<char*>(keep(text.release())); }
  static std::int32_t lesserCount(std::int32_t count, std::int32_t made);

  void readElement(const char*& value) {
    value = keepText(message_.getString(STP_TAG_ARRAY_ELEMENT));
  }
  void readElement(std::uint8_t& value) { value = message_.getU8(STP_TAG_ARRAY_ELEMENT); }
  void readElement(std::uint16_t& value) { value = message_.getU16(STP_TAG_ARRAY_ELEMENT); }
  void readElement(std::int32_t& value) {
    value = static_cast<std::int32_t>(message_.getU32(STP_TAG_ARRAY_ELEMENT));
  }
  void readElement(std::uint64_t& value) { value = message_.getU64(STP_TAG_ARRAY_ELEMENT); }
  void readElement(float& value) { value = message_.getF32(STP_TAG_ARRAY_ELEMENT); }
  void readElement(double& value) { value = message_.getF64(STP_TAG_ARRAY_ELEMENT); }

  STPReceivedMessage& message_;
  const std::vector<std::int32_t>& tagMap_;
  std::vector<std::unique_ptr<void, Free>> kept_;
  std::vector<std::pair<const void*, STPReceivedMessage::Count>> counts_;
};

/// Writes a block: what is put into the message until the end of the scope goes into it.
class STPStubBlock {
 public:
  STPStubBlock(STPMessage& message, std::int32_t tag) : message_(message) {
    message_.beginStruct(tag, mark_);
  }
  ~STPStubBlock() { message_.endStruct(mark_); }
  STPStubBlock(const STPStubBlock&) = delete;
  STPStubBlock& operator=(const STPStubBlock&) = delete;

 private:
  STPMessage& message_;
  std::int64_t mark_ = 0;
};

/// Writes a file name in absolute form; null stays null.
void stpPutPath(STPMessage& message, std::int32_t tag, const char* path);

inline void stpPutElement(STPMessage& message, const char* value) {
  message.putString(STP_TAG_ARRAY_ELEMENT, value);
}
inline void stpPutElement(STPMessage& message, std::uint8_t value) {
  message.putU8(STP_TAG_ARRAY_ELEMENT, value);
}
inline void stpPutElement(STPMessage& message, std::uint16_t value) {
  message.putU16(STP_TAG_ARRAY_ELEMENT, value);
}
inline void stpPutElement(STPMessage& message, std::int32_t value) {
  message.putU32(STP_TAG_ARRAY_ELEMENT, static_cast<std::uint32_t>(value));
}
inline void stpPutElement(STPMessage& message, std::uint64_t value) {
  message.putU64(STP_TAG_ARRAY_ELEMENT, value);
}
inline void stpPutElement(STPMessage& message, float value) {
  message.putF32(STP_TAG_ARRAY_ELEMENT, value);
}
inline void stpPutElement(STPMessage& message, double value) {
  message.putF64(STP_TAG_ARRAY_ELEMENT, value);
}

/// Writes a count field, the count of an array.
template <class T>
void stpPutCount(STPMessage& message, std::int32_t tag, const STPArray<T>& array) {
  message.putU32(tag, static_cast<std::uint32_t>(std::max(array.count, 0)));
}

/// Writes a pointer array: its inner count and its elements, under their fixed tags.
template <class T>
void stpPutElements(STPMessage& message, const STPArray<T>& array) {
  stpPutCount(message, STP_TAG_ARRAY_COUNT, array);
  for (std::int32_t i = 0; i < array.count; ++i) stpPutElement(message, array.data[i]);
}
/// The same with each element a file name.
void stpPutPaths(STPMessage& message, const StringArray& array);

/// Writes a dynamic array.
template <class T>
void stpPutPacked(STPMessage& message, std::int32_t tag, const STPArray<T>& array) {
  message.putArray(tag, array.data, std::max(array.count, 0), sizeof(T));
}

/// One line of a trace, from its heading to the line end that the destructor writes.
class STPStubTrace {
 public:
  STPStubTrace(STPLog& log, const STPSpecClass* spec, const char* heading);
  ~STPStubTrace();
  STPStubTrace(const STPStubTrace&) = delete;
  STPStubTrace& operator=(const STPStubTrace&) = delete;

  /// A scalar under its name.
  template <class T>
  STPStubTrace& field(const char* name, const T& value) {
    writeName(name);
    writeValue(value);
    return *this;
  }
  /// The elements of an array, each closed by a separator.
  template <class T>
  STPStubTrace& elements(const char* name, const STPArray<T>& array) {
    writeName(name);
    for (std::int32_t i = 0; i < array.count; ++i) {
      writeValue(array.data[i]);
      log_.write(", ");
    }
    separated_ = array.count > 0;
    return *this;
  }
  /// Encloses the fields of a block.
  STPStubTrace& open(const char* name);
  STPStubTrace& close();

 private:
  void writeName(const char* name);
  void writeValue(const char* value);
  void writeValue(std::int32_t value) { log_.printf("0x%x", static_cast<std::uint32_t>(value)); }
  void writeValue(bool value) { writeValue(std::int32_t{value}); }
  void writeValue(std::uint8_t value) { writeValue(std::int32_t{value}); }
  void writeValue(std::uint16_t value) { writeValue(std::int32_t{value}); }
  void writeValue(std::uint64_t value);
  void writeValue(float value) { writeValue(static_cast<double>(value)); }
  void writeValue(double value) { log_.printf("%g", value); }

  STPLog& log_;
  const STPSpecClass* spec_;
  int depth_ = 0;
  bool separated_ = true;
};

/// The line of a message that isn't written out because its transport has failed.
void stpTraceFailure(STPLog& log, const STPSpecClass* spec, const char* messageName);
