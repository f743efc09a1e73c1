// Plain zero-closed texts: looking at them, comparing, searching, copying, joining and cutting.
//
// Inputs are never owned and may be null ("none"): unless an operation says otherwise, none gives
// none, or false. What is given back is a new text in its own gen_text. Case means ASCII case in
// every locale. Counts are signed so that callers may pass what a subtraction gave.
#pragma once

#include <cstddef>
#include <initializer_list>

#include "indgen/memory.h"

/// Space or tab.
constexpr bool gen_is_blank(char c) {
  return c == ' ' || c == '\t';
}
/// Space, tab, line feed, carriage return or form feed.
constexpr bool gen_is_space(char c) {
  return gen_is_blank(c) || c == '\n' || c == '\r' || c == '\f';
}
/// An ASCII digit.
constexpr bool gen_is_digit(char c) {
  return c >= '0' && c <= '9';
}
/// An ASCII letter or digit.
constexpr bool gen_is_alnum(char c) {
  return gen_is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
/// One ASCII letter in lower or upper case, anything else unchanged.
constexpr char gen_lower_char(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}
constexpr char gen_upper_char(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
}

/// Whether two texts are equal with case ignored, in full or in their first `n` characters. Two
/// nones are equal; none is not equal to an empty text.
bool gen_equal_nocase(const char* a, const char* b);
bool gen_equal_nocase_n(const char* a, const char* b, std::ptrdiff_t n);

/// -1, 0 or 1 by the lower-case forms, in full or for the first `n` characters. None sorts first.
int gen_compare_nocase(const char* a, const char* b);
int gen_compare_nocase_n(const char* a, const char* b, std::ptrdiff_t n);

/// Whether `text` begins with `prefix`; the `_n` forms look at no more than the first `n`
/// characters of `prefix`.
bool gen_has_prefix(const char* text, const char* prefix);
bool gen_has_prefix_n(const char* text, const char* prefix, std::ptrdiff_t n);
bool gen_has_prefix_nocase(const char* text, const char* prefix);
bool gen_has_prefix_nocase_n(const char* text, const char* prefix, std::ptrdiff_t n);

/// Whether `text` ends in `suffix` and has at least one character more.
bool gen_has_suffix(const char* text, const char* suffix);

/// The first or last place of `pattern` in `text`, null if there is none. An empty pattern is found
/// at the start, or at the closing zero.
const char* gen_find(const char* text, const char* pattern);
const char* gen_find_nocase(const char* text, const char* pattern);
const char* gen_find_last(const char* text, const char* pattern);
const char* gen_find_last_nocase(const char* text, const char* pattern);

/// Copies, the first two with their letters changed.
gen_text gen_lower(const char* text);
gen_text gen_upper(const char* text);
gen_text gen_strdup(const char* text);
/// A copy of up to `n` characters; a negative `n` gives none.
gen_text gen_strndup(const char* text, std::ptrdiff_t n);

/// All texts in a row as one new text; none counts as empty, so that the result is never none.
gen_text gen_concat_list(std::initializer_list<const char*> texts);

inline gen_text gen_concat(const char* a, const char* b) {
  return gen_concat_list({a, b});
}
inline gen_text gen_concat3(const char* a, const char* b, const char* c) {
  return gen_concat_list({a, b, c});
}
inline gen_text gen_concat4(const char* a, const char* b, const char* c, const char* d) {
  return gen_concat_list({a, b, c, d});
}
inline gen_text gen_concat5(const char* a, const char* b, const char* c, const char* d,
                            const char* e) {
  return gen_concat_list({a, b, c, d, e});
}
inline gen_text gen_concat6(const char* a, const char* b, const char* c, const char* d,
                            const char* e, const char* f) {
  return gen_concat_list({a, b, c, d, e, f});
}
inline gen_text gen_concat7(const char* a, const char* b, const char* c, const char* d,
                            const char* e, const char* f, const char* g) {
  return gen_concat_list({a, b, c, d, e, f, g});
}
inline gen_text gen_concat8(const char* a, const char* b, const char* c, const char* d,
                            const char* e, const char* f, const char* g, const char* h) {
  return gen_concat_list({a, b, c, d, e, f, g, h});
}
inline gen_text gen_concat9(const char* a, const char* b, const char* c, const char* d,
                            const char* e, const char* f, const char* g, const char* h,
                            const char* i) {
  return gen_concat_list({a, b, c, d, e, f, g, h, i});
}

/// The same of `a` and `b`; `a` is used up.
gen_text gen_concat_free(gen_text a, const char* b);
/// `a`, the character `c` unless it is zero, then `b`.
gen_text gen_concat_char(const char* a, char c, const char* b);

/// Puts a copy of `text` (of up to `n` characters) in place of what `target` holds. Nothing happens
/// if `text` is what it holds; it may point into it.
void gen_replace(gen_text& target, const char* text);
void gen_replace_n(gen_text& target, const char* text, std::ptrdiff_t n);

/// `text` with every `pattern` replaced by `value`, an inserted value not being searched again. An
/// empty or null pattern changes nothing; a null value counts as empty. `text` is used up.
gen_text gen_replace_all(gen_text text, const char* pattern, const char* value);

/// Cuts the next token off `text`, in place: skips separators, closes the token with a zero and
/// sets `rest` (never null) to what follows it, or to null at the end of the text. Null if only
/// separators were left.
char* gen_tokenize(char* text, const char* separators, char** rest);
