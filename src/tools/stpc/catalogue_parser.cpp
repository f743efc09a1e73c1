#include "tools/stpc/catalogue_parser.h"

#include <map>

#include "stp_transport/wire/stp_wire.h"
#include "tools/stpc/format_parser.h"
#include "tools/stpc/lexer.h"
#include "tools/stpc/names.h"

namespace stpc {
namespace {

constexpr std::uint32_t kKindBits = STP_ENTRY_TWO_WAY | STP_ENTRY_ONE_WAY;
// Bits that have a meaning. Those that tell the kind are the same in an entry and in a packet.
constexpr std::uint32_t kEntryBits = kKindBits | STP_IN_CHAIN_ONLY | STP_ANY_TIME | STP_FOREGROUND;
constexpr std::uint32_t kPacketBits = STP_WANTS_RESPONSE | STP_ONE_WAY | STP_IN_CHAIN_ONLY |
                                      STP_ANY_TIME | STP_CARRIED | STP_HOLD_OTHERS;
static_assert(STP_WANTS_RESPONSE == STP_ENTRY_TWO_WAY && STP_ONE_WAY == STP_ENTRY_ONE_WAY);
constexpr std::uint32_t kLargestRN = 0x7FFFFFFF;

class CatalogueParser {
 public:
  CatalogueParser(std::string_view source, Catalogue& catalogue, Error& error)
      : lexer_(source), catalogue_(catalogue), error_(error) {
    advance();
  }

  bool parse() {
    while (token_.kind != Token::Kind::end)
      if (!parseStatement()) return false;
    if (catalogue_.specName.empty()) return fail("there is no \"spec\"");
    if (catalogue_.sides.size() < 2) return fail("a side is missing: a spec has two");
    if (catalogue_.messages.empty()) return fail("there are no messages");
    return checkTypeNames();
  }

 private:
  void advance() { token_ = lexer_.next(); }
  bool fail(std::string text) { return fail(token_.at, std::move(text)); }
  bool fail(Position at, std::string text) {
    error_ = {at, std::move(text)};
    return false;
  }
  // What stands here isn't what was expected.
  bool failExpected(std::string_view what) {
    if (token_.kind == Token::Kind::bad) return fail(token_.text);
    if (token_.kind == Token::Kind::end)
      return fail(std::string(what) + " was expected, not the end of the file");
    if (token_.kind == Token::Kind::word) return fail("unknown word " + quoted(token_.text));
    return fail(std::string(what) + " was expected, not " + quoted(token_.text));
  }
  bool isWord(std::string_view word) const {
    return token_.kind == Token::Kind::word && token_.text == word;
  }
  bool takeWord(std::string_view word) {
    if (!isWord(word)) return false;
    advance();
    return true;
  }
  bool expect(Token::Kind kind, std::string_view what) {
    if (token_.kind != kind) return failExpected(what);
    advance();
    return true;
  }
  bool takeName(std::string& name, std::string_view what) {
    if (token_.kind != Token::Kind::word) return failExpected(what);
    if (const std::string fault = nameFault(token_.text); !fault.empty()) return fail(fault);
    name = token_.text;
    advance();
    return true;
  }
  bool takeNumber(std::uint32_t& value, std::uint32_t least = 0, std::uint32_t most = UINT32_MAX) {
    if (token_.kind != Token::Kind::number) return failExpected("a number");
    if (token_.value < least || token_.value > most) return failRange("the number");
    value = token_.value;
    advance();
    return true;
  }
  bool failRange(std::string_view what) {
    return fail(std::string(what) + " " + token_.text + " is out of range");
  }

  bool parseStatement() {
    const std::string doc = token_.doc;
    if (takeWord("spec")) return parseSpec(doc);
    if (takeWord("side")) return parseSide(doc);
    if (takeWord("from")) return parseMessages();
    return failExpected("\"spec\", \"side\" or \"from\"");
  }

  bool parseSpec(const std::string& doc) {
    if (!catalogue_.specName.empty()) return fail("a second spec");
    catalogue_.doc = doc;
    if (!takeName(catalogue_.specName, "the spec's name")) return false;
    catalogue_.dense = takeWord("dense");
    return true;
  }

