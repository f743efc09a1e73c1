// One input of the configuration reader, for the fuzzer and for the tests: any bytes are read as a
// file, with the plain settings and with all of them; what was read in full is written, and must
// read back as the same.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "indgen/report.h"
#include "indgen/temporary.h"
#include "libcxxutil/ut_options_database.h"

class OptionsInput {
 public:
  OptionsInput() : directory_(gen_make_unique_directory(nullptr, 0700).get()) {
    gen_report = [](int, const char* format, std::va_list arguments) {
      std::vsnprintf(nullptr, 0, format, arguments);
    };
  }
  ~OptionsInput() {
    gen_report = report_;
    std::filesystem::remove_all(directory_);
  }
  OptionsInput(const OptionsInput&) = delete;
  OptionsInput& operator=(const OptionsInput&) = delete;

  /// False if something that was written didn't come back. The file is named `self`, so that an
  /// input can include itself.
  bool check(const char* data, std::size_t size) const {
    const std::string file = directory_ + "/self";
    std::ofstream(file, std::ios::binary).write(data, static_cast<std::streamsize>(size));
    ut_options_database all("all"), plain("plain");
    all.settings() = {false, true, true};
    if (all.read(file.c_str()) && size < kMostWritten && !same(all)) return false;
    return !plain.read(file.c_str()) || size >= kMostWritten || same(plain);
  }

 private:
  // Nested blocks are indented, so that a deep tree is a large file.
  static constexpr std::size_t kMostWritten = 1000;

  bool same(const ut_options_database& options) const {
    const std::string first = directory_ + "/first", second = directory_ + "/second";
    ut_options_database again("again");
    again.set_integer_lists(true);
    return options.write_to_file(first.c_str()) && again.read(first.c_str()) &&
           again.write_to_file(second.c_str()) && text(first) == text(second);
  }
  static std::string text(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  const std::string directory_;
  decltype(gen_report) report_ = gen_report;
};
