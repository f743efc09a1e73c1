#include "services/hublink/active_hub_record.h"

ActiveHubRecord::ActiveHubRecord(std::uint32_t port, const char* zone)
    : port_(port), zone_(zone ? zone : "") {}

// With no file there is nobody to lock it against.
bool ActiveHubRecord::lock() {
  return port_ != 0;
}

void ActiveHubRecord::remove() {}

void ActiveHubRecord::unlock() {}