  bool parseSide(const std::string& doc) {
    if (catalogue_.sides.size() == 2) return fail("a third side: a spec has two");
    const bool isFirst = catalogue_.sides.empty();
    Side side;
    side.doc = doc;
    side.source = isFirst ? 1 : 2;
    side.destination = isFirst ? 2 : 1;
    const Position place = token_.at;
    if (!takeName(side.name, "the side's name")) return false;
    if (!isFirst && catalogue_.sides[0].name == side.name)
      return fail(place, "a second side " + quoted(side.name));
    if (!isFirst && lowerCase(catalogue_.sides[0].name) == lowerCase(side.name))
      return fail(place, "the files of both sides would have the same names");
    if (!expect(Token::Kind::open, "\"{\"")) return false;
    while (token_.kind != Token::Kind::close)
      if (!parseSetting(side)) return false;
    advance();
    catalogue_.sides.push_back(std::move(side));
    return true;
  }

  bool parseSetting(Side& side) {
    if (takeWord("flags")) return takeNumber(side.flags);
    if (takeWord("source")) return takeNumber(side.source, 1, kLargestRN);
    if (takeWord("destination")) return takeNumber(side.destination, 1, kLargestRN);
    if (!takeWord("vstamp")) return failExpected("a setting or \"}\"");
    side.vstamp = token_.text;
    return expect(Token::Kind::text, "a text");
  }

  bool takeSide(std::size_t& index) {
    const Token word = token_;
    std::string name;
    if (!takeName(name, "a side's name")) return false;
    for (index = 0; index < catalogue_.sides.size(); ++index)
      if (catalogue_.sides[index].name == name) return true;
    return fail(word.at, "there is no side " + quoted(name) + " above");
  }

  bool parseMessages() {
    std::size_t sender = 0;
    std::size_t receiver = 0;
    if (!takeSide(sender)) return false;
    if (!takeWord("to")) return failExpected("\"to\"");
    const Position place = token_.at;
    if (!takeSide(receiver)) return false;
    if (sender == receiver) return fail(place, "a side sends to the other side");
    if (!expect(Token::Kind::open, "\"{\"")) return false;
    while (token_.kind != Token::Kind::close)
      if (!parseMessage(sender)) return false;
    advance();
    return true;
  }

  bool parseMessage(std::size_t sender) {
    Message message;
    message.at = token_.at;
    message.doc = token_.doc;
    message.sender = sender;
    if (!takeName(message.name, "a message or \"}\"")) return false;
    if (const std::string fault = messageFault(message.name); !fault.empty())
      return fail(message.at, fault);
    for (const Message& other : catalogue_.messages)
      if (other.name == message.name)
        return fail(message.at, (other.sender == sender ? "a second message " + quoted(message.name)
                                                        : "the other direction has a message " +
                                                              quoted(message.name) + " too") +
                                    ": the first is in line " + std::to_string(other.at.line));
    std::vector<Token> nullable;
    if (!parseAttributes(message, nullable) || !parseMessageFormat(message)) return false;
    for (const Token& field : nullable)
      if (!makeNullable(message, field)) return false;
    catalogue_.messages.push_back(std::move(message));
    return true;
  }

  bool parseAttributes(Message& message, std::vector<Token>& nullable) {
    message.twoWay = takeWord("two-way");
    message.entryFlags = message.packetFlags =
        message.twoWay ? STP_ENTRY_TWO_WAY : STP_ENTRY_ONE_WAY;
    while (token_.kind == Token::Kind::word) {
      if (takeWord("entry")) {
        if (!takeFlags(message.entryFlags, kEntryBits, message.twoWay)) return false;
      } else if (takeWord("packet")) {
        if (!takeFlags(message.packetFlags, kPacketBits, message.twoWay)) return false;
      } else if (takeWord("nullable")) {
        nullable.push_back(token_);
        if (!expect(Token::Kind::word, "a field's name")) return false;
      } else {
        return failExpected("a format");
      }
    }
    return true;
  }

