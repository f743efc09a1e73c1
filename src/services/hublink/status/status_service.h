// The service that the hub itself provides: it tells what it holds, and what happens, to whoever
// asks (interfaces/hub_status.stp), and does a few things that its owner may want.
//
// Each viewer has a desk of its own, which lives on the viewer's link, under an address of the link
// that no RN has. The hub takes no plugin ID for it and stands in none of its own tables.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <utility>

#include "services/hublink/status/status_desk.h"
#include "stp_transport/transport/counted_ptr.h"

class HubEvents;
class Hublink;
class HublinkConnection;

class StatusService {
 public:
  static constexpr const char* kName = "hublink.status";
  /// The hub's end of the links to viewers.
  static constexpr std::int32_t kRN = 4;
  /// In place of a plugin ID.
  static constexpr std::int32_t kPluginID = 0;

  StatusService(Hublink& hub, HubEvents& events) : hub_(hub), events_(events) {}
  ~StatusService();
  StatusService(const StatusService&) = delete;
  StatusService& operator=(const StatusService&) = delete;

  /// Opens a desk for a viewer, whose end of the link is `viewerRN`.
  void open(HublinkConnection* viewer, std::int32_t viewerRN);
  /// Closes the desk; nothing happens if there is none.
  void close(const HublinkConnection* viewer, std::int32_t viewerRN);
  /// The viewer has gone.
  void closeAll(const HublinkConnection* viewer);
  /// Has the messages of all viewers traced in the hub's internal log that there is now, if any.
  void traceAll();

 private:
  Hublink& hub_;
  HubEvents& events_;
  std::map<std::pair<const HublinkConnection*, std::int32_t>, CountedPtr<StatusDesk>> desks_;
};
