// A catalogue: one spec with its two sides and the messages that pass between them, as read from a
// file. Everything that the generated code numbers is derived from it here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace stpc {

/// A place in the catalogue file, counted from 1; columns are bytes.
struct Position {
  int line = 1;
  int column = 1;
};

/// What is wrong with a catalogue. An empty text means nothing.
struct Error {
  Position at;
  std::string text;
};

/// A text as messages show it.
inline std::string quoted(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

enum class Scalar { u1, u2, u4, u8, f4, f8, str, fn };

/// How a scalar is spelled in the format language and in the generated code.
struct ScalarSpelling {
  const char* name;         ///< between the percent signs
  const char* type;         ///< of an argument
  const char* elementType;  ///< of an array element
  const char* initial;      ///< the value of a missing field
  const char* put;          ///< operation of STPMessage that writes it
};
const ScalarSpelling& spelling(Scalar scalar);
inline bool isText(Scalar scalar) {
  return scalar == Scalar::str || scalar == Scalar::fn;
}

struct Field {
  enum class Kind { scalar, block, pointerArray, dynamicArray };
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  std::string name;
  Position at;
  Kind kind = Kind::scalar;
  Scalar scalar = Scalar::u4;       ///< of the elements, for an array
  std::vector<Field> fields;        ///< of a block
  std::size_t counterpart = kNone;  ///< in the same list: an array's count field, a count's array
  bool isNullable = false;          ///< a text, or the elements of an array of texts, may be none

  bool isArray() const { return kind == Kind::pointerArray || kind == Kind::dynamicArray; }
  bool isCount() const { return kind == Kind::scalar && counterpart != kNone; }
  /// A block of a count and its array, which is passed as the array.
  bool isArrayBlock() const;
  /// The array that this field is to its users, itself or the one in its block; null for none.
  const Field* list() const;
};

struct Message {
  std::string name;
  std::string doc;  ///< what the catalogue's comment above says
  Position at;
  std::size_t sender = 0;  ///< index of the side
  bool twoWay = false;
  std::uint32_t entryFlags = 0;
  std::uint32_t packetFlags = 0;
  std::string format;
  std::vector<Field> fields;
  std::vector<Field> reply;
};

struct Side {
  std::string name;
  std::string doc;
  std::string vstamp = "1";
  std::uint32_t flags = 0;
  std::uint32_t source = 1;
  std::uint32_t destination = 1;
};

struct Catalogue {
  std::string specName;
  std::string doc;
  bool dense = false;       ///< names are numbered without a gap
  std::vector<Side> sides;  ///< two of them
  /// In the order of the file, which is that of the operations in the generated classes.
  std::vector<Message> messages;

  /// All field names of both directions, sorted by byte value: the tag table. The numbers that mark
  /// a pointer array go to names that no field can have, unless the spec is dense or has no such
  /// array: a reader that doesn't know the array could take its parts for a field.
  std::vector<std::string> tagNames() const;
  /// The same with the field for the text of a refused call, if there are two-way messages.
  std::vector<std::string> tagNamesWithRefusal() const;
  /// The messages that a side sends, or those that it receives, in the order of the file.
  std::vector<const Message*> sentBy(std::size_t side) const;
  std::vector<const Message*> receivedBy(std::size_t side) const;

 private:
  std::vector<std::string> numbered(const std::set<std::string>& sorted) const;
  std::set<std::string> fieldNames() const;
};

/// The field of a response that says why a call was refused. No field of a catalogue has this name.
inline constexpr const char* kRefusalField = "_refused";

/// The class of a side. Its files are called the same in lower case.
std::string className(const Catalogue& catalogue, const Side& side);
std::string lowerCase(std::string text);

/// Whether a name of the tag table keeps a number from fields.
bool isPlaceholder(const std::string& tagName);

/// The same messages sorted by name: a message table, in which the index is the message's number.
std::vector<const Message*> sortedByName(std::vector<const Message*> messages);

}  // namespace stpc
