// What people are told of the bridge and of the other machines: the service "hublink.bridge", which
// the bridge's own plugin provides.
#pragma once

#include <cstdint>
#include <string>

#include "services/hublink_bridge/link_flow.h"
#include "services/hublink_bridge/options.h"
#include "services/hublink_bridge/parts.h"

namespace bridge {

class Link;

class RealmDesk {
 public:
  static constexpr const char* kService = "hublink.bridge";

  /// All of them outlive it.
  RealmDesk(const Parts& parts, const NatsConnection& nats, const Options& options);

  /// Registers the service at the hub that the plugin is connected to.
  bool open(std::string& error);
  /// What has become of the connection to NATS.
  void natsState(bool isConnected, const std::string& text);
  /// Its counts are kept.
  void linkEnded(const Link& link);

 private:
  class Viewed;

  const Parts& parts_;
  const NatsConnection& nats_;
  const Options& options_;
  std::int64_t since_;  // in ms since 1970
  std::string natsError_;
  FlowCounters sent_, received_;  // of links that have ended
};

}  // namespace bridge
