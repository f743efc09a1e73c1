// A directory of its own for each test, gone with the test.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "indgen/temporary.h"

class Scratch {
 public:
  Scratch() : path_(gen_make_unique_directory(nullptr, 0700).get()) {}
  ~Scratch() { std::filesystem::remove_all(path_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(*this / name, std::ios::binary) << text;
    return *this / name;
  }

 private:
  std::string path_;
};

inline std::string contents(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}
