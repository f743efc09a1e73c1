#include "services/hublink/text_pairs.h"

TextPairs::TextPairs(const StringArray& texts) {
  for (std::int32_t i = 0; i < texts.count; ++i) texts_.push_back(optionalText(texts.data[i]));
}

StringArray TextPairs::view() const {
  pointers_.clear();
  for (const OptionalText& text : texts_) pointers_.push_back(textOrNull(text));
  return {static_cast<std::int32_t>(pointers_.size()), pointers_.data()};
}

std::int64_t TextPairs::bytes() const {
  std::size_t bytes = texts_.size() * sizeof(OptionalText);
  for (const OptionalText& text : texts_) bytes += text ? text->size() : 0;
  return static_cast<std::int64_t>(bytes);
}
