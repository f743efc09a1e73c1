#include "tools/hublinkctl/table.h"

#include <algorithm>
#include <array>

#include "indgen/find.h"
#include "indgen/format.h"
#include "indgen/printable.h"
#include "platform/terminal.h"

namespace hublinkctl {
namespace {

constexpr std::size_t kGap = 2;         // columns between two
constexpr std::size_t kLeastWidth = 8;  // of a text that is cut

std::string amount(double value, const char* const* units, double step) {
  int unit = 0;
  for (; value >= step && units[unit + 1]; ++unit) value /= step;
  return gen_asprintf(unit == 0 || value >= 100 ? "%.0f%s" : "%.1f%s", value, units[unit]).get();
}

std::string duration(std::int64_t milliseconds) {
  constexpr struct {
    std::int64_t length;
    const char* unit;
  } kUnits[] = {{86400000, "d"}, {3600000, "h"}, {60000, "min"}, {1000, "s"}};
  for (const auto& [length, unit] : kUnits)
    if (milliseconds >= length) return std::to_string(milliseconds / length) + " " + unit;
  return std::to_string(std::max<std::int64_t>(milliseconds, 0)) + " ms";
}

bool isText(Shown how) {
  return how == Shown::text;
}

// How many columns a printable text takes: bytes that go on with a character take none.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

// The first or last `columns` of a printable text.
std::string part(const std::string& text, std::size_t columns, bool fromEnd) {
  const std::size_t skipped = fromEnd ? widthOf(text) - columns : columns;
  std::size_t place = 0, seen = 0;
  while (place < text.size()) {
    if ((static_cast<unsigned char>(text[place]) & 0xC0) != 0x80 && seen++ == skipped) break;
    ++place;
  }
  return fromEnd ? text.substr(place) : text.substr(0, place);
}

std::string cutTo(const std::string& text, std::size_t columns) {
  if (widthOf(text) <= columns) return text;
  const std::size_t room = columns - 1, end = room / 2;
  return part(text, room - end, false) + "…" + part(text, end, true);
}

// Takes columns from the widest texts until all fit.
void narrow(const std::vector<Column>& columns, std::vector<std::size_t>& widths,
            std::size_t width) {
  const auto total = [&] {
    std::size_t sum = 0;
    for (const std::size_t one : widths) sum += one + kGap;
    return sum - kGap;
  };
  while (total() > width) {
    std::size_t widest = widths.size();
    for (std::size_t i = 0; i < widths.size(); ++i)
      if (isText(columns[i].how) && widths[i] > kLeastWidth &&
          (widest == widths.size() || widths[i] > widths[widest]))
        widest = i;
    if (widest == widths.size()) return;
    --widths[widest];
  }
}

}  // namespace

std::string shownValue(const Facts& value, Shown how, std::int64_t now) {
  static constexpr std::array kBytes = {" B",   " KiB", " MiB",
                                        " GiB", " TiB", static_cast<const char*>(nullptr)};
  if (value.is_null()) return "-";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_string()) return gen_printable(value.get<std::string>());
  if (how == Shown::bytes) return amount(value.get<double>(), kBytes.data(), 1024);
  if (how == Shown::age) return duration(now - value.get<std::int64_t>());
  if (how == Shown::left) return duration(value.get<std::int64_t>() - now);
  return value.dump();
}

std::string tableOf(const std::vector<Column>& columns, const Facts& items, std::size_t width,
                    std::int64_t now) {
  std::vector<std::vector<std::string>> rows(1);
  for (const Column& column : columns) rows[0].emplace_back(column.title);
  for (const Facts& item : items) {
    rows.emplace_back();
    for (const Column& column : columns)
      rows.back().push_back(shownValue(item.value(column.field, Facts()), column.how, now));
  }
  std::vector<std::size_t> widths(columns.size());
  for (const auto& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
  if (width > 0) narrow(columns, widths, width);
  std::string table;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string cell = cutTo(row[i], widths[i]);
      const std::string fill(widths[i] - widthOf(cell), ' ');
      line += (i > 0 ? std::string(kGap, ' ') : "") +
              (isText(columns[i].how) ? cell + fill : fill + cell);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    table += line + '\n';
  }
  return table;
}

bool usesColours() {
  return platform::isTerminal(1) && *gen_getenv("NO_COLOR", "") == '\0';
}

std::string coloured(const std::string& table, const Facts& items) {
  constexpr const char* kTitles = "\x1b[1m";
  constexpr const char* kSlow = "\x1b[31m";
  constexpr const char* kEnd = "\x1b[0m";
  std::string text;
  std::size_t row = 0;
  for (std::size_t at = 0; at < table.size(); ++row) {
    const std::size_t end = table.find('\n', at);
    const std::string line = table.substr(at, end - at);
    const bool isSlow =
        row > 0 && row <= items.size() && !items[row - 1].value("slow_since", Facts()).is_null();
    const char* const colour = row == 0 ? kTitles : isSlow ? kSlow : nullptr;
    text += (colour ? colour + line + kEnd : line) + '\n';
    at = end + 1;
  }
  return text;
}

}  // namespace hublinkctl
