// Messages in binary form: every kind of field, versions of an interface, and damaged input.
#include <cmath>
#include <limits>

#include "vectors/vector_side.h"

namespace vectors {
namespace {

using stpc::Field;

constexpr const char* kVersion1 = "languages/vectors/vectors.stp";
constexpr const char* kVersion2 = "languages/vectors/vectors_2.stp";

const stpc::Message& messageOf(const stpc::Catalogue& catalogue, const std::string& name) {
  for (const stpc::Message& message : catalogue.messages)
    if (message.name == name) return message;
  std::abort();
}

const Json kScalars = {{"bit", false},    {"half", 0},     {"word", 0},  {"wide", u8(0)},
                       {"single", f4(0)}, {"real", f8(0)}, {"text", ""}, {"path", "/"}};
const Json kPointers = {{"halves", Json::array()}, {"words", Json::array()},
                        {"wides", Json::array()},  {"singles", Json::array()},
                        {"reals", Json::array()},  {"names", Json::array()},
                        {"paths", Json::array()}};
const Json kPacked = {{"bytes", Json::array()},   {"halves", Json::array()},
                      {"words", Json::array()},   {"wides", Json::array()},
                      {"singles", Json::array()}, {"reals", Json::array()}};
const Json kLoose = {
    {"texts", {"a", "bc"}}, {"numbers", {7, 8, -9}}, {"mark", 3}, {"note", "text"}, {"last", 4}};
const Json kNested = {
    {"outer",
     {{"word", -2},
      {"inner", {{"text", "in"}, {"deep", {{"real", f8(0.5)}, {"bit", true}}}, {"half", 3}}}}},
    {"last", 4}};

Json with(Json value, const char* field, const Json& other) {
  value[field] = other;
  return value;
}

// Cases of messages between sides of version 1.
class MessageCases {
 public:
  // What version 1 writes for a value, and reads from it.
  void write(const std::string& name, const std::string& message, const Json& value) {
    add(name, message, writePayload(fieldsOf(message), value, names_), value)["writes"] = true;
  }
  // What is read from a payload of a sender with version 1's names, or with others.
  Json& add(const std::string& name, const std::string& message, const std::string& payload,
            const Json& value, const std::vector<std::string>& tags = {}) {
    cases.push_back({{"name", name},
                     {"verdict", "value"},
                     {"message", message},
                     {"payload", toHex(payload)},
                     {"value", value}});
    if (!tags.empty()) cases.back()["tags"] = tags;
    return cases.back();
  }
  // The same with the value that the library reads.
  void read(const std::string& name, const std::string& message, const std::string& payload) {
    const auto side = VectorSide::make(catalogue_, "right");
    side->take(recordOf(names_));
    add(name, message, payload, readPayload(fieldsOf(message), payload, side->names()));
  }
  std::string bytes(const std::string& message, const Json& value) const {
    return writePayload(messageOf(catalogue_, message).fields, value, names_);
  }
  // The word in front of a field.
  std::uint32_t word(const std::string& field, std::uint32_t kind) const {
    const hublinkctl::FieldNames names{names_, {}, {}};
    return static_cast<std::uint32_t>(names.number(field)) << STP_FIELD_TAG_SHIFT | kind;
  }
  const std::vector<Field>& fieldsOf(const std::string& message) const {
    return messageOf(catalogue_, message).fields;
  }

  Json cases = Json::array();

