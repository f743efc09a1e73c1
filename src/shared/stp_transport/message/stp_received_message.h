// A message being read, over its own copy of a packet's bytes.
//
// Binary fields are found by tag, ascii fields by name. A reader that takes the fields in the order
// in which they were written pays one step for each: the start of the search walks along behind it.
// A reader that takes them in another order searches from the first field not yet read in order,
// in an ascii text by an index that is built for the first such search on a level.
// The elements of a pointer array all have the same tag and are therefore read as a range of their
// own, found behind the array's count field. Nothing here fails: what is missing or cut short reads
// as 0, null or an empty range, and no read goes past the message, whatever its bytes say.
#pragma once

#include <cstdint>
#include <forward_list>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "indgen/memory.h"
#include "stp_transport/message/stp_field_index.h"
#include "stp_transport/message/stp_message.h"

class STPReceivedMessage : public STPMessage {
 public:
  /// Copies the `headerSize` + `payloadSize` bytes of one packet.
  STPReceivedMessage(const unsigned char* packet, std::int32_t headerSize,
                     std::int32_t payloadSize);
  /// A message with all header words 0 that holds `text`, ready to be read in the ascii form.
  explicit STPReceivedMessage(const char* text);

  // --- Binary form. `tag` is the sender's number of the field; -1 finds nothing. ---

  /// A range of the payload, saved by enterStruct for leaveStruct.
  struct Range {
    std::int64_t start = 0;
    std::int64_t end = 0;
  };

  /// The field word, the cursor on the value; 0 if the field isn't there.
  std::uint32_t findField(std::int32_t tag);
  std::uint8_t getU8(std::int32_t tag);
  std::uint16_t getU16(std::int32_t tag);
  std::uint32_t getU32(std::int32_t tag);
  std::uint64_t getU64(std::int32_t tag);
  float getF32(std::int32_t tag);
  double getF64(std::int32_t tag);
  /// A copy of the stored length, always zero-closed; null for a null string or a missing field.
  gen_text getString(std::int32_t tag);
  /// The characters inside the message, zero-closed, valid while the message lives; null for a null
  /// string or a missing field. Stored characters that have no zero among them are copied.
  const char* getStringView(std::int32_t tag);
  /// The same up to the first zero, with or without one; its data is null where that gives null.
  std::string_view getText(std::int32_t tag);
  /// Makes the value of a struct or array field the range of the following reads; an absent field
  /// gives an empty range.
  void enterStruct(std::int32_t tag, Range& saved);
  void leaveStruct(const Range& saved);
  /// The elements of an array field in a block that the caller frees with gen_free, null if there
  /// are none. `count` receives how many there are, never more than the payload holds. Elements are
  /// of 1, 2, 4 or 8 bytes; an array of any other size reads as empty.
  void* getArrayAlloc(std::int32_t tag, std::int32_t& count, int elementSize);
  /// The same as a vector of numbers.
  template <class T>
  void getArray(std::int32_t tag, std::vector<T>& elements) {
    readCounted(tag, sizeof(T), [&elements](std::size_t count) {
      elements.resize(count);
      return reinterpret_cast<unsigned char*>(elements.data());
    });
  }
  /// Reads up to `count` elements of an array field without a count; what isn't there is zero.
  void getArray(std::int32_t tag, void* elements, std::int32_t count, int elementSize);
  /// A count field, read before the pointer array that it counts.
  struct Count {
    std::uint32_t value = 0;
    std::int64_t behind = 0;  ///< offset of what follows the field; 0 if the field isn't there
  };
  Count getCount(std::int32_t tag);
  /// Makes the elements of the pointer array that `count` belongs to the range of the following
  /// reads, to be taken one by one under STP_TAG_ARRAY_ELEMENT, and gives how many there are. The
  /// array is the first behind the count field that has that many elements and hasn't been entered
  /// yet; one directly behind it is taken whatever its number of elements. Without the count field
  /// or such an array the range is empty. Undone by leaveStruct.
  std::int32_t enterElements(const Count& count, Range& saved);

  // --- Ascii form. Every read with a name looks the field up first. Words and quoted texts are
  // read in place and come back unterminated; whoever closes one with a zero puts back what stood
  // there. A missing one is an empty text inside the message. ---

