#include "services/hublink/status/status_service.h"

#include "services/hublink/hublink.h"
#include "services/hublink/status/status_desk.h"

StatusService::~StatusService() = default;

void StatusService::open(HublinkConnection* viewer, std::int32_t viewerRN) {
  desks_[{viewer, viewerRN}] =
      makeCounted<StatusDesk>(hub_, events_, viewer->getTransport(), kRN, viewerRN);
}

void StatusService::traceAll() {
  for (const auto& [viewer, desk] : desks_) desk->setLogs(hub_.log().internal());
}

void StatusService::close(const HublinkConnection* viewer, std::int32_t viewerRN) {
  const auto desk = desks_.find({viewer, viewerRN});
  if (desk == desks_.end()) return;
  desk->second->end();
  desks_.erase(desk);
}

void StatusService::closeAll(const HublinkConnection* viewer) {
  for (auto desk = desks_.lower_bound({viewer, 0});
       desk != desks_.end() && desk->first.first == viewer;) {
    desk->second->end();
    desk = desks_.erase(desk);
  }
}