 private:
  stpc::Catalogue catalogue_ = readCatalogue(kVersion1);
  std::vector<std::string> names_ = catalogue_.tagNamesWithRefusal();
};

void addScalars(MessageCases& to) {
  const auto scalar = [&](const std::string& name, const char* field, const Json& value) {
    to.write(std::string(field) + ": " + name, "Scalars", with(kScalars, field, value));
  };
  to.write("all zero", "Scalars", kScalars);
  scalar("true", "bit", true);
  scalar("the greatest", "half", 0xFFFF);
  scalar("the greatest", "word", std::numeric_limits<std::int32_t>::max());
  scalar("the least", "word", std::numeric_limits<std::int32_t>::min());
  scalar("-1", "word", -1);
  scalar("the greatest", "wide", u8(UINT64_MAX));
  scalar("both halves", "wide", u8(0x0123456789ABCDEF));
  scalar("beyond what a double holds", "wide", u8((1ULL << 53) + 1));
  for (const auto& [name, value] : {std::pair{"1.5", 1.5F},
                                    {"-0", -0.0F},
                                    {"the least above 0", 1e-45F},
                                    {"a third", 1.0F / 3},
                                    {"the greatest", std::numeric_limits<float>::max()},
                                    {"no number", std::numeric_limits<float>::quiet_NaN()}})
    scalar(name, "single", f4(value));
  for (const auto& [name, value] : {std::pair{"-2.25", -2.25},
                                    {"-0", -0.0},
                                    {"the least above 0", 5e-324},
                                    {"a third", 1.0 / 3},
                                    {"the greatest", std::numeric_limits<double>::max()},
                                    {"no number", std::numeric_limits<double>::quiet_NaN()}})
    scalar(name, "real", f8(value));
  for (const auto& [name, value] : {std::pair{"one letter", "a"},
                                    {"three letters", "abc"},
                                    {"four letters", "abcd"},
                                    {"quotes, a backslash and a line end", "say \"hi\" \\ \n\r\t"},
                                    {"UTF-8", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"},
                                    {"blanks", "  "}})
    scalar(name, "text", value);
  scalar("200 letters", "text", std::string(200, 'x'));
  scalar("an absolute name", "path", "/dir with blank/\xC3\xA4.txt");
  // The command line's encoder takes no infinite number.
  for (const double sign : {1.0, -1.0}) {
    const auto infinite = sign * std::numeric_limits<double>::infinity();
    Json value = with(kScalars, "single", f4(static_cast<float>(infinite)));
    value["real"] = f8(infinite);
    STPMessage message;
    message.putU8(static_cast<std::int32_t>(to.word("bit", 0) >> STP_FIELD_TAG_SHIFT), 0);
    const auto tag = [&](const char* field) {
      return static_cast<std::int32_t>(to.word(field, 0) >> STP_FIELD_TAG_SHIFT);
    };
    message.putU16(tag("half"), 0);
    message.putU32(tag("word"), 0);
    message.putU64(tag("wide"), 0);
    message.putF32(tag("single"), static_cast<float>(infinite));
    message.putF64(tag("real"), infinite);
    message.putString(tag("text"), "");
    message.putString(tag("path"), "/");
    message.finishMessage(1);
    to.add(sign > 0 ? "infinite" : "infinite below 0", "Scalars",
           {reinterpret_cast<const char*>(message.storage()) + STP_HEADER_SIZE,
            static_cast<std::size_t>(message.header.payloadSize)},
           value)["writes"] = true;
  }
  Json nulls = with(kScalars, "text", nullptr);
  nulls["path"] = nullptr;
  to.add("null texts", "Scalars", to.bytes("Scalars", nulls), nulls);
}

void addStructures(MessageCases& to) {
  to.write("blocks in blocks", "Nested", kNested);
  const Json nothing = {{"remark", nullptr}, {"names", {"", nullptr, "a"}}, {"text", ""}};
  to.write("texts that may be null", "Nullable", nothing);
  to.write("no fields", "Old", Json::object());
  to.write("arrays of fields, empty", "Pointers", kPointers);
  Json pointers = kPointers;
  pointers["halves"] = {0, 0xFFFF, 1};
  pointers["words"] = {-1, std::numeric_limits<std::int32_t>::min(), 7};
  pointers["wides"] = {u8(UINT64_MAX), u8(0)};
  pointers["singles"] = {f4(0.5F), f4(-3)};
  pointers["reals"] = {f8(-0.0), f8(1e300)};
  pointers["names"] = {"", "a", "abc", "\xE2\x82\xAC"};
  pointers["paths"] = {"/a", "/b/c"};
  to.write("arrays of fields", "Pointers", pointers);
  const Json nulls = with(kPointers, "names", {nullptr, "", nullptr});
  to.add("null texts in an array", "Pointers", to.bytes("Pointers", nulls), nulls);
  to.write("arrays of numbers, empty", "Packed", kPacked);
  Json packed = kPacked;
  packed["bytes"] = {0, 1, 2, 127, 128, 255, 0};
  packed["halves"] = {0xFFFF, 1, 0};
  packed["words"] = {-1, std::numeric_limits<std::int32_t>::min(), 7};
  packed["wides"] = {u8(1), u8(UINT64_MAX)};
  packed["singles"] = {f4(0.5F), f4(std::numeric_limits<float>::quiet_NaN()), f4(-0.0F)};
  packed["reals"] = {f8(1e-300), f8(std::numeric_limits<double>::quiet_NaN())};
  to.write("arrays of numbers", "Packed", packed);
  to.write("two arrays among other fields", "Loose", kLoose);
  Json empty = with(kLoose, "texts", Json::array());
  empty["numbers"] = Json::array();
  to.write("two empty arrays among other fields", "Loose", empty);
}

// Senders of another version or another system: other names with other numbers, other orders,
// fields that nobody knows, and numbers 22 and 23 that are fields and parts of arrays at once.
void addForeign(MessageCases& to) {
  std::vector<std::string> tags = {"a0", "a1", "a2", "a3", "a4", "amount", "count", "last"};
  while (tags.size() < 22)
    tags.push_back("la" + std::string(1, static_cast<char>(tags.size() + 'a')));
  tags.insert(tags.end(), {"mark", "note", "numbers", "texts", "unknown", "unknown2"});
  const Json zero = {{"texts", Json::array()},
                     {"numbers", Json::array()},
                     {"mark", 0},
                     {"note", nullptr},
                     {"last", 0}};
  const auto tag = [&](const char* name) {
    return static_cast<std::int32_t>(std::find(tags.begin(), tags.end(), name) - tags.begin());
  };
  for (const bool hasArrays : {true, false})
    for (const bool isReordered : {false, true})
      for (const bool hasUnknown : {false, true}) {
        STPMessage message;
        std::int64_t mark;
        const auto putNumbers = [&] {
          message.putU32(tag("amount"), 3);
          message.putU32(STP_TAG_ARRAY_COUNT, 3);
          for (const int number : {7, 8, -9})
            message.putU32(STP_TAG_ARRAY_ELEMENT, static_cast<std::uint32_t>(number));
        };
        if (hasUnknown) message.putU32(tag("unknown"), 1);
        if (hasArrays && isReordered) putNumbers();
        if (hasArrays || hasUnknown) message.putU32(tag("count"), 2);  // or a mere number
        if (hasUnknown) {
          message.beginStruct(tag("unknown2"), mark);
          message.putU32(tag("last"), 99);
          message.endStruct(mark);
        }
        if (hasArrays) {
          message.putU32(STP_TAG_ARRAY_COUNT, 2);
          message.putString(STP_TAG_ARRAY_ELEMENT, "a");
          message.putString(STP_TAG_ARRAY_ELEMENT, "bc");
        }
        if (hasArrays && !isReordered) putNumbers();
        message.putU32(tag("mark"), 3);
        message.putString(tag("note"), "text");
        message.putU32(tag("last"), 4);
        message.finishMessage(1);
        Json value = kLoose;
        if (!hasArrays) value["texts"] = value["numbers"] = Json::array();
        to.add(std::string("numbers without a gap") + (hasArrays ? "" : ", no arrays") +
                   (isReordered ? ", another order" : "") + (hasUnknown ? ", unknown fields" : ""),
               "Loose",
               {reinterpret_cast<const char*>(message.storage()) + STP_HEADER_SIZE,
                static_cast<std::size_t>(message.header.payloadSize)},
               value, tags);
      }
  STPMessage reversed;
  std::vector<std::string> few = {"bit", "half", "other", "text", "word"};
  reversed.putU32(4, 5);
  reversed.putString(3, "t");
  reversed.putString(2, "nobody knows");
  reversed.putU16(1, 6);
  reversed.putU8(0, 1);
  reversed.finishMessage(1);
  Json value = {{"bit", true},     {"half", 6},     {"word", 5},   {"wide", u8(0)},
                {"single", f4(0)}, {"real", f8(0)}, {"text", "t"}, {"path", nullptr}};
  to.add("some fields, the last one first", "Scalars",
         {reinterpret_cast<const char*>(reversed.storage()) + STP_HEADER_SIZE,
          static_cast<std::size_t>(reversed.header.payloadSize)},
         value, few);
  to.add("no field at all", "Loose", wordsOf({0}), zero);
}

}  // namespace

Json makeFields() {
  MessageCases to;
  addScalars(to);
  addStructures(to);
  addForeign(to);
  return to.cases;
}

Json makeMalformed() {
  MessageCases to;
  const Json zero = {{"bit", false},    {"half", 0},     {"word", 0},       {"wide", u8(0)},
                     {"single", f4(0)}, {"real", f8(0)}, {"text", nullptr}, {"path", nullptr}};
  const auto scalars = [&](const std::string& name, const std::vector<std::uint32_t>& words,
                           const char* field = nullptr, const Json& value = {}) {
    to.add(name, "Scalars", wordsOf(words), field ? with(zero, field, value) : zero);
  };
  const std::uint32_t word = to.word("word", STP_FIELD_U32),
                      text = to.word("text", STP_FIELD_STRING);
  const auto anyWord = [&](std::uint32_t kind) { return to.word("word", kind); };
  to.add("an empty payload", "Scalars", "", zero);
  scalars("no zero word at the end", {word, 5}, "word", 5);
  scalars("a field behind the zero word", {0, word, 5});
  scalars("a field twice", {word, 5, word, 6, 0}, "word", 5);
  scalars("a size in a word of its own", {anyWord(0x20), 4, 5, 0}, "word", 5);
  scalars("a size of 4 that says 1", {anyWord(0x20), 1, 5, 0});
  scalars("one byte where four are wanted", {anyWord(STP_FIELD_U8), 5, 0});
  scalars("two bytes where four are wanted", {anyWord(STP_FIELD_U16), 5, 0});
  scalars("four bytes where one is wanted", {to.word("bit", STP_FIELD_U32), 1, 0}, "bit", true);
  scalars("a boolean of 2", {to.word("bit", STP_FIELD_U8), 2, 0}, "bit", true);
  scalars("something in a gap", {to.word("bit", STP_FIELD_U8), 0xFFFFFF00, word, 5, 0}, "word", 5);
  scalars("four bytes where eight are wanted", {to.word("wide", STP_FIELD_U32), 5, 0}, "wide",
          u8(5ULL << 32));
  scalars("a number that is cut off", {word});
  scalars("a length that is cut off", {text});
  scalars("a text without its zero", {text, 4, 0x64636261, 0}, "text", "abcd");
  scalars("a text with a zero in it", {text, 6, 0x63006261, 0x64, 0}, "text", "ab");
  scalars("a text that claims too much", {text, 100, 0x636261, 0});
  scalars("a text that claims 4 GiB", {text, 0xFFFFFFF0, 0x636261, 0});
  scalars("what stands behind such a text", {text, 0xFFFFFFF0, word, 5, 0});
  scalars("an unknown field that claims too much", {0xFFFF50, 0xFFFFFFF0, word, 5, 0});
  scalars("an unknown class", {to.word("other", 0) | 0x7A, 1, 2, 3, word, 5, 0}, "word", 5);

  const auto packed = [&](const std::string& name, std::vector<std::uint32_t> inside,
                          const char* field, const Json& value) {
    std::vector<std::uint32_t> words = {to.word(field, STP_FIELD_STRUCT),
                                        static_cast<std::uint32_t>(inside.size() * 4)};
    words.insert(words.end(), inside.begin(), inside.end());
    words.push_back(0);
    to.add(name, "Packed", wordsOf(words), with(kPacked, field, value));
  };
  const std::uint32_t count = to.word("count", STP_FIELD_U32),
                      data = to.word("data", STP_FIELD_ARRAY);
  packed("more numbers announced than there are", {count, 9, data, 12, 9, 1, 2}, "words", {1, 2});
  packed("2^31 - 1 numbers announced", {count, 0x7FFFFFFF, data, 12, 0x7FFFFFFF, 1, 2}, "words",
         {1, 2});
  packed("2^32 - 1 numbers announced", {count, 0xFFFFFFFF, data, 12, 0xFFFFFFFF, 1, 2}, "words",
         {1, 2});
  packed("fewer in the count than in the array", {count, 1, data, 12, 2, 1, 2}, "words", {1});
  packed("fewer in the array than in the count", {count, 2, data, 12, 1, 1, 2}, "words", {1});
  packed("an array without its count", {data, 12, 2, 1, 2}, "words", Json::array());
  packed("an array without numbers", {count, 2, data, 0}, "words", Json::array());
  packed("half a number", {count, 2, data, 14, 2, 0, 1, 0xFFFF}, "wides", Json::array({u8(1)}));
  packed("an odd number of bytes", {count, 2, data, 7, 2, 0x030201}, "halves", {0x0201});
  packed("an array that claims 4 GiB", {count, 2, data, 0xFFFFFFF0, 2, 1, 2}, "words", {1, 2});
  to.add("a block that claims 4 GiB", "Packed",
         wordsOf({to.word("words", STP_FIELD_STRUCT), 0xFFFFFFF0, count, 2, data, 12, 2, 1, 2, 0}),
         with(kPacked, "words", {1, 2}));
  to.add("a block that ends within its array", "Packed",
         wordsOf({to.word("words", STP_FIELD_STRUCT), 24, count, 2, data, 12, 2, 1, 2, 0}),
         with(kPacked, "words", {1}));

  Json loose = {{"texts", Json::array()},
                {"numbers", Json::array()},
                {"mark", 0},
                {"note", nullptr},
                {"last", 0}};
  const auto numbers = [&](const std::string& name, const std::vector<std::uint32_t>& words,
                           const Json& value, int last = 0) {
    Json expected = with(loose, "numbers", value);
    expected["last"] = last;
    to.add(name, "Loose", wordsOf(words), expected);
  };
  const std::uint32_t amount = to.word("amount", STP_FIELD_U32);
  constexpr std::uint32_t kCount = STP_TAG_ARRAY_COUNT << STP_FIELD_TAG_SHIFT | STP_FIELD_U32;
  constexpr std::uint32_t kElement = STP_TAG_ARRAY_ELEMENT << STP_FIELD_TAG_SHIFT | STP_FIELD_U32;
  const std::uint32_t last = to.word("last", STP_FIELD_U32);
  numbers("fewer elements than announced", {amount, 3, kCount, 3, kElement, 7, last, 4, 0}, {7}, 4);
  numbers("2^31 elements announced", {amount, 0x80000000, kCount, 0x80000000, kElement, 7, 0}, {7});
  numbers("a lesser count in front", {amount, 1, kCount, 2, kElement, 7, kElement, 8, 0}, {7});
  numbers("a greater count in front", {amount, 9, kCount, 2, kElement, 7, kElement, 8, 0}, {7, 8});
  numbers("elements without their count", {kCount, 1, kElement, 7, last, 4, 0}, Json::array(), 4);
  numbers("a count without its elements", {amount, 2, last, 4, 0}, Json::array(), 4);

  // What any packet says up to a byte that is the last.
  const std::string whole = to.bytes("Loose", kLoose);
  for (std::size_t size = 4; size < whole.size(); size += 3)
    to.read("cut off behind " + std::to_string(size) + " bytes", "Loose", whole.substr(0, size));
  const std::string nested = to.bytes("Nested", kNested);
  for (std::size_t size = 4; size < nested.size(); size += 5)
    to.read("blocks cut off behind " + std::to_string(size) + " bytes", "Nested",
            nested.substr(0, size));
  return to.cases;
}

Json makeVersions() {
  Json cases = Json::array();
  const auto add = [&](const std::string& name, int writer, const std::string& message,
                       const Json& given, const Json& value, bool isReply = false) {
    const stpc::Catalogue from = readCatalogue(writer == 1 ? kVersion1 : kVersion2);
    const stpc::Message& written = messageOf(from, message);
    const std::string payload =
        writePayload(isReply ? written.reply : written.fields, given, from.tagNamesWithRefusal());
    cases.push_back({{"name", name},
                     {"verdict", "value"},
                     {"writer", writer},
                     {"reader", 3 - writer},
                     {"message", message},
                     {"part", isReply ? "reply" : "message"},
                     {"payload", toHex(payload)},
                     {"given", given},
                     {"value", value}});
  };
  Json scalars = kScalars;
  scalars.update(
      {{"bit", true}, {"half", 2}, {"word", 3}, {"wide", u8(4)}, {"real", f8(0.5)}, {"text", "t"}});
  add("fields that have gone and come", 1, "Scalars", scalars,
      {{"wide", u8(4)}, {"added", nullptr}, {"text", "t"}, {"bit", true}, {"real", f8(0.5)}});
  add("fields that will go and come", 2, "Scalars",
      {{"wide", u8(4)}, {"added", "new"}, {"text", "t"}, {"bit", true}, {"real", f8(0.5)}},
      {{"bit", true},
       {"half", 0},
       {"word", 0},
       {"wide", u8(4)},
       {"single", f4(0)},
       {"real", f8(0.5)},
       {"text", "t"},
       {"path", nullptr}});
  add("blocks that have grown", 1, "Nested", kNested,
      {{"last", 4},
       {"added", u8(0)},
       {"outer",
        {{"added", nullptr},
         {"inner",
          {{"half", 3},
           {"deep", {{"bit", true}, {"wide", u8(0)}, {"real", f8(0.5)}}},
           {"names", Json::array()}}},
         {"word", -2}}}});
  add("blocks that will grow", 2, "Nested",
      {{"last", 4},
       {"added", u8(9)},
       {"outer",
        {{"added", "x"},
         {"inner",
          {{"half", 3},
           {"deep", {{"bit", true}, {"wide", u8(8)}, {"real", f8(0.5)}}},
           {"names", {"a", "b"}}}},
         {"word", -2}}}},
      with(kNested, "outer",
           {{"word", -2},
            {"inner",
             {{"text", nullptr}, {"deep", {{"real", f8(0.5)}, {"bit", true}}}, {"half", 3}}}}));
  add("arrays in another order", 1, "Loose", kLoose,
      {{"mark", 3},
       {"added", nullptr},
       {"numbers", {7, 8, -9}},
       {"bit", false},
       {"texts", {"a", "bc"}},
       {"last", 4}});
  add("arrays with a field in front of the elements", 2, "Loose",
      {{"mark", 3},
       {"added", "new"},
       {"numbers", {7, 8, -9}},
       {"bit", true},
       {"texts", {"a", "bc"}},
       {"last", 4}},
      with(kLoose, "note", nullptr));
  add("a call", 1, "Ask", {{"question", "why"}, {"word", 3}},
      {{"urgency", 0}, {"question", "why"}});
  add("a call of the next version", 2, "Ask", {{"urgency", 5}, {"question", "why"}},
      {{"question", "why"}, {"word", 0}});
  add("its response", 2, "Ask", {{"text", "so"}, {"added", u8(7)}, {"number", -1}, {"bit", true}},
      {{"bit", true},
       {"half", 0},
       {"number", -1},
       {"wide", u8(0)},
       {"single", f4(0)},
       {"real", f8(0)},
       {"text", "so"},
       {"path", nullptr}},
      true);
  add("a response of the earlier version", 1, "Ask",
      {{"bit", true},
       {"half", 2},
       {"number", -1},
       {"wide", u8(3)},
       {"single", f4(4)},
       {"real", f8(5)},
       {"text", "so"},
       {"path", "/p"}},
      {{"text", "so"}, {"added", u8(0)}, {"number", -1}, {"bit", true}}, true);
  add("a response that has grown", 1, "Ping", Json::object(), {{"text", nullptr}}, true);
  add("a response that will grow", 2, "Ping", {{"text", "t"}}, Json::object(), true);
  // A refusal takes the place of the fields of a response. Who doesn't know it reads those as
  // missing.
  for (const char* text : {"not today", "", "\xE2\x82\xAC \"quoted\""}) {
    const stpc::Catalogue from = readCatalogue(kVersion1);
    const std::string payload =
        writePayload(refusalFields(), {{stpc::kRefusalField, text}}, from.tagNamesWithRefusal());
    cases.push_back(
        {{"name", "a refusal"},
         {"verdict", "refusal"},
         {"writer", 1},
         {"reader", 2},
         {"message", "Ask"},
         {"part", "reply"},
         {"payload", toHex(payload)},
         {"refusal", text},
         {"value", {{"text", nullptr}, {"added", u8(0)}, {"number", 0}, {"bit", false}}}});
  }
  return cases;
}

}  // namespace vectors
