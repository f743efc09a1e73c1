// The ascii form of a message being read.
//
// Every step stops at a zero byte, and one stands behind the payload whatever the payload holds, so
// no scan needs another bound.
#include <limits>
#include <utility>
#include <vector>

#include "indgen/report.h"
#include "stp_transport/message/stp_received_message.h"

namespace {

char* skipBlanks(char* place) {
  while (*place == ' ') ++place;
  return place;
}

bool closesLevel(const char* place) {
  return *place == ']' || *place == '}' || *place == '\0';
}

// The next `wanted`, or the end of the text.
char* findOrEnd(char* place, char wanted) {
  while (*place != wanted && *place != '\0') ++place;
  return place;
}

// Behind the closing quote of the string that opens at `place`. A backslash in front of an ordinary
// character is passed like that character, which comes to the same.
char* skipQuoted(char* place) {
  for (++place; *place != '"'; ++place) {
    if (*place == '\\' && place[1] != '\0') ++place;
    if (*place == '\0') return place;
  }
  return place + 1;
}

char* skipPlainWord(char* place) {
  if (*place != '\0') ++place;
  while (*place != ' ' && !closesLevel(place)) ++place;
  return place;
}

// Which brackets are open, one bit each, so that text of nothing but brackets costs little. Up to
// 64 levels need no memory of their own.
class BracketStack {
 public:
  bool empty() const { return depth_ == 0; }
  bool inArray() const { return (bits_ & 1) != 0; }
  void open(bool array) {
    if (depth_ > 0 && depth_ % 64 == 0) outer_.push_back(bits_);
    bits_ = bits_ << 1 | (array ? 1U : 0U);
    ++depth_;
  }
  void close() {
    --depth_;
    bits_ >>= 1;
    if (depth_ == 0 || depth_ % 64 != 0) return;
    bits_ = outer_.back();
    outer_.pop_back();
  }

 private:
  std::uint64_t bits_ = 0;
  std::size_t depth_ = 0;
  std::vector<std::uint64_t> outer_;
};

// From inside the innermost open bracket to where its next value begins; brackets that close on the
// way are closed. Stops with no bracket open or at the end of the text, too.
char* nextInside(char* place, BracketStack& brackets) {
  while (!brackets.empty() && *place != '\0') {
    char closing = ']';
    if (!brackets.inArray()) {
      closing = '}';
      place += std::strcspn(place, "\"{[}");
    }
    if (*place != closing) break;
    brackets.close();
    place = skipBlanks(place + 1);
  }
  return place;
}

// Behind the value at `place` and the blanks that follow it.
char* behindValue(char* place) {
  BracketStack brackets;
  do {
    if (*place == '(') {
      place = findOrEnd(place, ')');
      if (*place != '\0') place = skipBlanks(place + 1);
    }
    if (*place == '"') {
      place = skipQuoted(place);
    } else if (*place == '{' || *place == '[') {
      brackets.open(*place == '[');
      ++place;
    } else {
      place = skipPlainWord(place);
    }
    place = nextInside(skipBlanks(place), brackets);
  } while (!brackets.empty() && *place != '\0');
  return place;
}

// The value of a digit in the given base, or -1.
int digitValue(char digit, int base) {
  int value = -1;
  if (digit >= '0' && digit <= '9') value = digit - '0';
  if (digit >= 'a' && digit <= 'f') value = digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') value = digit - 'A' + 10;
  return value < base ? value : -1;
}

bool takeSign(char*& place) {
  const bool negative = *place == '-';
  if (negative || *place == '+') ++place;
  return negative;
}

}  // namespace

char* STPReceivedMessage::findAsciiField(const char* name) {
  const std::size_t nameLength = std::strlen(name);
  char* place = searchBudget_ < 0 ? textEnd() : skipBlanks(fieldCursor_);
  const bool sequential = place == skipBlanks(textCursor());
  if (!sequential) setTextCursor(place);
  if (closesLevel(place)) return nullptr;
  const bool isNext = std::strncmp(place, name, nameLength) == 0 && place[nameLength] == ':';
  char* field = isNext ? place : findFrom(place, name);
  if (!field) return nullptr;
  char* value = skipBlanks(field + nameLength + 1);
  setTextCursor(value);
  if (isNext && sequential) fieldCursor_ = skipValue(value);
  return value;
}

