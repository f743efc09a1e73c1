#include "bench/report.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "bench/statistics.h"

namespace {

constexpr std::size_t kTitle = 52, kUnit = 10, kValue = 23, kRatio = 20;
constexpr std::array kShown{Path::direct, Path::relay, Path::hub};

std::string padded(std::string text, std::size_t width, bool left = false) {
  const std::string blanks(width > text.size() ? width - text.size() : 0, ' ');
  return left ? text + blanks : blanks + text;
}

std::string number(double value, int decimals) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string cell(const Row& row, Path path) {
  const std::vector<double>& blocks = row.of(path);
  if (blocks.empty()) return "-";
  const auto [least, most] = std::minmax_element(blocks.begin(), blocks.end());
  return number(medianOf(blocks), row.decimals) + " (" + number(*least, row.decimals) + ".." +
         number(*most, row.decimals) + ")";
}

std::string ratio(const Row& row, Path other) {
  const std::optional<Ratio> value = row.hubRatio(other);
  if (!value) return "-";
  return number(value->median, 2) + "x (" + number(value->lowerQuartile, 2) + ".." +
         number(value->upperQuartile, 2) + ")";
}

// What the columns hold in place of the bare connection and the relay; mostly empty.
std::string noteOf(const Row& row) {
  std::string note = row.yardstick.empty() ? "" : "direct: " + row.yardstick;
  if (!row.otherYardstick.empty()) note += "; relay: " + row.otherYardstick;
  return note;
}

nlohmann::ordered_json jsonOf(const Ratio& ratio) {
  return {{"median", ratio.median}, {"quartiles", {ratio.lowerQuartile, ratio.upperQuartile}}};
}

}  // namespace

std::optional<Ratio> Row::hubRatio(Path other) const {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < std::min(of(Path::hub).size(), of(other).size()); ++i)
    ratios.push_back(of(Path::hub)[i] / of(other)[i]);
  if (ratios.empty()) return std::nullopt;
  return Ratio{medianOf(ratios), quantileOf(ratios, 0.25), quantileOf(ratios, 0.75)};
}

std::string tableOf(const std::vector<Row>& rows) {
  std::string table = padded("", kTitle + kUnit);
  for (const Path path : kShown) table += ' ' + padded(pathName(path), kValue);
  table += padded("hub/direct", kRatio) + padded("hub/relay", kRatio) +
           padded("hub/TCP relay", kRatio) + '\n';
  std::vector<std::string> notes;
  for (const Row& row : rows) {
    std::string title = row.title;
    if (const std::string text = noteOf(row); !text.empty()) {
      auto note = std::find(notes.begin(), notes.end(), text);
      if (note == notes.end()) note = notes.insert(note, text);
      title += " [" + std::to_string(note - notes.begin() + 1) + "]";
    }
    table += padded(title, kTitle, true) + padded(row.unit, kUnit, true);
    for (const Path path : kShown) table += ' ' + padded(cell(row, path), kValue);
    for (const Path path : {Path::direct, Path::relay, Path::tcpRelay})
      table += padded(ratio(row, path), kRatio);
    table += '\n';
  }
  for (std::size_t i = 0; i < notes.size(); ++i)
    table += (i == 0 ? "\n[" : "[") + std::to_string(i + 1) + "] " + notes[i] + '\n';
  return table;
}

bool writeJson(const std::string& file, const std::vector<Row>& rows) {
  nlohmann::ordered_json all;
  all["build"] = HUBLINK_BUILD_TYPE;
  for (const Row& row : rows) {
    nlohmann::ordered_json entry;
    entry["name"] = row.key;
    entry["unit"] = row.unit;
    if (!row.yardstick.empty()) entry["direct_is"] = row.yardstick;
    if (!row.otherYardstick.empty()) entry["relay_is"] = row.otherYardstick;
    for (const Path path : kPaths)
      if (!row.of(path).empty())
        entry[pathName(path)] = {{"median", medianOf(row.of(path))}, {"blocks", row.of(path)}};
    if (const auto ratio = row.hubRatio(Path::direct)) entry["hub_to_direct"] = jsonOf(*ratio);
    if (const auto ratio = row.hubRatio(Path::relay)) entry["hub_to_relay"] = jsonOf(*ratio);
    if (const auto ratio = row.hubRatio(Path::tcpRelay)) entry["hub_to_tcp_relay"] = jsonOf(*ratio);
    all["rows"].push_back(entry);
  }
  std::ofstream out(file);
  out << all.dump(2) << '\n';
  return out.good();
}

std::string grouped(int number) {
  std::string text = std::to_string(number);
  for (std::size_t place = text.size(); place > 3;) text.insert(place -= 3, ",");
  return text;
}
