// Taking tokens from lines, and from the macros in them.
#include <cstring>

#include "indgen/quote.h"
#include "libcxxutil/ut_macro_syntax.h"
#include "libcxxutil/ut_token_stream.h"

namespace {

bool isFilenamePart(char c) {
  return ut_is_word(c) || c == '/';
}

// Length of the operator that starts here, of one character or two.
std::size_t operatorLength(const char* at) {
  if (at[0] == at[1] && std::strchr("&|+-", at[0])) return 2;
  return at[1] == '=' && std::strchr("%*/^&+-|", at[0]) ? 2 : 1;
}

// The letter of a control character that a macro's value may not bring into a string as it is.
char escapeLetter(char c) {
  switch (c) {
    case 7:
      return 'a';
    case 8:
      return 'b';
    case 9:
      return 't';
    case 11:
      return 'v';
    case 12:
      return 'f';
    case 13:
      return 'r';
    default:
      return '\0';
  }
}

bool needsBackslash(char c) {
  return (c >= 1 && c <= 3) || c == '"' || c == '\'' || c == '\\';
}

}  // namespace

// Puts the cursor of the last frame before the next token; false if there is none.
bool ut_token_stream::moveToToken() {
  while (!gave_up_) {
    while (!line_frames_.empty()) {
      LineFrame& frame = line_frames_.back();
      frame.cursor = ut_skip_blanks(frame.cursor);
      if (*frame.cursor != '\0' && *frame.cursor != '#') return true;
      popFrame();
    }
    if (no_line_reading_ || !readLogicalLine()) return false;
  }
  return false;
}

char* ut_token_stream::next_token() {
  while (moveToToken()) {
    LineFrame& frame = line_frames_.back();
    const char* const start = frame.cursor;
    token_buffer_.begin();
    if (*start == '"') {
      readString();
      return gave_up_ ? nullptr : token_buffer_.finish();
    }
    const char* end = start + 1;
    const char* brace = start[0] == '$' && start[1] == '{' ? closingBrace(frame) : nullptr;
    if (brace) {
      const ut_string name(start + 2, static_cast<ut_string::Size>(brace - start - 2));
      frame.cursor = brace + 1;
      if (pushMacro(name, true)) continue;
      if (gave_up_) return nullptr;
      token_buffer_.put(name.c_str());
      return token_buffer_.finish();
    }
    if (filename_tokens_ && ut_is_word(*start))
      while (isFilenamePart(*end)) ++end;
    else if (ut_starts_name(*start))
      end = ut_name_end(start);
    else if (ut_is_digit(*start))
      end = ut_number_end(start);
    else
      end = start + operatorLength(start);
    frame.cursor = end;
    token_buffer_.put({start, static_cast<std::size_t>(end - start)});
    return token_buffer_.finish();
  }
  return nullptr;
}

bool ut_token_stream::at_end_of_line() {
  no_line_reading_ = true;
  const bool found = moveToToken();
  no_line_reading_ = false;
  return !found;
}

bool ut_token_stream::at_end_of_input() {
  return !moveToToken();
}

bool ut_token_stream::accept(const char* text) {
  const std::size_t length = std::strlen(text);
  if (!moveToToken() || std::strncmp(line_frames_.back().cursor, text, length) != 0) return false;
  line_frames_.back().cursor += length;
  return true;
}

char* ut_token_stream::unescape_string(char* token) {
  if (!token || token != token_buffer_.last() || *token != '"') return nullptr;
  gen_unescape(token + 1);
  return token + 1;
}

// Writes the string at the cursor as the current token, macros expanded.
void ut_token_stream::readString() {
  // Nothing stays on top of this frame, but its place changes while macros are expanded.
  const std::size_t index = line_frames_.size() - 1;
  token_buffer_.put(*line_frames_[index].cursor++);
  while (!gave_up_) {
    LineFrame& frame = line_frames_[index];
    const char c = *frame.cursor;
    if (c == '\0') return;
    if (c == '$' && stringMacro(frame)) continue;
    ++frame.cursor;
    token_buffer_.put(c);
    if (c == '"') return;
    if (c == '\\' && *frame.cursor != '\0') token_buffer_.put(*frame.cursor++);
  }
}

// Takes the macro at a `$` within a string; false if the `$` is a plain character.
bool ut_token_stream::stringMacro(LineFrame& frame) {
  const char* const start = frame.cursor + 1;
  if (*start == '{') {
    const char* brace = closingBrace(frame);
    if (!brace) return false;
    const ut_string name(start + 1, static_cast<ut_string::Size>(brace - start - 1));
    frame.cursor = brace + 1;
    if (!expandInString(name, true)) token_buffer_.put(name.c_str());
    return true;
  }
  const char* end = ut_name_end(start);
  const ut_string name(start, static_cast<ut_string::Size>(end - start));
  frame.cursor = end;
  if (!expandInString(name, false)) {
    token_buffer_.put('$');
    token_buffer_.put(name.c_str());
  }
  return true;
}

// The `}` of the `${` at the cursor. A line may hold any number of `${` without one, which are not
// all to be searched to their end.
const char* ut_token_stream::closingBrace(LineFrame& frame) {
  if (frame.noBrace) return nullptr;
  const char* brace = std::strchr(frame.cursor + 2, '}');
  frame.noBrace = !brace;
  return brace;
}

// Makes a macro's value the text to read next; false if there is none or it is being read already.
bool ut_token_stream::pushMacro(const ut_string& name, bool complain) {
  const std::optional<ut_string> value = preprocessor_->macro_value(name, complain);
  if (!value) {
    if (budget_.exhausted()) giveUp("macros and messages take too much work");
    return false;
  }
  const auto length = static_cast<std::size_t>(value->length());
  if (!budget_.spend(1 + line_frames_.size() + length)) {
    giveUp("macros and messages take too much work");
    return false;
  }
  for (const LineFrame& frame : line_frames_) {
    if (!(frame.key == name)) continue;
    if (budget_.spend(kReportCost))
      error("macro recursion detected for: \"%s\"", name.c_str());
    else
      giveUp("macros and messages take too much work");
    return false;
  }
  line_frames_.push_back({name, *value, nullptr});
  line_frames_.back().cursor = line_frames_.back().value.c_str();
  return true;
}

// Writes a macro's value into the current token, with the macros that it names. Those stand on the
// stack of frames while they are read, so that no depth of them costs more than that.
bool ut_token_stream::expandInString(const ut_string& name, bool complain) {
  const std::size_t base = line_frames_.size();
  if (!pushMacro(name, complain)) return false;
  while (!gave_up_ && line_frames_.size() > base) copyExpanded();
  return true;
}

// One step of that: an item of the innermost value, or its end.
void ut_token_stream::copyExpanded() {
  LineFrame& frame = line_frames_.back();
  const char* const start = frame.cursor;
  if (*start == '\0') {
    popFrame();
  } else if (ut_is_digit(*start)) {
    frame.cursor = ut_number_end(start);
    token_buffer_.put({start, static_cast<std::size_t>(frame.cursor - start)});
  } else if (ut_starts_name(*start)) {
    frame.cursor = ut_name_end(start);
    const ut_string name(start, static_cast<ut_string::Size>(frame.cursor - start));
    if (!pushMacro(name, false)) token_buffer_.put(name.c_str());
  } else {
    ++frame.cursor;
    const char letter = escapeLetter(*start);
    if (letter || needsBackslash(*start)) token_buffer_.put('\\');
    token_buffer_.put(letter ? letter : *start);
  }
}

void ut_token_stream::popFrame() {
  line_frames_.pop_back();
}
