#include "services/hublink/hub_log.h"

#include "services/hublink/hublink_connection.h"

HLInternalFileLog::HLInternalFileLog(Hublink* hub, std::FILE* file, bool owned)
    : TimestampedSTPFileLog(file, owned), hub_(hub) {}

HLInternalFileLog::~HLInternalFileLog() = default;

void HLInternalFileLog::begin(const STPSpecClass* spec, std::uint32_t flag) {
  TimestampedSTPFileLog::begin(spec, flag);
  const auto* connection = dynamic_cast<const HublinkConnection*>(spec);
  const int id = connection ? connection->getPluginID() : -1;
  if (connection && !connection->getName().empty())
    printf("%s(%d):\t ", connection->getName().c_str(), id);
  else
    printf("Plugin %d:\t ", id);
}

void HLInternalFileLog::writeOwnLine(const char* format, std::va_list arguments) {
  TimestampedSTPFileLog::begin(nullptr, 1);
  vprintf(format, arguments);
}
