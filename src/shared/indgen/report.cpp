#include "indgen/report.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Keeps the name out of the reach of static destruction.
union Undestroyed {
  constexpr Undestroyed() : text() {}
  ~Undestroyed() {}
  gen_text text;
};
constinit Undestroyed programNameStorage;

constexpr int kLevels = 7;
constexpr const char* kLevelWords[kLevels] = {nullptr,   "disaster", "fatal", "error",
                                              "warning", "info",     nullptr};

bool endsInLineEnd(const char* format) {
  const std::size_t length = std::strlen(format);
  return length > 0 && format[length - 1] == '\n';
}

void standardReport(int code, const char* format, std::va_list arguments) {
  const int savedError = errno;
  const bool withError = code > GEN_WITH_ERRNO && savedError != 0;
  if (code > GEN_WITH_ERRNO) code -= GEN_WITH_ERRNO;
  if (!format) format = "";

  const char* word = nullptr;
  if (code >= 0 && code < kLevels) {
    word = kLevelWords[code];
    ++gen_error_count[code];
    if (code < GEN_WARNING) ++gen_error_total;
  }

  std::fflush(stdout);
  if (program_name && *program_name && code != GEN_RAW)
    std::fprintf(stderr, "%s: ", program_name.get());
  if (word) std::fprintf(stderr, "%s: ", word);
  std::vfprintf(stderr, format, arguments);
  if (withError)
    std::fprintf(stderr, ": %s\n", std::strerror(savedError));
  else if (!endsInLineEnd(format))
    std::fputc('\n', stderr);
  std::fflush(stderr);
  errno = withError ? 0 : savedError;
}

// A plain byte: the second call comes from the clean-up that the first one runs.
bool exiting = false;

void standardExit(int status) {
  if (exiting) std::_Exit(status);
  exiting = true;
  std::exit(status);
}

}  // namespace

void (*gen_report)(int code, const char* format, std::va_list arguments) = standardReport;
void (*gen_exit_hook)(int status) = standardExit;
int gen_error_count[kLevels];
int gen_error_total = 0;
constinit gen_text& program_name = programNameStorage.text;

void gen_exit_message(int status, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_report(status == 0 ? GEN_PLAIN : GEN_FATAL, format, arguments);
  va_end(arguments);
  gen_exit(status);
}

void gen_fatal_errno(int status, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_report(GEN_WITH_ERRNO + GEN_FATAL, format, arguments);
  va_end(arguments);
  gen_exit(status);
}

void gen_errno_report(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_report(GEN_WITH_ERRNO + GEN_FATAL, format, arguments);
  va_end(arguments);
}

void gen_error(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_report(GEN_ERROR, format, arguments);
  va_end(arguments);
}

void gen_warning(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_report(GEN_WARNING, format, arguments);
  va_end(arguments);
}

void gen_info(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_report(GEN_INFO, format, arguments);
  va_end(arguments);
}

void gen_raw(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_report(GEN_RAW, format, arguments);
  va_end(arguments);
}

void gen_exit(int status) {
  gen_exit_hook(status);
  std::_Exit(status);
}

void gen_assert(bool condition, const char* expression, const char* file, int line, int code) {
  if (condition) return;
  std::fflush(stdout);
  std::fputs("Assertion ", stderr);
  if (expression && std::strcmp(expression, "x") != 0) std::fprintf(stderr, "(%s) ", expression);
  if (code != 0) std::fprintf(stderr, "[%d] ", code);
  std::fprintf(stderr, "failed in '%s' on line %d", file ? file : "", line);
  if (program_name && *program_name) std::fprintf(stderr, " in %s", program_name.get());
  std::fputc('\n', stderr);
  gen_exit(1);
}
