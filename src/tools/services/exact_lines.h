// The exact lines of a description file.
//
// A token stream names the line where it began to read for its next statement. Directives and
// hidden lines that it passes on the way don't count, so that what it names may lie far above what
// it means. Here the lines are counted one by one, with the hub's preprocessor to tell which of
// them are hidden and which other files they bring in.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "indgen/memory.h"
#include "libcxxutil/simple_preprocessor.h"
#include "tools/services/finding.h"

namespace services {

class ExactLines {
 public:
  /// Goes through `file` and what it includes, opening no more than `most_files`. `macros` are
  /// those that every file sees.
  ExactLines(const char* file, ut_macro_table& macros, std::size_t most_files);

  /// The place of the statement that a token stream puts at `named`, which is given back if nothing
  /// better is known.
  Place of_statement(const Place& named) const;
  /// The place of a directive's report that a token stream puts at `named`. Of equal reports each
  /// is given once, in order; without one it is a statement's.
  Place of_report(const Place& named, const std::string& text);

 private:
  struct CloseFile {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
  };
  struct File {
    std::string name;
    gen_text directory;
    std::unique_ptr<std::FILE, CloseFile> stream;
    int next = 1;
  };
  struct DirectiveReport {
    int line;
    std::string text;
  };
  using Key = std::pair<std::string, int>;

  bool open(const char* name);
  void close();
  void deliver();
  bool readPhysicalLine(File& file, std::string& line);

  ut_work_budget budget_;
  simple_preprocessor preprocessor_;
  std::vector<File> files_;  // the innermost last
  std::size_t files_left_;
  std::size_t input_left_;
  Place here_;  // the line that is being handled
  std::vector<Finding> reports_;
  // Both by the place that a token stream names.
  std::map<Key, int> statements_;
  std::multimap<Key, DirectiveReport> directives_;
};

}  // namespace services
