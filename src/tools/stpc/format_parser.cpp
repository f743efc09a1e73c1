#include "tools/stpc/format_parser.h"

#include "tools/stpc/names.h"

namespace stpc {
namespace {

constexpr int kDeepest = 16;

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

class FormatParser {
 public:
  explicit FormatParser(const FormatText& format) : format_(format), rest_(format.text) {}

  ParsedFormat parse() {
    if (parseFields(result_.fields, 0) && !rest_.empty() && parseMarker() &&
        parseFields(result_.reply, 0) && !rest_.empty())
      fail("a second reply marker");
    if (good()) checkReply();
    return std::move(result_);
  }

 private:
  bool good() const { return result_.error.text.empty(); }
  Position at() const { return format_.places[format_.text.size() - rest_.size()]; }
  bool fail(std::string text) { return fail(at(), std::move(text)); }
  bool fail(Position at, std::string text) {
    result_.error = {at, std::move(text)};
    return false;
  }
  bool take(std::string_view text) {
    if (!rest_.starts_with(text)) return false;
    rest_.remove_prefix(text.size());
    return true;
  }
  bool expect(std::string_view text, std::string_view behind) {
    if (take(text)) return true;
    return fail((text == " " ? std::string("a blank") : quoted(text)) + " is missing behind " +
                quoted(behind));
  }

  std::string takeName() {
    std::size_t length = 0;
    while (length < rest_.size() && isNameCharacter(rest_[length])) ++length;
    std::string name(rest_.substr(0, length));
    rest_.remove_prefix(length);
    return name;
  }

  bool parseMarker() {
    result_.hasReply = true;
    result_.marker = at();
    return take("| ") || fail("the reply marker is a \"|\" and a blank");
  }

  // Fields up to the end of the level: of a block at its brace, else at a marker or the end.
  bool parseFields(std::vector<Field>& fields, int depth) {
    while (!rest_.empty() && rest_.front() != '}' && rest_.front() != '|') {
      Field field;
      field.at = at();
      field.name = takeName();
      if (field.name.empty()) return fail("a field's name was expected");
      if (const std::string fault = nameFault(field.name); !fault.empty())
        return fail(field.at, fault);
      if (isKnown(fields, field.name) || (depth == 0 && isKnown(result_.fields, field.name)))
        return fail(field.at, "a second field " + quoted(field.name));
      if (!expect(":", field.name) || !parseValue(field, fields, depth) || !expect(" ", field.name))
        return false;
      fields.push_back(std::move(field));
    }
    if (depth == 0 && !rest_.empty() && rest_.front() == '}')
      return fail("a \"}\" without a block");
    return true;
  }

  static bool isKnown(const std::vector<Field>& fields, std::string_view name) {
    for (const Field& field : fields)
      if (field.name == name) return true;
    return false;
  }

  bool parseValue(Field& field, std::vector<Field>& before, int depth) {
    if (rest_.starts_with('{')) return parseBlock(field, depth);
    if (take("*(")) {
      field.kind = Field::Kind::pointerArray;
      return parseCount(field, before) && expect(")[", before[field.counterpart].name) &&
             parseScalar(field.scalar) && expect("]", field.name);
    }
    if (take("%dar%(")) {
      field.kind = Field::Kind::dynamicArray;
      if (!parseCount(field, before) || !expect(", ", before[field.counterpart].name)) return false;
      const Position place = at();
      if (!parseScalar(field.scalar)) return false;
      if (isText(field.scalar)) return fail(place, "a dynamic array holds numbers only");
      return expect(")", field.name);
    }
    return parseScalar(field.scalar);
  }

  bool parseBlock(Field& field, int depth) {
    const Position brace = at();
    take("{");
    field.kind = Field::Kind::block;
    if (depth == kDeepest) return fail(brace, "blocks are nested too deeply");
    if (!parseFields(field.fields, depth + 1)) return false;
    if (rest_.starts_with('|')) return fail("the reply marker can't stand in a block");
    if (!take("}")) return fail(brace, "the block " + quoted(field.name) + " isn't closed");
    return !field.fields.empty() || fail(brace, "the block " + quoted(field.name) + " is empty");
  }

  // The name of the count field, which stands before the array and counts no other one.
  bool parseCount(Field& field, std::vector<Field>& before) {
    const Position place = at();
    const std::string name = takeName();
    for (std::size_t i = 0; i < before.size(); ++i) {
      Field& count = before[i];
      if (count.name != name) continue;
      if (count.kind != Field::Kind::scalar || count.scalar != Scalar::u4)
        return fail(place, "the count field " + quoted(name) + " is no %u4%");
      if (count.isCount())
        return fail(place, "the field " + quoted(name) + " counts another array already");
      field.counterpart = i;
      count.counterpart = before.size();
      return true;
    }
    return fail(place, name.empty()
                           ? "the name of a count field was expected"
                           : "there is no count field " + quoted(name) + " before the array");
  }

  bool parseScalar(Scalar& scalar) {
    const Position place = at();
    for (const Scalar known : {Scalar::u1, Scalar::u2, Scalar::u4, Scalar::u8, Scalar::f4,
                               Scalar::f8, Scalar::str, Scalar::fn}) {
      if (!take("%" + std::string(spelling(known).name) + "%")) continue;
      scalar = known;
      return true;
    }
    if (!take("%")) return fail("a value was expected, such as %u4% or %str%");
    return fail(place, "unknown type " + quoted("%" + takeName() + "%"));
  }

  void checkReply() {
    for (const Field& field : result_.reply)
      if (field.kind != Field::Kind::scalar) {
        fail(field.at, "a reply carries numbers and texts only");
        return;
      }
  }

  const FormatText& format_;
  std::string_view rest_;
  ParsedFormat result_;
};

}  // namespace

ParsedFormat parseFormat(const FormatText& format) {
  return FormatParser(format).parse();
}

}  // namespace stpc
