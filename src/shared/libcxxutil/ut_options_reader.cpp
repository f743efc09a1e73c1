#include "libcxxutil/ut_options_reader.h"

#include <cstring>

#include "indgen/number.h"
#include "indgen/report.h"
#include "indgen/text.h"
#include "libcxxutil/ut_macro_syntax.h"

namespace {

// Blocks that one reading may make: each costs far more memory than the byte that asks for it.
constexpr int kMostBlocks = 1 << 18;

constexpr int kKiloShift = 10, kMegaShift = 20;

constexpr const char* kStatement = "a name, \"{\" or \"}\"";
constexpr const char* kText = "a text in double quotes";
constexpr const char* kValue = "a text in double quotes, a number, yes or no";

bool isString(const char* token) {
  return *token == '"';
}

// Whether a string token ends with a quote that no `\` escapes.
bool isClosed(const char* token) {
  for (++token; *token && *token != '"'; ++token)
    if (*token == '\\' && token[1]) ++token;
  return *token != '\0';
}

bool isWhole(const char* token, const char* text) {
  return std::strcmp(token, text) == 0;
}

std::string inQuotes(const std::string& token) {
  return '"' + token + '"';
}

std::string operatorBehind(const std::string& name) {
  return "\"=\", \"+=\", \".\" or \"{\" on the same line behind " + inQuotes(name);
}

std::string insteadOf(const char* expected, const char* token) {
  return std::string(expected) + ", not " + (isString(token) ? token : inQuotes(token));
}

// The number that a boolean word stands for.
std::optional<std::int32_t> booleanWord(const char* token) {
  if (gen_equal_nocase(token, "false")) return 0;
  for (const char* word : {"no", "off"})
    if (gen_has_prefix_nocase(token, word)) return 0;
  for (const char* word : {"on", "true", "yes"})
    if (gen_has_prefix_nocase(token, word)) return 1;
  return std::nullopt;
}

}  // namespace

ut_options_reader::ut_options_reader(ut_token_stream& stream,
                                     const ut_options_database::Settings& settings,
                                     ut_attribute_list& node, ut_options_observer* observer)
    : stream_(stream),
      settings_(settings),
      base_(node),
      scope_(&node),
      current_(&node),
      observer_(observer) {}

bool ut_options_reader::read() {
  for (;;) {
    if (stream_.at_end_of_line()) current_ = scope_;
    char* token = stream_.next_token();
    if (!token) return !stream_.gave_up();
    if (isWhole(token, ";")) continue;
    if (!statement(token)) return false;
  }
}

bool ut_options_reader::statement(char* token) {
  if (*token == '\0') return failed("", kStatement);
  if (!isString(token) && !ut_is_word(*token)) return operate("", token);
  const std::string name = nameFrom(token);
  const char* operation = stream_.at_end_of_line() ? nullptr : stream_.next_token();
  if (!operation) return failed("unexpected end of file", operatorBehind(name));
  if (*operation == '\0') return failed("", operatorBehind(name));
  return operate(name, operation);
}

bool ut_options_reader::operate(const std::string& name, const char* operation) {
  const std::string sequence(operation, operation[1] ? 2 : 1);
  if (sequence == ".") return descend(name);
  if (sequence == "{") return openBlock(name);
  if (sequence == "}") return closeBlock();
  if (sequence == "=") return value(name, false);
  if (sequence == "+=") return value(name, true);
  return failed("unknown operator sequence \"" + sequence + "\" ",
                name.empty() ? kStatement : operatorBehind(name));
}

bool ut_options_reader::descend(const std::string& name) {
  ut_attribute_list* next = child(name);
  if (!next) return failed("too many blocks", "");
  current_ = next;
  return true;
}

bool ut_options_reader::openBlock(const std::string& name) {
  const int before = blocksMade_;
  if (!descend(name)) return false;
  if (observer_ && blocksMade_ == before) observer_->opened(*current_, true);
  current_->set_block_open(true);
  scope_ = current_;
  return true;
}

bool ut_options_reader::closeBlock() {
  if (scope_ == &base_) return failed("unexpected \"}\"", "no \"}\" where no block is open");
  scope_->set_block_open(false);
  do scope_ = scope_->parent();
  while (scope_ != &base_ && !scope_->block_open());
  current_ = scope_;
  return true;
}