// An index serves for as long as the mark moves along its level, also when it comes back from a
// level inside. Once the mark stands outside, the index goes.
char* STPReceivedMessage::findFrom(char* place, const char* name) {
  char* text = reinterpret_cast<char*>(storage_);
  const auto offsetOf = [text](char* at) { return static_cast<STPFieldIndex::Offset>(at - text); };
  const STPFieldIndex::Offset mark = offsetOf(place);
  while (!indexes_.empty() && !indexes_.back().spans(mark)) indexes_.pop_back();
  if (indexes_.empty() || !indexes_.back().hasFieldAt(mark)) {
    STPFieldIndex index(text);
    while (!closesLevel(place)) {
      char* colon = findOrEnd(place, ':');
      searchBudget_ -= colon - place;
      if (*colon == '\0') break;
      index.add(offsetOf(place));
      place = skipValue(skipBlanks(colon + 1));
    }
    if (index.empty()) return nullptr;
    index.close(offsetOf(place));
    indexes_.push_back(std::move(index));
  }
  const STPFieldIndex::Offset field = indexes_.back().find(name, mark);
  return field == 0 ? nullptr : text + field;
}

char* STPReceivedMessage::skipValue(char* place) {
  if (searchBudget_ < 0) return textEnd();
  char* behind = behindValue(place);
  searchBudget_ -= behind - place;
  return behind;
}

std::uint32_t STPReceivedMessage::readInt() {
  constexpr std::uint64_t largest = std::numeric_limits<std::uint32_t>::max();
  char* place = textCursor();
  while (*place == ' ' || (*place >= 8 && *place <= 13)) ++place;
  const bool negative = takeSign(place);
  int base = 10;
  if (*place == '0') {
    base = 8;
    // An "x" without digits behind it isn't part of the number.
    if ((place[1] == 'x' || place[1] == 'X') && digitValue(place[2], 16) >= 0) {
      base = 16;
      place += 2;
    }
  }
  if (digitValue(*place, base) < 0) return 0;
  std::uint64_t value = 0;
  for (int digit; (digit = digitValue(*place, base)) >= 0; ++place)
    if (value <= largest)
      value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
  setTextCursor(place);
  if (value > largest) return static_cast<std::uint32_t>(largest);
  return static_cast<std::uint32_t>(negative ? 0 - value : value);
}

std::uint32_t STPReceivedMessage::readInt(const char* name) {
  return findAsciiField(name) ? readInt() : 0;
}

std::uint64_t STPReceivedMessage::readInt64() {
  char* place = skipBlanks(textCursor());
  const bool negative = takeSign(place);
  int base = 10;
  if (place[0] == '0' && place[1] == 'x') {
    base = 16;
    place += 2;
  }
  std::uint64_t value = 0;
  for (int digit; (digit = digitValue(*place, base)) >= 0; ++place)
    value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
  setTextCursor(place);
  return negative ? 0 - value : value;
}

std::uint64_t STPReceivedMessage::readInt64(const char* name) {
  return findAsciiField(name) ? readInt64() : 0;
}

gen_text STPReceivedMessage::readString() {
  char* place = skipBlanks(textCursor());
  if (*place != '"') {
    setTextCursor(std::strncmp(place, "null ", 5) == 0 ? place + 5 : place);
    return gen_text();
  }
  char* behind = skipQuoted(place);
  setTextCursor(behind);
  auto* text = static_cast<char*>(gen_alloc(static_cast<std::size_t>(behind - place), 1));
  char* out = text;
  for (++place; place < behind && *place != '"'; ++place) {
    if (*place != '\\' || place + 1 == behind) {
      *out++ = *place;
    } else {
      ++place;
      *out++ = *place == 'n' ? '\n' : *place;
    }
  }
  return gen_text(text);
}

gen_text STPReceivedMessage::readString(const char* name) {
  return findAsciiField(name) ? readString() : gen_text();
}

char* STPReceivedMessage::takeWord(char* place, std::int32_t* length) {
  char* behind = findOrEnd(place, ' ');
  *length = static_cast<std::int32_t>(behind - place);
  fieldCursor_ = skipBlanks(behind);
  return place;
}

char* STPReceivedMessage::readWord(std::int32_t* length) {
  char* word = takeWord(skipBlanks(textCursor()), length);
  setTextCursor(fieldCursor_);
  return word;
}

