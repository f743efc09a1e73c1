// The hub's own port, where plugins come in: the listening sockets, and the transport that waits
// there for the next client.
#pragma once

#include <cstdint>

#include "stp_transport/transport/stp_listener.h"
#include "stp_transport/transport/stp_transport.h"

class ConnectedPlugins;
class HubLog;
class UserGate;

class Entrance {
 public:
  Entrance(std::uint32_t port, ConnectedPlugins& plugins, UserGate& gate,
           STPTransportSet& transports, HubLog& log)
      : port_(port), plugins_(plugins), gate_(gate), transports_(transports), log_(log) {}

  /// Whether it leaves out the socket of this machine beside its port.
  void setTcpOnly(bool flag) { tcpOnly_ = flag; }
  /// Opens the port, or a free one for 0, on 127.0.0.1 alone with `loopbackOnly`. False on failure.
  bool open(bool loopbackOnly);
  std::uint32_t port() const { return port_; }
  /// Takes those who wait, oldest first, up to what one pass may spend on it.
  void acceptNewConnections();

 private:
  bool acceptNewConnection();
  void acceptFailed();
  void renewListener();

  std::uint32_t port_;
  ConnectedPlugins& plugins_;
  UserGate& gate_;
  STPTransportSet& transports_;
  HubLog& log_;
  bool tcpOnly_ = false;
  STPListener sockets_;
  STPTransport* listener_ = nullptr;  // stands in `transports_`, or null after a failed set-up
  bool acceptBroken_ = false;         // the last accept failed
  std::uint64_t retryAt_ = 0;         // ms of the steady clock
};
