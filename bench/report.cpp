#include "bench/report.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

namespace {

// A line of text and five numbers; the two last are ratios.
std::string line(const Figure& figure) {
  char text[160];
  std::snprintf(text, sizeof text, "%-26s %-9s %11.*f %11.*f %11.*f %11.2fx %10.2fx\n",
                figure.title, figure.unit, figure.decimals, figure.median(Path::direct),
                figure.decimals, figure.median(Path::relay), figure.decimals,
                figure.median(Path::hub), figure.hubRatio(Path::direct),
                figure.hubRatio(Path::relay));
  return text;
}

}  // namespace

double Figure::median(Path path) const {
  std::vector<double> sorted = runs[static_cast<std::size_t>(path)];
  if (sorted.empty()) return 0;
  std::sort(sorted.begin(), sorted.end());
  const std::size_t middle = sorted.size() / 2;
  return sorted.size() % 2 != 0 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

std::string tableOf(const std::vector<Figure>& figures) {
  char head[160];
  std::snprintf(head, sizeof head, "%-36s %11s %11s %11s %12s %11s\n", "", "direct", "relay", "hub",
                "hub/direct", "hub/relay");
  std::string table = head;
  for (const Figure& figure : figures) table += line(figure);
  return table;
}

bool writeJson(const std::string& file, const std::vector<Figure>& figures) {
  nlohmann::ordered_json all;
  all["build"] = HUBLINK_BUILD_TYPE;
  for (const Figure& figure : figures) {
    nlohmann::ordered_json entry;
    entry["name"] = figure.key;
    entry["unit"] = figure.unit;
    for (const Path path : kPaths)
      entry[pathName(path)] = {{"median", figure.median(path)},
                               {"runs", figure.runs[static_cast<std::size_t>(path)]}};
    entry["hub_to_direct"] = figure.hubRatio(Path::direct);
    entry["hub_to_relay"] = figure.hubRatio(Path::relay);
    all["figures"].push_back(entry);
  }
  std::ofstream out(file);
  out << all.dump(2) << '\n';
  return out.good();
}
