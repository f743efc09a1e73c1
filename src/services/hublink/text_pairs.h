// Texts of a message that are kept beyond its handler.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "generated/hublink_router_impl.h"

/// A text field that may be none.
using OptionalText = std::optional<std::string>;

inline OptionalText optionalText(const char* text) {
  return text ? OptionalText(text) : OptionalText();
}
inline const char* textOrNull(const OptionalText& text) {
  return text ? text->c_str() : nullptr;
}

/// An owned copy of a message's array of texts, which may be null.
class TextPairs {
 public:
  TextPairs() = default;
  explicit TextPairs(const StringArray& texts);
  /// The texts as a message takes them, valid while this object isn't changed or moved.
  StringArray view() const;
  /// What the texts take.
  std::int64_t bytes() const;

 private:
  std::vector<OptionalText> texts_;
  mutable std::vector<const char*> pointers_;
};
