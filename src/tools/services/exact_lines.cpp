#include "tools/services/exact_lines.h"

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/report.h"
#include "libcxxutil/ut_continued_line.h"
#include "libcxxutil/ut_work_budget.h"

namespace services {

ExactLines::ExactLines(const char* file, ut_macro_table& macros, std::size_t most_files)
    : budget_(kMostReadingWork),
      preprocessor_('%', &macros, nullptr, budget_,
                    [](const char* message) { gen_error("%s", message); }),
      files_left_(most_files),
      input_left_(kMostReadingInput) {
  const ReportCapture capture(reports_, [this] { return here_; });
  if (!open(file)) return;
  while (!files_.empty() && input_left_ > 0 && !budget_.exhausted()) deliver();
}

Place ExactLines::of_statement(const Place& named) const {
  const auto line = statements_.find({named.file, named.line});
  return line == statements_.end() ? named : Place{named.file, line->second};
}

Place ExactLines::of_report(const Place& named, const std::string& text) {
  const auto [first, last] = directives_.equal_range({named.file, named.line});
  for (auto report = first; report != last; ++report) {
    if (report->second.text != text) continue;
    const int line = report->second.line;
    directives_.erase(report);
    return {named.file, line};
  }
  return of_statement(named);
}

bool ExactLines::open(const char* name) {
  if (files_left_ == 0 || !gen_is_regular_file(name)) return false;
  File file;
  file.stream.reset(V_fopen(name, "rt"));
  if (!file.stream) return false;
  --files_left_;
  file.name = name;
  file.directory = gen_directory_name(name);
  files_.push_back(std::move(file));
  preprocessor_.define_macro("__DIR__", files_.back().directory);
  return true;
}

void ExactLines::close() {
  files_.pop_back();
  if (!files_.empty()) preprocessor_.define_macro("__DIR__", files_.back().directory);
}

// One step of a token stream: up to the next line that isn't hidden, or to another file.
void ExactLines::deliver() {
  const Key named(files_.back().name, files_.back().next);
  std::string line;
  for (;;) {
    here_ = {files_.back().name, files_.back().next};
    const auto add = [&] { return readPhysicalLine(files_.back(), line); };
    if (!ut_read_continued_line(line, add)) return close();
    if (!line.starts_with('%')) {
      if (preprocessor_.is_skipping()) continue;
      statements_[named] = here_.line;
      return;
    }
    reports_.clear();
    preprocessor_.process_directive(line.c_str());
    for (Finding& report : reports_)
      directives_.insert({named, {here_.line, std::move(report.text)}});
    if (budget_.exhausted()) return;
    if (preprocessor_.is_skipping() || !preprocessor_.has_pending_include()) continue;
    // A file that can't be had ends the input.
    if (!open(gen_join(files_.back().directory, preprocessor_.pending_include()))) files_.clear();
    return;
  }
}

bool ExactLines::readPhysicalLine(File& file, std::string& line) {
  std::FILE* stream = file.stream.get();
  int c = std::getc(stream);
  if (c == EOF) return false;
  ++file.next;
  for (; c != EOF && input_left_ > 0; c = std::getc(stream)) {
    --input_left_;
    if (c == '\r') std::getc(stream);
    if (c == '\n' || c == '\r') break;
    line += static_cast<char>(c);
  }
  return true;
}

}  // namespace services
