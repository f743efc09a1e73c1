// Lists of facts as columns for people: as wide as the terminal, numbers to the right, texts cut in
// their middle where there is no room.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/hublinkctl/session.h"

namespace hublinkctl {

enum class Shown : std::uint8_t {
  text,   ///< as it is, made fit for a terminal
  count,  ///< a number
  bytes,  ///< with a unit
  age,    ///< how long ago a time was, with a unit
  left,   ///< how long until then
};

struct Column {
  const char* title;
  const char* field;  ///< the fact's name
  Shown how = Shown::text;
};

/// A value as a column shows it; "-" for null. `now` is in ms since 1970.
std::string shownValue(const Facts& value, Shown how, std::int64_t now);
/// A line for the titles and one for each item, with line ends. `width` in columns; 0: no limit.
std::string tableOf(const std::vector<Column>& columns, const Facts& items, std::size_t width,
                    std::int64_t now);

/// Whether the standard output is a terminal whose user hasn't asked for none (`NO_COLOR`).
bool usesColours();
/// A table of `items` with its titles and the slow receivers among them set off by colours.
std::string coloured(const std::string& table, const Facts& items);

}  // namespace hublinkctl
