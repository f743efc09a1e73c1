#include "tools/services/finding.h"

#include <cerrno>
#include <charconv>
#include <cstring>

#include "indgen/format.h"
#include "indgen/report.h"

namespace services {
namespace {

constexpr std::string_view kLineWord = "\", line ";
constexpr std::string_view kReferenced = "\" which was referenced at \"";

int numberAt(std::string_view text, std::size_t& place) {
  int number = 0;
  const auto [end, failure] =
      std::from_chars(text.data() + place, text.data() + text.size(), number);
  place = static_cast<std::size_t>(end - text.data());
  return failure == std::errc() ? number : 0;
}

// Where a position in front of `text` ends; 0 if there is none.
std::size_t takePosition(std::string_view text, Place& place) {
  const std::size_t word = text.find(kLineWord);
  if (!text.starts_with('"') || word == std::string_view::npos) return 0;
  std::size_t end = word + kLineWord.size();
  const int line = numberAt(text, end);
  if (line == 0) return 0;
  place = {std::string(text.substr(1, word - 1)), line};
  return end;
}

// A missing include is reported with its place at the end, and the line is the one behind it.
void takeReference(std::string_view text, Place& place) {
  const std::size_t reference = text.find(kReferenced);
  const std::size_t colon = text.rfind("\":");
  if (reference == std::string_view::npos || colon == std::string_view::npos) return;
  const std::size_t file = reference + kReferenced.size();
  std::size_t number = colon + 2;
  if (file <= colon)
    place = {std::string(text.substr(file, colon - file)), numberAt(text, number) - 1};
}

// Without a blank that set the text off from what stood in front of it, and without a line end.
std::string trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \n") + 1 - first));
}

Finding findingOf(Severity severity, std::string_view text, const ReportCapture::Where& where) {
  Finding finding{severity, {}, {}};
  const std::size_t end = takePosition(text, finding.place);
  text.remove_prefix(end);
  if (end == 0) {
    finding.place = where();
    takeReference(text, finding.place);
  }
  // What the severity tells already.
  for (const std::string_view word : {": ", "error: "})
    if (end > 0 && text.starts_with(word)) text.remove_prefix(word.size());
  finding.text = trimmed(text);
  return finding;
}

}  // namespace

const char* wordOf(Severity severity) {
  static constexpr const char* kWords[] = {"error", "warning", "info"};
  return kWords[static_cast<std::size_t>(severity)];
}

Place placeOf(std::string_view position) {
  Place place;
  takePosition(position, place);
  return place;
}

ReportCapture* ReportCapture::youngest_ = nullptr;

ReportCapture::ReportCapture(std::vector<Finding>& findings, Where where)
    : findings_(findings), where_(std::move(where)), elder_(youngest_), reporter_(gen_report) {
  youngest_ = this;
  gen_report = report;
}

ReportCapture::~ReportCapture() {
  gen_report = reporter_;
  youngest_ = elder_;
}

void ReportCapture::report(int code, const char* format, std::va_list arguments) {
  const int failure = errno;
  const int level = code > GEN_WITH_ERRNO ? code - GEN_WITH_ERRNO : code;
  const gen_text formatted = gen_vasprintf(format, arguments);
  std::string text(formatted ? formatted.get() : "");
  if (level != code && failure != 0) text.append(": ").append(std::strerror(failure));
  const Severity severity = level < GEN_WARNING    ? Severity::error
                            : level == GEN_WARNING ? Severity::warning
                                                   : Severity::info;
  youngest_->findings_.push_back(findingOf(severity, text, youngest_->where_));
}

}  // namespace services
