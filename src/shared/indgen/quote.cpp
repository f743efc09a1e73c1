#include "indgen/quote.h"

#include <cstring>

#include "indgen/text.h"

namespace {

// What stands behind the `\` for a character, or 0 if it needs none.
char quoteEscape(char c) {
  return c == '\\' || c == '"' || c == '\'' ? c : '\0';
}

char controlEscape(char c) {
  switch (c) {
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    case 1:
    case 2:
    case 3:
      return static_cast<char>('0' + c);
    default:
      return quoteEscape(c);
  }
}

// The text escaped by `escape` between two quotes; a zero `quote` stands for no quotes.
gen_text escaped(const char* text, char quote, char (*escape)(char)) {
  if (!text) return gen_text();
  std::size_t length = quote ? 2 : 0;
  for (const char* at = text; *at; ++at) length += escape(*at) ? 2 : 1;

  gen_text result(static_cast<char*>(gen_alloc(length + 1, 1)));
  char* to = result.data();
  if (quote) *to++ = quote;
  for (; *text; ++text) {
    const char letter = escape(*text);
    if (letter) *to++ = '\\';
    *to++ = letter ? letter : *text;
  }
  if (quote) *to = quote;
  return result;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = gen_lower_char(c);
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

int octalValue(char c) {
  return c >= '0' && c <= '7' ? c - '0' : -1;
}

// Takes up to two further digits of a byte that has `value` so far.
char byteFromDigits(const char*& at, int value, int base, int (*digitValue)(char)) {
  for (int taken = 0; taken < 2; ++taken, ++at) {
    const int digit = digitValue(*at);
    if (digit < 0) break;
    value = value * base + digit;
  }
  return static_cast<char>(value);
}

// The character of an escape whose letter stands at `at`, which goes behind it.
char resolved(const char*& at) {
  const char letter = *at++;
  switch (letter) {
    case 'a':
      return '\a';
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'v':
      return '\v';
    case '0':
    case '1':
    case '2':
    case '3':
      return byteFromDigits(at, letter - '0', 8, octalValue);
    case 'x':
      return byteFromDigits(at, 0, 16, hexValue);
    default:
      return letter;
  }
}

}  // namespace

gen_text gen_quote(const char* text) {
  return escaped(text, '"', quoteEscape);
}

gen_text gen_single_quote(const char* text) {
  return escaped(text, '\'', quoteEscape);
}

gen_text gen_escape(const char* text) {
  return escaped(text, '\0', controlEscape);
}

std::size_t gen_unescape(char* text) {
  if (!text) return 0;
  char* to = text;
  const char* at = text;
  while (*at != '\0' && *at != '"') {
    if (at[0] == '\\' && at[1] != '\0') {
      ++at;
      *to++ = resolved(at);
    } else {
      *to++ = *at++;
    }
  }
  *to = '\0';
  return static_cast<std::size_t>(to - text);
}

gen_text gen_unquote(const char* text) {
  if (!text) return gen_text();
  if (*text == '\'') {
    ++text;
    const std::size_t length = std::strlen(text);
    const bool closed = length > 0 && text[length - 1] == '\'';
    return gen_strndup(text, static_cast<std::ptrdiff_t>(length - (closed ? 1 : 0)));
  }
  if (*text == '"') {
    gen_text result = gen_strdup(text + 1);
    gen_unescape(result.data());
    return result;
  }
  return gen_strdup(text);
}

bool gen_needs_quotes(const char* text) {
  return text && std::strpbrk(text, " \t\"");
}

gen_text gen_quote_if_needed(const char* text, bool double_quotes) {
  if (!gen_needs_quotes(text)) return gen_strdup(text);
  return double_quotes ? gen_quote(text) : gen_concat3("'", text, "'");
}
