// The fields of a message in a log line.
//
// Texts stand between quotes and aren't escaped, so that a quote inside one is told from its end
// only by what follows: the end of the line, or the next field with a value behind its name.
#pragma once

#include <string_view>
#include <vector>

#include "tools/hublinkctl/trace/trace_event.h"

namespace trace {

/// Takes `word` from the front of `text`, if it stands there.
inline bool take(std::string_view& text, std::string_view word) {
  if (!text.starts_with(word)) return false;
  text.remove_prefix(word.size());
  return true;
}

/// Reads fields from the front of `text`, appends them, and gives what is left: empty if all could
/// be read.
std::string_view readFields(std::string_view text, std::vector<Field>& fields);

}  // namespace trace
