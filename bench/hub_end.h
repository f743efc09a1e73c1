// One end of a path through the hub. It becomes a plugin, reaches the other end by the name of a
// service, and then leaves the hub's messages behind: what is measured is the bare connection, with
// the same calls as on every other path.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "bench/loopback.h"
#include "bench/packet_socket.h"
#include "hublink_plugin/hublink_plugin.h"
#include "stp_transport/transport/stp_transport.h"

/// Becomes the first plugin of the hub that has connected on `connection`, so that it stays up, and
/// learns its port. False with a text in `error`.
bool joinAsFirst(HublinkPlugin& plugin, LoopbackSocket connection, std::uint16_t& hubPort,
                 std::string& error);

class HubEnd {
 public:
  /// Each pair of ends has a service of its own.
  explicit HubEnd(int pair) : service_("Bench" + std::to_string(pair)) {}

  /// Becomes a plugin of the hub on `port`, reached by `road`, and provides the service. False with
  /// a text in `error`.
  bool joinAsProvider(std::uint16_t port, Road road, std::string& error);
  /// Waits until the requester has said that it is ready, at most kStartLimit or until `givenUp`.
  bool awaitRequester(const std::function<bool()>& givenUp, std::string& error);
  /// Becomes a plugin of the hub on `port`, asks for the service, and tells the provider that it is
  /// ready.
  bool joinAsRequester(std::uint16_t port, Road road, std::string& error);

  /// RNs of the link, once it is up.
  Route route() const { return {link_->localRN(), link_->remoteRN()}; }
  /// The connection to the hub, made to wait; kNoSocket if it can't be. It stays this object's,
  /// which must not use it any more.
  platform::Socket takeOver();

 private:
  bool connect(std::uint16_t port, Road road, std::string& error);

  std::string service_;
  CountedPtr<STPTransport> connection_;
  HublinkPlugin plugin_;
  std::shared_ptr<HublinkLink> link_;
};
