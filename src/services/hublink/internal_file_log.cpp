#include "services/hublink/internal_file_log.h"

#include <string>
#include <string_view>

#include "indgen/format.h"
#include "services/hublink/hublink_connection.h"
#include "stp_transport/log/time_stamp.h"

namespace {

std::string onOneLine(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '\n')
      result += "\\n";
    else if (c == '\t')
      result += "\\t";
    else
      result += c;
  }
  return result;
}

}  // namespace

HLInternalFileLog::HLInternalFileLog(Hublink* hub, std::FILE* file, bool owned)
    : TimestampedSTPFileLog(file, owned), hub_(hub) {}

HLInternalFileLog::~HLInternalFileLog() = default;

void HLInternalFileLog::write(const char* bytes, std::size_t length) {
  const std::string_view text(bytes, length);
  std::size_t written = 0;
  const std::size_t lineEnd = goesOn_ ? 0 : text.find('\n');
  if (lineEnd != text.npos) {
    goesOn_ = true;
    for (std::size_t stamp = findTimeStamp(text, lineEnd); stamp != text.npos;
         stamp = findTimeStamp(text, stamp + 1)) {
      TimestampedSTPFileLog::write(bytes + written, stamp - written);
      TimestampedSTPFileLog::write(&kNoTimeStamp, 1);
      written = stamp;
    }
  }
  TimestampedSTPFileLog::write(bytes + written, length - written);
}

void HLInternalFileLog::begin(const STPSpecClass* spec, std::uint32_t flag) {
  goesOn_ = false;
  TimestampedSTPFileLog::begin(spec, flag);
  const auto* connection = dynamic_cast<const HublinkConnection*>(spec);
  const int id = connection ? connection->getPluginID() : -1;
  if (connection && !connection->getName().empty())
    printf("%s(%d):\t ", onOneLine(connection->getName()).c_str(), id);
  else
    printf("Plugin %d:\t ", id);
}

void HLInternalFileLog::writeOwnLine(const char* format, std::va_list arguments) {
  goesOn_ = false;
  TimestampedSTPFileLog::begin(nullptr, 1);
  const gen_text formatted = gen_vasprintf(format, arguments);
  std::string_view text(formatted ? formatted.get() : "");
  const bool ended = text.ends_with('\n');
  if (ended) text.remove_suffix(1);
  const std::string line = onOneLine(text) + (ended ? "\n" : "");
  write(line.data(), line.size());
}