bool ut_options_reader::value(const std::string& name, bool append) {
  char* token = stream_.next_token();
  if (name.empty()) return failed("empty attribute name", "a name in front of the operator");
  if (!token) return failed("empty attribute value", kValue);
  if (!current_->has_room_for(name.c_str())) return failed("too many attributes", "");
  if (observer_) observer_->assigned(*current_, name);
  if (isString(token) || settings_.raw_values) {
    const char* text = isString(token) ? textOf(token) : token;
    if (append)
      current_->append_str(name.c_str(), text);
    else
      current_->add_or_replace_str(name.c_str(), text);
    return true;
  }
  if (isWhole(token, "{")) return list(name, append);
  std::optional<std::int32_t> number = booleanWord(token);
  if (!number && !parseNumber(token, number)) return false;
  if (!append) {
    current_->add_or_replace_int32(name.c_str(), *number);
    return true;
  }
  if (!settings_.integer_lists) return failed("", std::string(kText) + " behind \"+=\"");
  current_->append_int32_list(name.c_str(), *number);
  return true;
}

// The items behind a `{`, and the `}`.
bool ut_options_reader::list(const std::string& name, bool append) {
  std::optional<bool> numbers;  // what the first item decides
  do {
    char* token = stream_.at_end_of_line() ? nullptr : stream_.next_token();
    if (!token)
      return failed("unexpected end of line", "an item on the line of the \"{\" or \",\"");
    if (!numbers) numbers = settings_.integer_lists && !isString(token);
    if (!listItem(name, token, *numbers, append)) return false;
    append = true;
  } while (stream_.accept(","));
  return stream_.accept("}") || failed("expected '}'", "\",\" or \"}\" behind an item");
}

bool ut_options_reader::listItem(const std::string& name, char* token, bool number, bool append) {
  if (number) {
    std::optional<std::int32_t> item;
    if (!parseNumber(token, item)) return false;
    if (append)
      current_->append_int32_list(name.c_str(), *item);
    else
      current_->set_int32_list(name.c_str(), *item);
    return true;
  }
  if (!isString(token)) return failed("", insteadOf(kText, token));
  const char* text = textOf(token);
  if (append)
    current_->append_str_list(name.c_str(), text);
  else
    current_->set_str_list(name.c_str(), text);
  return true;
}

// Takes the number that begins with `token`; false, and reported, if there is none.
bool ut_options_reader::parseNumber(const char* token, std::optional<std::int32_t>& result) {
  const bool negative = isWhole(token, "-");
  if (negative) {
    token = stream_.at_end_of_line() ? nullptr : stream_.next_token();
    if (!token) return failed("unexpected end of line", "a number on the line of the \"-\"");
  }
  const char* end;
  std::uint32_t number = gen_strtoul(token, &end, 0);
  if (end == token) return failed("", insteadOf(kValue, token));
  if (negative) number = 0 - number;
  const char suffix = settings_.size_suffixes ? gen_lower_char(*end) : '\0';
  if (suffix == 'k') number <<= kKiloShift;
  if (suffix == 'm') number <<= kMegaShift;
  result = static_cast<std::int32_t>(number);
  return true;
}

std::string ut_options_reader::nameFrom(char* token) {
  return isString(token) ? textOf(token) : token;
}

const char* ut_options_reader::textOf(char* token) {
  if (observer_ && !isClosed(token)) observer_->unclosedText();
  return stream_.unescape_string(token);
}

// The child of the current block, made if it is missing; null if the file has made too many.
ut_attribute_list* ut_options_reader::child(const std::string& name) {
  if (ut_attribute_list* found = current_->find_child(name.c_str())) return found;
  if (blocksMade_ == kMostBlocks) return nullptr;
  ++blocksMade_;
  ut_attribute_list* made = current_->add_child(name.c_str());
  made->set_position(stream_.position());
  if (observer_) observer_->opened(*made, false);
  return made;
}

// A stream that gave up has said why: what fails then only follows from it. The words of the report
// are fixed, so what was expected is for the observer.
bool ut_options_reader::failed(const std::string& message, const std::string& expected) {
  if (stream_.gave_up()) return false;
  if (observer_) observer_->failed(expected);
  gen_error("%s: parse error: %s", stream_.position(), message.c_str());
  return false;
}
