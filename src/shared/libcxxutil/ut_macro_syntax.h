// What counts as a name, a number and a string in configuration files, for everyone who cuts texts
// there. All positions are within zero-closed texts.
#pragma once

#include "indgen/number.h"
#include "indgen/text.h"

constexpr bool ut_is_digit(char c) {
  return c >= '0' && c <= '9';
}
/// A letter, a digit or `_`.
constexpr bool ut_is_word(char c) {
  return gen_is_alnum(c) || c == '_';
}
/// A letter or `_`.
constexpr bool ut_starts_name(char c) {
  return ut_is_word(c) && !ut_is_digit(c);
}

inline const char* ut_skip_blanks(const char* at) {
  while (gen_is_blank(*at)) ++at;
  return at;
}
/// Behind the name that starts here; the same place if none does.
inline const char* ut_name_end(const char* at) {
  if (!ut_starts_name(*at)) return at;
  while (ut_is_word(*at)) ++at;
  return at;
}
/// Behind the number that starts here with a digit. A `0x` with no digit behind it is a `0`.
inline const char* ut_number_end(const char* at) {
  const char* end;
  gen_strtoul(at, &end, 0);
  return end == at ? at + 1 : end;
}
/// At the closing quote of the string that starts here with `"`, or at the end of the text.
inline const char* ut_string_end(const char* at) {
  for (++at; *at != '\0' && *at != '"';) at += at[0] == '\\' && at[1] != '\0' ? 2 : 1;
  return at;
}
