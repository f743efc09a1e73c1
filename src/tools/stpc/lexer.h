// Cuts a catalogue file into words, numbers, texts and braces. A `#` starts a comment that ends
// with its line; those on the lines directly above a token are its doc.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/stpc/catalogue.h"

namespace stpc {

struct Token {
  enum class Kind { word, number, text, open, close, end, bad };
  Kind kind = Kind::end;
  std::string text;  ///< the characters, a text's without its quotes; for `bad`, what is wrong
  std::uint32_t value = 0;  ///< of a number
  Position at;              ///< the first character, a text's opening quote
  std::string doc;  ///< the comment lines directly above, without their `#`, joined by line ends
};

class Lexer {
 public:
  /// `source` must outlive the lexer.
  explicit Lexer(std::string_view source) : source_(source) {}
  /// The next token; at the end, `end` as often as it is asked for.
  Token next();

 private:
  void step();
  void skipBlanks();
  void takeComment(bool isLineOfItsOwn);
  std::string_view takeWhile(bool (*belongs)(char));
  Token takeText(Token token);
  bool atEnd() const { return offset_ == source_.size(); }

  std::string_view source_;
  std::size_t offset_ = 0;
  Position at_;
  std::string doc_;
  bool lineIsEmpty_ = true;  // so far
};

}  // namespace stpc
