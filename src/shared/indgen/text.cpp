#include "indgen/text.h"

#include <cstring>

namespace {

int order(char a, char b) {
  const auto x = static_cast<unsigned char>(a), y = static_cast<unsigned char>(b);
  return x == y ? 0 : x < y ? -1 : 1;
}

// Order of two texts up to `n` characters, or without end for a negative `n`.
template <bool ignoreCase>
int compareTexts(const char* a, const char* b, std::ptrdiff_t n) {
  for (; n != 0; ++a, ++b, --n) {
    const int result = ignoreCase ? order(gen_lower_char(*a), gen_lower_char(*b)) : order(*a, *b);
    if (result != 0 || *a == '\0') return result;
  }
  return 0;
}

constexpr std::ptrdiff_t kWholeText = -1;
std::ptrdiff_t atLeastZero(std::ptrdiff_t n) {
  return n < 0 ? 0 : n;
}

std::size_t boundedLength(const char* text, std::ptrdiff_t n) {
  const auto bound = static_cast<std::size_t>(n);
  const void* end = std::memchr(text, '\0', bound);
  return end ? static_cast<std::size_t>(static_cast<const char*>(end) - text) : bound;
}

template <bool ignoreCase>
bool hasPrefix(const char* text, const char* prefix, std::size_t length) {
  return compareTexts<ignoreCase>(text, prefix, static_cast<std::ptrdiff_t>(length)) == 0;
}

template <bool ignoreCase>
const char* findFirst(const char* text, const char* pattern) {
  if (!text || !pattern) return nullptr;
  const std::size_t length = std::strlen(pattern);
  for (;; ++text) {
    if (hasPrefix<ignoreCase>(text, pattern, length)) return text;
    if (*text == '\0') return nullptr;
  }
}

template <bool ignoreCase>
const char* findLast(const char* text, const char* pattern) {
  if (!text || !pattern) return nullptr;
  const std::size_t textLength = std::strlen(text), length = std::strlen(pattern);
  if (length > textLength) return nullptr;
  for (const char* at = text + (textLength - length);; --at) {
    if (hasPrefix<ignoreCase>(at, pattern, length)) return at;
    if (at == text) return nullptr;
  }
}

// A new text of `length` characters for the caller to fill; the closing zero is there.
gen_text blankText(std::size_t length) {
  return gen_text(static_cast<char*>(gen_alloc(length + 1, 1)));
}

gen_text copyOf(const char* text, std::size_t length) {
  gen_text copy = blankText(length);
  std::memcpy(copy.data(), text, length);
  return copy;
}

gen_text mapped(const char* text, char (*change)(char)) {
  gen_text copy = gen_strdup(text);
  if (copy)
    for (char* at = copy.data(); *at; ++at) *at = change(*at);
  return copy;
}

char* appended(char* end, const char* text, std::size_t length) {
  std::memcpy(end, text, length);
  return end + length;
}

}  // namespace

bool gen_equal_nocase(const char* a, const char* b) {
  if (!a || !b) return a == b;
  return compareTexts<true>(a, b, kWholeText) == 0;
}

bool gen_equal_nocase_n(const char* a, const char* b, std::ptrdiff_t n) {
  if (!a || !b) return a == b;
  return compareTexts<true>(a, b, atLeastZero(n)) == 0;
}

int gen_compare_nocase(const char* a, const char* b) {
  if (!a || !b) return (a ? 1 : 0) - (b ? 1 : 0);
  return compareTexts<true>(a, b, kWholeText);
}

int gen_compare_nocase_n(const char* a, const char* b, std::ptrdiff_t n) {
  if (!a || !b) return (a ? 1 : 0) - (b ? 1 : 0);
  return compareTexts<true>(a, b, atLeastZero(n));
}

bool gen_has_prefix(const char* text, const char* prefix) {
  return text && prefix && hasPrefix<false>(text, prefix, std::strlen(prefix));
}

