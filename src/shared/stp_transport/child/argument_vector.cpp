#include "stp_transport/child/argument_vector.h"

#include <utility>

#include "indgen/text.h"

namespace {

bool isQuote(char c) {
  return c == '"' || c == '\'';
}

const char* endOfWord(const char* at) {
  bool quoted = false;
  for (; *at && (quoted || !gen_is_blank(*at)); ++at)
    if (isQuote(*at)) quoted = !quoted;
  return at;
}

gen_text wordBetween(const char* from, const char* end) {
  if (end - from >= 2 && isQuote(*from) && end[-1] == *from) {
    ++from;
    --end;
  }
  return gen_strndup(from, end - from);
}

}  // namespace

ArgumentVector::ArgumentVector(ArgumentVector&& other) noexcept : ArgumentVector() {
  *this = std::move(other);
}

ArgumentVector& ArgumentVector::operator=(ArgumentVector&& other) noexcept {
  std::swap(texts_, other.texts_);
  std::swap(view_, other.view_);
  return *this;
}

ArgumentVector copyArguments(const char* const* vector, int count) {
  ArgumentVector copy;
  for (int i = 0; vector && i < count && vector[i]; ++i) insertArgument(copy, i, vector[i]);
  return copy;
}

ArgumentVector splitArguments(const char* text, bool dashFirst) {
  ArgumentVector words;
  if (!text) return words;
  while (*text) {
    const char* end = endOfWord(text);
    const gen_text word = wordBetween(text, end);
    const bool first = words.count() == 0;
    insertArgument(words, words.count(), gen_concat(first && dashFirst ? "-" : "", word));
    for (text = end; gen_is_blank(*text);) ++text;
  }
  return words;
}

void insertArgument(ArgumentVector& vector, int index, const char* text) {
  if (!text || index < 0 || index > vector.count()) return;
  const auto place = vector.texts_.insert(vector.texts_.begin() + index, gen_strdup(text));
  vector.view_.insert(vector.view_.begin() + index, place->get());
}

void insertArguments(ArgumentVector& vector, int index, const char* const* list) {
  if (index < 0) return;
  for (; list && *list; ++list) insertArgument(vector, index++, *list);
}

gen_text removeArgument(ArgumentVector& vector, int index) {
  if (index < 0 || index >= vector.count()) return {};
  const auto place = vector.texts_.begin() + index;
  gen_text removed = std::move(*place);
  vector.texts_.erase(place);
  vector.view_.erase(vector.view_.begin() + index);
  return removed;
}

void freeArguments(ArgumentVector& vector) {
  vector = ArgumentVector();
}
