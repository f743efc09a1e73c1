// What the time in front of a log's line looks like, for those who write lines and who read them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

/// "13440040190.217: ": eleven digits for the next thousand years and the last.
inline constexpr std::size_t kTimeStampLength = 17;

/// Stands in front of what looks like a time within a text that goes on over several lines, one
/// more than in the text itself.
inline constexpr char kNoTimeStamp = '>';

inline bool beginsWithTimeStamp(std::string_view text) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  return text.size() >= kTimeStampLength && text[11] == '.' && text[15] == ':' && text[16] == ' ' &&
         std::all_of(text.begin(), text.begin() + 11, isDigit) &&
         std::all_of(text.begin() + 12, text.begin() + 15, isDigit);
}

/// Where the next time begins, from `from` on; npos if none does.
inline std::size_t findTimeStamp(std::string_view text, std::size_t from) {
  for (std::size_t point = text.find('.', from); point != text.npos;
       point = text.find('.', point + 1))
    if (point >= from + 11 && beginsWithTimeStamp(text.substr(point - 11))) return point - 11;
  return text.npos;
}
