// Messages of an interface to and from the structs of its authors, field by field and without a
// copy in between. For what stpc writes: the programs of authors don't include this.
//
// A spec has a `putFields` and a `getFields` for each of its structs, which these classes call for
// blocks. Tags are the own side's; the reader translates them into the peer's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hublink_plugin/result.h"
#include "stp_transport/message/stp_received_message.h"

namespace hublink {

/// Writes fields. A value that can't be sent is told at the end; what is written then isn't for
/// sending.
class FieldWriter {
 public:
  explicit FieldWriter(STPMessage& message) : message_(message) {}

  void put(std::int32_t tag, bool value) { message_.putU8(tag, value ? 1 : 0); }
  void put(std::int32_t tag, std::uint8_t value) { message_.putU8(tag, value); }
  void put(std::int32_t tag, std::uint16_t value) { message_.putU16(tag, value); }
  void put(std::int32_t tag, std::int32_t value) {
    message_.putU32(tag, static_cast<std::uint32_t>(value));
  }
  void put(std::int32_t tag, std::uint64_t value) { message_.putU64(tag, value); }
  void put(std::int32_t tag, float value) { message_.putF32(tag, value); }
  void put(std::int32_t tag, double value) { message_.putF64(tag, value); }
  void put(std::int32_t tag, const std::string& text);
  template <class Text>
  void put(std::int32_t tag, const std::optional<Text>& text) {
    if (text)
      put(tag, *text);
    else
      message_.putString(tag, nullptr);
  }
  /// A file name in absolute form; an empty one stays empty.
  void path(std::int32_t tag, const std::string& path);
  void path(std::int32_t tag, const std::optional<std::string>& path);

  template <class Struct>
  void block(std::int32_t tag, const Struct& fields) {
    const Block scope(*this, tag);
    putFields(*this, fields);
  }

  /// The count field of an array, which stands somewhere in front of its elements.
  template <class T>
  void count(std::int32_t tag, const std::vector<T>& list) {
    message_.putU32(tag, countOf(list));
  }
  /// The elements as fields of their own, or as bare numbers.
  template <class T>
  void elements(const std::vector<T>& list) {
    count(STP_TAG_ARRAY_COUNT, list);
    for (const T& element : list) {
      if (fault_) return;
      put(STP_TAG_ARRAY_ELEMENT, element);
    }
  }
  template <class T>
  void paths(const std::vector<T>& list) {
    count(STP_TAG_ARRAY_COUNT, list);
    for (const T& element : list) {
      if (fault_) return;
      path(STP_TAG_ARRAY_ELEMENT, element);
    }
  }
  template <class T>
  void packed(std::int32_t tag, const std::vector<T>& list) {
    message_.putArray(tag, list.data(), static_cast<std::int32_t>(countOf(list)), sizeof(T));
  }

  /// Writes a block by hand, until the end of the scope.
  class Block {
   public:
    Block(FieldWriter& writer, std::int32_t tag) : message_(writer.message_) {
      message_.beginStruct(tag, mark_);
    }
    ~Block() { message_.endStruct(mark_); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

   private:
    STPMessage& message_;
    std::int64_t mark_ = 0;
  };

  /// What is wrong with what was written, if anything is.
  std::optional<Failure> fault() const;

 private:
  // More elements than a packet has bytes are none, so that no length overflows.
  template <class T>
  std::uint32_t countOf(const std::vector<T>& list) {
    return takesBytes(list.size() * sizeof(T)) ? static_cast<std::uint32_t>(list.size()) : 0;
  }
  bool takesBytes(std::size_t bytes);

  STPMessage& message_;
  std::optional<Failure> fault_;
};

/// Reads fields in the order of their format. One that isn't there is 0, empty or none.
class FieldReader {
 public:
  FieldReader(STPReceivedMessage& message, const std::vector<std::int32_t>& tagMap)
      : message_(message), tagMap_(tagMap) {}

  void get(std::int32_t tag, bool& value) { value = message_.getU8(peerTag(tag)) != 0; }
  void get(std::int32_t tag, std::uint16_t& value) { value = message_.getU16(peerTag(tag)); }
  void get(std::int32_t tag, std::int32_t& value) {
    value = static_cast<std::int32_t>(message_.getU32(peerTag(tag)));
  }
  void get(std::int32_t tag, std::uint64_t& value) { value = message_.getU64(peerTag(tag)); }
  void get(std::int32_t tag, float& value) { value = message_.getF32(peerTag(tag)); }
  void get(std::int32_t tag, double& value) { value = message_.getF64(peerTag(tag)); }
  void get(std::int32_t tag, std::string& text) { text = message_.getText(peerTag(tag)); }
  void get(std::int32_t tag, std::optional<std::string>& text) {
    assign(text, message_.getText(peerTag(tag)));
  }

  template <class Struct>
  void block(std::int32_t tag, Struct& fields) {
    const Block scope(*this, tag);
    getFields(*this, fields);
  }

  using Count = STPReceivedMessage::Count;
  /// The count field of an array, read before its elements. The lesser of the count and the number
  /// of elements that are there holds.
  Count count(std::int32_t tag) { return message_.getCount(peerTag(tag)); }
  template <class T>
  void elements(const Count& count, std::vector<T>& list) {
    STPReceivedMessage::Range saved;
    const auto made = static_cast<std::uint32_t>(message_.enterElements(count, saved));
    list.resize(made < count.value ? made : count.value);
    for (T& element : list) readElement(element);
    message_.leaveStruct(saved);
  }
  template <class T>
  void packed(std::int32_t tag, const Count& count, std::vector<T>& list) {
    message_.getArray(peerTag(tag), list);
    if (count.value < list.size()) list.resize(count.value);
  }

  /// Makes a block the range of the reads until the end of the scope.
  class Block {
   public:
    Block(FieldReader& reader, std::int32_t tag) : message_(reader.message_) {
      message_.enterStruct(reader.peerTag(tag), saved_);
    }
    ~Block() { message_.leaveStruct(saved_); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

   private:
    STPReceivedMessage& message_;
    STPReceivedMessage::Range saved_;
  };

  /// The text of a field that need not be there, or that the spec doesn't have (-1): none then.
  std::optional<std::string> textIfThere(std::int32_t tag);

 private:
  std::int32_t peerTag(std::int32_t tag) const { return tagMap_[static_cast<std::size_t>(tag)]; }
  static void assign(std::optional<std::string>& text, std::string_view value) {
    if (value.data())
      text = value;
    else
      text.reset();
  }

  void readElement(std::uint8_t& value) { value = message_.getU8(STP_TAG_ARRAY_ELEMENT); }
  void readElement(std::uint16_t& value) { value = message_.getU16(STP_TAG_ARRAY_ELEMENT); }
  void readElement(std::int32_t& value) {
    value = static_cast<std::int32_t>(message_.getU32(STP_TAG_ARRAY_ELEMENT));
  }
  void readElement(std::uint64_t& value) { value = message_.getU64(STP_TAG_ARRAY_ELEMENT); }
  void readElement(float& value) { value = message_.getF32(STP_TAG_ARRAY_ELEMENT); }
  void readElement(double& value) { value = message_.getF64(STP_TAG_ARRAY_ELEMENT); }
  void readElement(std::string& value) { value = message_.getText(STP_TAG_ARRAY_ELEMENT); }
  void readElement(std::optional<std::string>& value) {
    assign(value, message_.getText(STP_TAG_ARRAY_ELEMENT));
  }

  STPReceivedMessage& message_;
  const std::vector<std::int32_t>& tagMap_;
};

}  // namespace hublink
