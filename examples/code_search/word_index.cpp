#include "word_index.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

constexpr std::uintmax_t kLargestFile = 1 << 20;

bool belongsToWord(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

std::vector<std::string> linesOf(const std::string& path) {
  std::error_code failure;
  const std::uintmax_t size = std::filesystem::file_size(path, failure);
  if (failure || size > kLargestFile) return {};
  std::ifstream file(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    if (line.find('\0') != std::string::npos) return {};
    lines.push_back(std::move(line));
  }
  return lines;
}

template <class Visit>
void forEachWord(std::string_view line, Visit visit) {
  for (auto at = line.begin(); at != line.end();) {
    const auto begin = std::find_if(at, line.end(), belongsToWord);
    at = std::find_if_not(begin, line.end(), belongsToWord);
    if (begin != at) visit(std::string_view(begin, at));
  }
}

bool hasWord(std::string_view line, std::string_view word) {
  bool isFound = false;
  forEachWord(line, [&](std::string_view each) { isFound = isFound || each == word; });
  return isFound;
}

}  // namespace

void WordIndex::put(const std::string& path) {
  remove(path);
  std::vector<std::string>& lines = lines_[path];
  lines = linesOf(path);
  for (const std::string& line : lines)
    forEachWord(line, [&](std::string_view word) { places_[std::string(word)].insert(path); });
}

void WordIndex::remove(const std::string& path) {
  const auto node = lines_.extract(path);
  if (node.empty()) return;
  for (const std::string& line : node.mapped())
    forEachWord(line, [&](std::string_view word) {
      const auto place = places_.find(std::string(word));
      if (place == places_.end()) return;
      place->second.erase(path);
      if (place->second.empty()) places_.erase(place);
    });
}

void WordIndex::clear() {
  lines_.clear();
  places_.clear();
}

std::size_t WordIndex::find(std::string_view word, const PlaceHandler& handler) const {
  const auto place = places_.find(std::string(word));
  if (place == places_.end()) return 0;
  std::size_t found = 0;
  for (const std::string& path : place->second) {
    const std::vector<std::string>& lines = lines_.at(path);
    for (std::size_t i = 0; i < lines.size(); ++i)
      if (hasWord(lines[i], word)) {
        handler(path, i + 1, lines[i]);
        ++found;
      }
  }
  return found;
}