  bool makeNullable(Message& message, const Token& field) {
    bool isFound = makeNullable(message.fields, field.text);
    isFound = makeNullable(message.reply, field.text) || isFound;
    if (isFound) return true;
    return fail(field.at,
                quoted(message.name) + " has no text or texts called " + quoted(field.text));
  }
  // All fields of this name that are texts, in blocks too.
  static bool makeNullable(std::vector<Field>& fields, const std::string& name) {
    bool isFound = false;
    for (Field& field : fields) {
      Field& holder = field.isArrayBlock() ? field.fields[1] : field;
      if (field.name == name && holder.kind != Field::Kind::block && isText(holder.scalar)) {
        holder.isNullable = true;
        isFound = true;
      }
      if (!field.isArrayBlock() && makeNullable(field.fields, name)) isFound = true;
    }
    return isFound;
  }

  bool takeFlags(std::uint32_t& flags, std::uint32_t allowed, bool twoWay) {
    if (token_.kind != Token::Kind::number) return failExpected("a number");
    if (token_.value & ~allowed) return failRange("the value of flags");
    if ((token_.value & kKindBits) != (twoWay ? STP_ENTRY_TWO_WAY : STP_ENTRY_ONE_WAY))
      return fail(twoWay ? "the flags of a two-way message have 0x01 and not 0x02"
                         : "the flags of a one-way message have 0x02 and not 0x01");
    return takeNumber(flags);
  }

  bool parseMessageFormat(Message& message) {
    if (token_.kind != Token::Kind::text) return failExpected("a format");
    FormatText format;
    Position end;
    for (; token_.kind == Token::Kind::text; advance()) {
      format.text += token_.text;
      end = {token_.at.line, token_.at.column + 1};
      for (; format.places.size() < format.text.size(); ++end.column) format.places.push_back(end);
    }
    format.places.push_back(end);
    ParsedFormat parsed = parseFormat(format);
    if (!parsed.error.text.empty()) return fail(parsed.error.at, parsed.error.text);
    if (message.twoWay && !parsed.hasReply)
      return fail(message.at, "the two-way message " + quoted(message.name) +
                                  " has no reply marker in its format");
    if (!message.twoWay && parsed.hasReply)
      return fail(parsed.marker, "a reply marker in the one-way message " + quoted(message.name));
    message.format = std::move(format.text);
    message.fields = std::move(parsed.fields);
    message.reply = std::move(parsed.reply);
    return true;
  }

  // A block that isn't just an array becomes a type of the generated class, named after its place.
  bool checkTypeNames() {
    for (const Side& side : catalogue_.sides)
      names_.emplace(className(catalogue_, side), Position{});
    for (const Message& message : catalogue_.messages)
      if (!names_.emplace(message.name, message.at).second)
        return fail(message.at, quoted(message.name) + " is the class of a side");
    for (const Message& message : catalogue_.messages) {
      for (const auto* fields : {&message.fields, &message.reply})
        for (const Field& field : *fields)
          if (field.name == message.name) return fail(field.at, "a field named like its message");
      if (!addTypeNames(message.fields, message.name)) return false;
    }
    for (const Message& message : catalogue_.messages) names_.erase(message.name);
    for (const Message& message : catalogue_.messages)
      if (!checkFieldNames(message.fields) || !checkFieldNames(message.reply)) return false;
    return true;
  }
  bool checkFieldNames(const std::vector<Field>& fields) {
    for (const Field& field : fields) {
      if (names_.contains(field.name))
        return fail(field.at,
                    quoted(field.name) + " is the type of a block or the class of a side");
      if (!checkFieldNames(field.fields)) return false;
    }
    return true;
  }
  bool addTypeNames(const std::vector<Field>& fields, const std::string& outer) {
    for (const Field& field : fields) {
      if (field.kind != Field::Kind::block || field.isArrayBlock()) continue;
      const std::string name = outer + "_" + field.name;
      if (!names_.emplace(name, field.at).second)
        return fail(field.at,
                    "the type of the block would be " + quoted(name) + ", and that name is taken");
      if (!addTypeNames(field.fields, name)) return false;
    }
    return true;
  }

  Lexer lexer_;
  Token token_;
  Catalogue& catalogue_;
  Error& error_;
  std::map<std::string, Position> names_;
};

}  // namespace

bool parseCatalogue(std::string_view source, Catalogue& catalogue, Error& error) {
  return CatalogueParser(source, catalogue, error).parse();
}

}  // namespace stpc
