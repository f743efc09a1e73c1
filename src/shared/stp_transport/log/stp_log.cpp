#include "stp_transport/log/stp_log.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "indgen/format.h"
#include "libcxxutil/ut_clock.h"

void STPLog::write(const char* text) {
  if (text) write(text, std::strlen(text));
}

void STPLog::printf(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
}

void STPLog::vprintf(const char* format, std::va_list arguments) {
  const gen_text text = gen_vasprintf(format, arguments);
  if (text) write(text, std::strlen(text));
}

void STPLog::begin(const STPSpecClass*, std::uint32_t) {}

void STPLog::end(const STPSpecClass*, std::uint32_t) {}

STPFileLog::STPFileLog(std::FILE* file, bool owned) : file_(file), owned_(owned) {}

STPFileLog::~STPFileLog() {
  if (owned_ && file_) std::fclose(file_);
}

void STPFileLog::write(const char* bytes, std::size_t length) {
  if (!file_) return;
  std::fwrite(bytes, 1, length, file_);
  if (!std::ferror(file_) || std::exchange(failureTold_, true)) return;
  std::fprintf(stderr, "Warning: Unable to write a log: %s.\n", std::strerror(errno));
}

void TimestampedSTPFileLog::begin(const STPSpecClass*, std::uint32_t) {
  const auto now = static_cast<long long>(systemTimeMilliseconds());
  printf("%lld.%.3u: ", now / 1000, static_cast<unsigned>(now % 1000));
}
