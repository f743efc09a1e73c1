#include "services/hublink/hub_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

#include "indgen/own_file.h"
#include "indgen/printable.h"

std::FILE* openLogFile(const char* name, std::string& error) {
  std::FILE* const file = gen_open_log_file(name);
  if (file)
    std::setvbuf(file, nullptr, _IOLBF, BUFSIZ);
  else
    error = errno == EPERM ? "it belongs to another user" : std::strerror(errno);
  return file;
}

HubLog::HubLog(Hublink* hub, STPFileLog* pluginLog, std::FILE* internalFile)
    : hub_(hub), plugins_(pluginLog) {
  if (internalFile) internal_ = std::make_unique<HLInternalFileLog>(hub, internalFile, false);
}

void HubLog::endInternal() {
  internal_.reset();
  internalFile_.clear();
}

bool HubLog::switchInternal(const char* file, std::string& error) {
  std::FILE* const opened = openLogFile(file, error);
  if (!opened) return false;
  internal_ = std::make_unique<HLInternalFileLog>(hub_, opened, true);
  internalFile_ = file;
  return true;
}

void HubLog::logInternal(const char* format, ...) {
  if (!internal_) return;
  std::va_list arguments;
  va_start(arguments, format);
  internal_->writeOwnLine(format, arguments);
  va_end(arguments);
}

void HubLog::tellErrors(const char* program, std::string_view text) {
  const std::string name = gen_printable(program);
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string line = gen_printable(text.substr(0, end));
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
    if (line.empty()) continue;
    if (internal_)
      logInternal("%s: %s\n", name.c_str(), line.c_str());
    else
      std::fprintf(stderr, "hublink: %s: %s\n", name.c_str(), line.c_str());
  }
}