  /// The field's value, the cursor on it; null if it isn't there.
  char* findAsciiField(const char* name);
  /// A number with an optional sign, hexadecimal behind "0x", octal behind "0"; 0xFFFFFFFF if it
  /// needs more than 32 bits, 0 if there is none.
  std::uint32_t readInt();
  std::uint32_t readInt(const char* name);
  /// The same in 64 bits, without octal; what doesn't fit is lost at the high end.
  std::uint64_t readInt64();
  std::uint64_t readInt64(const char* name);
  /// A copy of a string without its quotes and escapes; null for "null " and for what is no string.
  gen_text readString();
  gen_text readString(const char* name);
  /// The characters up to the next blank; brackets don't end a word.
  char* readWord(std::int32_t* length);
  char* readWord(const char* name, std::int32_t* length);
  /// The word at the cursor, which stays; only the start of the next search moves behind the word.
  char* peekWord(std::int32_t* length);
  /// The characters between two double quotes, escapes left as they are.
  char* readQuoted(std::int32_t* length);
  char* readQuoted(const char* name, std::int32_t* length);

  /// A place in the text, saved on entering a block or array.
  using Mark = char*;
  /// Steps into a block; one that isn't there reads as empty.
  void enterBlock(Mark* saved);
  void enterBlock(Mark* saved, const char* name);
  /// Steps out of the block. If it wasn't read to its end, only reads by name go on behind it.
  void leaveBlock(Mark* saved);
  /// Gives the size in front of the array, 0 if there is none.
  std::int32_t enterArray(Mark* saved);
  std::int32_t enterArray(Mark* saved, const char* name);
  void leaveArray(Mark* saved);
  /// Walks fields of unknown names: the value's place and, through `name`, the name's; null at the
  /// end of the level.
  char* nextField(char** name);
  /// Walks array elements: the element's place, or null at the end.
  char* nextValue();

 private:
  /// The field at the cursor, stepped over up to the start of the next one.
  struct Field {
    std::uint32_t word = 0;   ///< 0 at the end of the range
    std::uint32_t value = 0;  ///< the first word of the value
    std::int64_t end = 0;     ///< offset behind the value
  };
  Field stepOver();
  /// Whether the field whose word ends at `offset` is part of an array that has been entered.
  bool isEntered(std::int64_t offset) const;
  /// Reads an array field with a count to where `allocate` makes room for that many elements.
  void readCounted(std::int32_t tag, int elementSize,
                   const std::function<unsigned char*(std::size_t count)>& allocate);
  void readElements(unsigned char* elements, std::int64_t count, int elementSize);
  std::uint64_t readPair();
  /// Length of the string at the cursor, with the cursor on its characters; 0 for a null string and
  /// one that doesn't fit.
  std::int64_t readStringLength();

  char* textCursor() const { return reinterpret_cast<char*>(cursor_); }
  void setTextCursor(char* place) { cursor_ = reinterpret_cast<unsigned char*>(place); }
  char* textEnd() const { return reinterpret_cast<char*>(storage_ + capacity_); }
  void moveToEndWord();
  char* findFrom(char* place, const char* name);
  char* readNamed(const char* name, std::int32_t* length,
                  char* (STPReceivedMessage::*read)(std::int32_t*));
  char* skipValue(char* place);
  char* takeWord(char* place, std::int32_t* length);
  void stepInto(char bracket);
  void stepOut(char bracket, Mark saved);
  std::int32_t stepIntoArray();

  std::int64_t payloadStart_ = 0;
  std::int64_t payloadEnd_ = 0;
  /// Where pointer arrays stand that have been entered: their fields have the same tags as others.
  std::vector<Range> entered_;
  char* fieldCursor_ = nullptr;
  /// Bytes that searches may still step over. A text can be made so that every value in it runs to
  /// its end; an honest one is stepped over about twice for each level that a field stands on.
  std::int64_t searchBudget_ = 0;
  /// Of the level that the mark stands on and of those around it, from the outermost.
  std::vector<STPFieldIndex> indexes_;
  /// Views of strings that came without their zero.
  std::forward_list<std::string> closed_;
};