char* STPReceivedMessage::readWord(const char* name, std::int32_t* length) {
  return readNamed(name, length, &STPReceivedMessage::readWord);
}

char* STPReceivedMessage::peekWord(std::int32_t* length) {
  return takeWord(skipBlanks(textCursor()), length);
}

char* STPReceivedMessage::readQuoted(std::int32_t* length) {
  char* place = skipBlanks(textCursor());
  *length = 0;
  if (*place != '"') return textEnd();
  ++place;
  char* quote = findOrEnd(place, '"');
  *length = static_cast<std::int32_t>(quote - place);
  fieldCursor_ = skipBlanks(*quote == '"' ? quote + 1 : quote);
  setTextCursor(fieldCursor_);
  return place;
}

char* STPReceivedMessage::readQuoted(const char* name, std::int32_t* length) {
  return readNamed(name, length, &STPReceivedMessage::readQuoted);
}

// A bare read takes the mark along. Out of order it stays, or the fields passed over would be lost.
char* STPReceivedMessage::readNamed(const char* name, std::int32_t* length,
                                    char* (STPReceivedMessage::*read)(std::int32_t*)) {
  const Mark mark = fieldCursor_;
  if (!findAsciiField(name)) {
    *length = 0;
    return textEnd();
  }
  const bool inOrder = fieldCursor_ != mark;
  char* text = (this->*read)(length);
  if (!inOrder) fieldCursor_ = mark;
  return text;
}

// A text that fills the payload has no end word to stand on, but the zeros behind it.
void STPReceivedMessage::moveToEndWord() {
  char* end = textEnd();
  setTextCursor(capacity_ >= 4 && end[-4] == '\0' ? end - 4 : end);
}

void STPReceivedMessage::stepInto(char bracket) {
  char* place = skipBlanks(textCursor());
  if (*place == bracket)
    setTextCursor(place + 1);
  else
    moveToEndWord();
  fieldCursor_ = textCursor();
}

void STPReceivedMessage::stepOut(char bracket, Mark saved) {
  char* place = skipBlanks(textCursor());
  if (*place == bracket)
    setTextCursor(place + 1);
  else
    moveToEndWord();
  fieldCursor_ = saved;
}

void STPReceivedMessage::enterBlock(Mark* saved) {
  *saved = fieldCursor_;
  stepInto('{');
}

void STPReceivedMessage::enterBlock(Mark* saved, const char* name) {
  if (!findAsciiField(name)) moveToEndWord();
  enterBlock(saved);
}

void STPReceivedMessage::leaveBlock(Mark* saved) {
  stepOut('}', *saved);
}

std::int32_t STPReceivedMessage::enterArray(Mark* saved) {
  *saved = fieldCursor_;
  return stepIntoArray();
}

std::int32_t STPReceivedMessage::enterArray(Mark* saved, const char* name) {
  if (!findAsciiField(name)) moveToEndWord();
  return enterArray(saved);
}

void STPReceivedMessage::leaveArray(Mark* saved) {
  stepOut(']', *saved);
}

std::int32_t STPReceivedMessage::stepIntoArray() {
  std::uint32_t size = 0;
  char* place = skipBlanks(textCursor());
  const bool sized = *place == '(';
  if (sized) {
    setTextCursor(place + 1);
    size = readInt();
    place = skipBlanks(textCursor());
    if (*place == ')') ++place;
    place = skipBlanks(place);
    setTextCursor(place);
  }
  const bool present = *place == '[';
  stepInto('[');
  const char* first = skipBlanks(textCursor());
  if (present && !sized && *first != ']' && *first != '\0')
    gen_warning("unspecified stp ascii array size");
  return present ? static_cast<std::int32_t>(size) : 0;
}

char* STPReceivedMessage::nextField(char** name) {
  char* place = skipBlanks(fieldCursor_);
  setTextCursor(place);
  *name = nullptr;
  if (closesLevel(place)) return nullptr;
  char* colon = findOrEnd(place, ':');
  if (*colon == '\0') return nullptr;
  *name = place;
  char* value = skipBlanks(colon + 1);
  setTextCursor(value);
  fieldCursor_ = skipValue(value);
  return value;
}

char* STPReceivedMessage::nextValue() {
  char* place = skipBlanks(fieldCursor_);
  setTextCursor(place);
  if (closesLevel(place)) return nullptr;
  fieldCursor_ = skipValue(place);
  return place;
}
