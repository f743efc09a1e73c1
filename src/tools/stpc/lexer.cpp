#include "tools/stpc/lexer.h"

#include <charconv>

namespace stpc {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isWordCharacter(char c) {
  return isLetter(c) || isDigit(c) || c == '_' || c == '-';
}

// A decimal number, or a hexadecimal one behind "0x".
bool readNumber(std::string_view text, std::uint32_t& value) {
  const bool hex = text.starts_with("0x");
  if (hex) text.remove_prefix(2);
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, value, hex ? 16 : 10);
  return stop == end && failure == std::errc();
}

}  // namespace

void Lexer::step() {
  if (source_[offset_++] == '\n') {
    ++at_.line;
    at_.column = 1;
  } else {
    ++at_.column;
  }
}

void Lexer::skipBlanks() {
  doc_.clear();
  while (!atEnd()) {
    const char c = source_[offset_];
    if (c == '#') {
      takeComment(lineIsEmpty_);
    } else if (c == '\n') {
      if (lineIsEmpty_) doc_.clear();
      lineIsEmpty_ = true;
      step();
    } else if (c == ' ' || c == '\t' || c == '\r') {
      step();
    } else {
      break;
    }
  }
  lineIsEmpty_ = false;
}

// A comment behind something else on its line is nobody's doc.
void Lexer::takeComment(bool isLineOfItsOwn) {
  step();
  std::string_view text = takeWhile([](char c) { return c != '\n'; });
  if (text.starts_with(' ')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) text.remove_suffix(1);
  if (isLineOfItsOwn) doc_.append(doc_.empty() ? "" : "\n").append(text);
  lineIsEmpty_ = false;
}

std::string_view Lexer::takeWhile(bool (*belongs)(char)) {
  const std::size_t start = offset_;
  while (!atEnd() && belongs(source_[offset_])) step();
  return source_.substr(start, offset_ - start);
}

Token Lexer::takeText(Token token) {
  step();
  token.text = takeWhile([](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
  if (!atEnd() && source_[offset_] == '"') {
    token.kind = Token::Kind::text;
    step();
    return token;
  }
  const bool lineEnds = atEnd() || source_[offset_] == '\n' || source_[offset_] == '\r';
  if (!lineEnds) token.at = at_;
  token.kind = Token::Kind::bad;
  token.text = lineEnds ? "the text has no closing quote" : "this character can't stand in a text";
  return token;
}

Token Lexer::next() {
  skipBlanks();
  Token token;
  token.at = at_;
  token.doc = doc_;
  if (atEnd()) return token;
  const char c = source_[offset_];
  if (c == '"') return takeText(std::move(token));
  if (c == '{' || c == '}') {
    token.kind = c == '{' ? Token::Kind::open : Token::Kind::close;
    token.text = c;
    step();
    return token;
  }
  token.text = takeWhile(isWordCharacter);
  if (isLetter(c) || c == '_') {
    token.kind = Token::Kind::word;
  } else if (isDigit(c)) {
    const bool good = readNumber(token.text, token.value);
    token.kind = good ? Token::Kind::number : Token::Kind::bad;
    if (!good) token.text = "\"" + token.text + "\" is no number of 32 bits";
  } else {
    token.kind = Token::Kind::bad;
    token.text = "this character has no meaning here";
  }
  return token;
}

}  // namespace stpc
