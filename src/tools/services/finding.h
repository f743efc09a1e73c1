// What there is to say about a description file, and how the reports of the hub's code become that.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace services {

enum class Severity : std::uint8_t { error, warning, info };

const char* wordOf(Severity severity);

/// A line of a file; 0 stands for no known line.
struct Place {
  std::string file;
  int line = 0;
};

struct Finding {
  Severity severity = Severity::error;
  Place place;
  std::string text;
};

/// The place that a token stream calls `"file", line N`; without a file if `position` is none.
Place placeOf(std::string_view position);

/// Takes the reports of the support library as long as it lives, in place of the reporter in use;
/// of several the youngest takes them. A place that stands in front of a report's text moves from
/// there to the finding, and any other report gets what `where` gives.
class ReportCapture {
 public:
  using Where = std::function<Place()>;

  ReportCapture(std::vector<Finding>& findings, Where where);
  ~ReportCapture();
  ReportCapture(const ReportCapture&) = delete;
  ReportCapture& operator=(const ReportCapture&) = delete;

 private:
  static void report(int code, const char* format, std::va_list arguments);
  static ReportCapture* youngest_;

  std::vector<Finding>& findings_;
  Where where_;
  ReportCapture* elder_;
  void (*reporter_)(int code, const char* format, std::va_list arguments);
};

}  // namespace services
