// Reads a format string: the fields of one message and of its reply.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/stpc/catalogue.h"

namespace stpc {

/// A format with the place in the file of each character and, last, of its end.
struct FormatText {
  std::string text;
  std::vector<Position> places;
};

struct ParsedFormat {
  bool hasReply = false;  ///< the reply marker is there
  Position marker;        ///< its place
  std::vector<Field> fields;
  std::vector<Field> reply;
  Error error;  ///< the first fault; empty if the format is good
};

ParsedFormat parseFormat(const FormatText& format);

}  // namespace stpc
