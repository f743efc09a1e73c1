#include "tools/stpc/catalogue.h"

#include <algorithm>
#include <set>

#include "stp_transport/wire/stp_wire.h"

namespace stpc {
namespace {

// In the order of Scalar.
constexpr std::array<ScalarSpelling, 8> kScalars = {{
    {"u1", "bool", "std::uint8_t", "false", "putU8"},
    {"u2", "std::uint16_t", "std::uint16_t", "0", "putU16"},
    {"u4", "std::int32_t", "std::int32_t", "0", "putU32"},
    {"u8", "std::uint64_t", "std::uint64_t", "0", "putU64"},
    {"f4", "float", "float", "0", "putF32"},
    {"f8", "double", "double", "0", "putF64"},
    {"str", "const char*", "const char*", "nullptr", "putString"},
    {"fn", "const char*", "const char*", "nullptr", "putString"},
}};

// Sorts behind the name in front of it and before every other.
constexpr char kPlaceholderEnd = '!';

void collectNames(const std::vector<Field>& fields, std::set<std::string>& names) {
  for (const Field& field : fields) {
    names.insert(field.name);
    collectNames(field.fields, names);
  }
}

bool hasPointerArray(const std::vector<Field>& fields) {
  return std::any_of(fields.begin(), fields.end(), [](const Field& field) {
    return field.kind == Field::Kind::pointerArray || hasPointerArray(field.fields);
  });
}

}  // namespace

const ScalarSpelling& spelling(Scalar scalar) {
  return kScalars[static_cast<std::size_t>(scalar)];
}

bool Field::isArrayBlock() const {
  return kind == Kind::block && fields.size() == 2 && fields[0].isCount();
}

const Field* Field::list() const {
  if (isArray()) return this;
  return isArrayBlock() ? &fields[1] : nullptr;
}

std::set<std::string> Catalogue::fieldNames() const {
  std::set<std::string> names;
  for (const Message& message : messages) {
    collectNames(message.fields, names);
    collectNames(message.reply, names);
  }
  return names;
}

std::vector<std::string> Catalogue::tagNames() const {
  return numbered(fieldNames());
}

std::vector<std::string> Catalogue::tagNamesWithRefusal() const {
  std::set<std::string> names = fieldNames();
  if (std::any_of(messages.begin(), messages.end(), [](const Message& m) { return m.twoWay; }))
    names.insert(kRefusalField);
  return numbered(names);
}

std::vector<std::string> Catalogue::numbered(const std::set<std::string>& sorted) const {
  std::vector<std::string> names(sorted.begin(), sorted.end());
  const bool keepsNumbers =
      !dense && std::any_of(messages.begin(), messages.end(),
                            [](const Message& message) { return hasPointerArray(message.fields); });
  if (!keepsNumbers) return names;
  for (const auto kept : {STP_TAG_ARRAY_COUNT, STP_TAG_ARRAY_ELEMENT}) {
    const auto number = static_cast<std::size_t>(kept);
    if (number >= names.size()) break;
    const std::string placeholder = names[number - 1] + kPlaceholderEnd;
    names.insert(names.begin() + kept, placeholder);
  }
  return names;
}

std::string className(const Catalogue& catalogue, const Side& side) {
  return catalogue.specName + "_" + side.name + "_Impl";
}

std::string lowerCase(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool isPlaceholder(const std::string& tagName) {
  return tagName.back() == kPlaceholderEnd;
}

std::vector<const Message*> Catalogue::sentBy(std::size_t side) const {
  std::vector<const Message*> sent;
  for (const Message& message : messages)
    if (message.sender == side) sent.push_back(&message);
  return sent;
}

std::vector<const Message*> Catalogue::receivedBy(std::size_t side) const {
  return sentBy(1 - side);
}

std::vector<const Message*> sortedByName(std::vector<const Message*> messages) {
  std::sort(messages.begin(), messages.end(),
            [](const Message* a, const Message* b) { return a->name < b->name; });
  return messages;
}

}  // namespace stpc
