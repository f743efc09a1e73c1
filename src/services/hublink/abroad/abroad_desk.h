// The hub's side of its interface with a bridge, on that bridge's link: passes questions on, hands
// the answers to the service, and notes which connections stand for plugins of other machines.
#pragma once

#include <cstdint>
#include <string>

#include "generated/hubbridge_hub_impl.h"

class AbroadService;
class Hublink;
class HublinkConnection;
struct AbroadQuestion;

class AbroadDesk : public HubBridge_hub_Impl {
 public:
  /// On the bridge's transport, between the hub's address `ownRN` and the bridge's.
  AbroadDesk(Hublink& hub, AbroadService& service, const HublinkConnection* bridge,
             std::int32_t ownRN, std::int32_t bridgeRN);
  /// Takes it off the link.
  void end();

  const HublinkConnection* bridge() const { return bridge_; }
  std::int32_t bridgeRN() const { return getDestinationRN(); }
  /// By order of arrival, from 1 on; 0 as long as the bridge can't be asked.
  std::uint32_t serial() const { return serial_; }
  void setSerial(std::uint32_t serial) { serial_ = serial; }

  /// Puts the question; false if the bridge doesn't take it.
  bool ask(std::int32_t cookie, const AbroadQuestion& question);

 protected:
  ~AbroadDesk() override;

  void peerRecordTaken() override;
  void StandsFor(std::int32_t plugin_id, const char* machine, const char* program,
                 std::int32_t remote_id, gen_text& error) override;
  void Found(std::int32_t cookie, std::int32_t plugin_id, std::int32_t rn) override;
  void NotFound(std::int32_t cookie) override;

 private:
  bool isOfThisBridge(const HublinkConnection& connection) const;

  Hublink& hub_;
  AbroadService& service_;
  const HublinkConnection* bridge_;
  std::uint32_t serial_ = 0;
};
