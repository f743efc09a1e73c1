// Which words stand in which lines of which files. Words are letters, digits and underscores; other
// bytes than ASCII count as letters.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class WordIndex {
 public:
  /// Reads a file in place of what is known of it. One that can't be read, is larger than 1 MiB or
  /// holds zero bytes is known without words.
  void put(const std::string& path);
  void remove(const std::string& path);
  void clear();

  std::size_t files() const { return lines_.size(); }
  std::size_t words() const { return places_.size(); }

  /// Tells each line with the word once, in the order of paths and lines (from 1 on), and gives
  /// their number.
  using PlaceHandler =
      std::function<void(const std::string& path, std::size_t line, const std::string& text)>;
  std::size_t find(std::string_view word, const PlaceHandler& handler) const;

 private:
  std::map<std::string, std::vector<std::string>> lines_;  // by path
  // By word the paths in which it stands.
  std::unordered_map<std::string, std::set<std::string>> places_;
};