bool gen_has_prefix_n(const char* text, const char* prefix, std::ptrdiff_t n) {
  return text && prefix && hasPrefix<false>(text, prefix, boundedLength(prefix, atLeastZero(n)));
}

bool gen_has_prefix_nocase(const char* text, const char* prefix) {
  return text && prefix && hasPrefix<true>(text, prefix, std::strlen(prefix));
}

bool gen_has_prefix_nocase_n(const char* text, const char* prefix, std::ptrdiff_t n) {
  return text && prefix && hasPrefix<true>(text, prefix, boundedLength(prefix, atLeastZero(n)));
}

bool gen_has_suffix(const char* text, const char* suffix) {
  if (!text || !suffix) return false;
  const std::size_t textLength = std::strlen(text), length = std::strlen(suffix);
  return length < textLength && std::memcmp(text + (textLength - length), suffix, length) == 0;
}

const char* gen_find(const char* text, const char* pattern) {
  return text && pattern ? std::strstr(text, pattern) : nullptr;
}

const char* gen_find_nocase(const char* text, const char* pattern) {
  return findFirst<true>(text, pattern);
}

const char* gen_find_last(const char* text, const char* pattern) {
  return findLast<false>(text, pattern);
}

const char* gen_find_last_nocase(const char* text, const char* pattern) {
  return findLast<true>(text, pattern);
}

gen_text gen_lower(const char* text) {
  return mapped(text, gen_lower_char);
}

gen_text gen_upper(const char* text) {
  return mapped(text, gen_upper_char);
}

gen_text gen_strdup(const char* text) {
  return text ? copyOf(text, std::strlen(text)) : gen_text();
}

gen_text gen_strndup(const char* text, std::ptrdiff_t n) {
  return text && n >= 0 ? copyOf(text, boundedLength(text, n)) : gen_text();
}

gen_text gen_concat_list(std::initializer_list<const char*> texts) {
  std::size_t length = 0;
  for (const char* text : texts)
    if (text) length += std::strlen(text);
  gen_text result = blankText(length);
  char* end = result.data();
  for (const char* text : texts)
    if (text) end = appended(end, text, std::strlen(text));
  return result;
}

gen_text gen_concat_free(gen_text a, const char* b) {
  return gen_concat(a, b);
}

gen_text gen_concat_char(const char* a, char c, const char* b) {
  const char middle[] = {c, '\0'};
  return gen_concat3(a, middle, b);
}

void gen_replace(gen_text& target, const char* text) {
  if (target.get() != text) target = gen_strdup(text);
}

void gen_replace_n(gen_text& target, const char* text, std::ptrdiff_t n) {
  if (target.get() != text) target = gen_strndup(text, n);
}

gen_text gen_replace_all(gen_text text, const char* pattern, const char* value) {
  if (!text || !pattern || !*pattern || !gen_find(text, pattern)) return text;
  if (!value) value = "";
  const std::size_t patternLength = std::strlen(pattern), valueLength = std::strlen(value);

  std::size_t length = std::strlen(text);
  for (const char* at = text; (at = gen_find(at, pattern)); at += patternLength)
    length = length - patternLength + valueLength;

  gen_text result = blankText(length);
  char* end = result.data();
  const char* from = text;
  for (const char* at; (at = gen_find(from, pattern)); from = at + patternLength) {
    end = appended(end, from, static_cast<std::size_t>(at - from));
    end = appended(end, value, valueLength);
  }
  appended(end, from, std::strlen(from));
  return result;
}

char* gen_tokenize(char* text, const char* separators, char** rest) {
  *rest = nullptr;
  if (!text) return nullptr;
  if (!separators) separators = "";
  text += std::strspn(text, separators);
  if (*text == '\0') return nullptr;
  char* end = text + std::strcspn(text, separators);
  if (*end != '\0') {
    *end = '\0';
    *rest = end + 1;
  }
  return text;
}
