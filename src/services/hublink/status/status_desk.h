// The hub's side of its status interface on the link of one viewer: answers questions from the
// hub's tables, page by page, and passes on what happens.
//
// A viewer that doesn't read loses events, and is told how many: it holds up nobody.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "generated/hubstatus_hub_impl.h"
#include "services/hublink/hub_events.h"
#include "services/hublink/status/hub_reader.h"

class StatusDesk : public HubStatus_hub_Impl {
 public:
  /// On the viewer's transport, between the hub's address `ownRN` and the viewer's.
  StatusDesk(Hublink& hub, HubEvents& events, STPTransport* link, std::int32_t ownRN,
             std::int32_t viewerRN);
  /// Takes it off the link.
  void end();

 protected:
  ~StatusDesk() override;

  void RequestHub(std::int32_t cookie) override;
  void RequestPlugins(std::int32_t cookie, const char* after, std::int32_t most) override;
  void RequestServices(std::int32_t cookie, const char* after, std::int32_t most) override;
  void RequestLinks(std::int32_t cookie, const char* after, std::int32_t most) override;
  void RequestLaunches(std::int32_t cookie, const char* after, std::int32_t most) override;
  void Subscribe(bool events) override;
  void KickPlugin(std::int32_t plugin_id, gen_text& error) override;
  void StopHub(bool when_idle, gen_text& error) override;
  void SetInternalLog(const char* file, gen_text& error) override;

 private:
  void finish(std::int32_t cookie, const std::string& next);
  void pass(const Happening& event);
  /// Whether the viewer may have the hub do something; if not, `error` says so.
  bool mayCommand(gen_text& error) const;

  Hublink& hub_;
  HubEvents& events_;
  HubReader reader_;
  std::optional<HubEvents::Place> subscription_;
  std::int32_t lost_ = 0;  // events since the last one that was passed on
};
