// The port that one child is told to connect back to: bound to the loopback address, with the name
// beside it, and the transport that waits there.
#pragma once

#include <cstdint>

#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_listener.h"
#include "stp_transport/transport/stp_transport.h"

/// Owns the sockets, and holds a reference on the transport for as long as it listens there.
class PrivatePort {
 public:
  PrivatePort() = default;
  ~PrivatePort() { close(); }
  PrivatePort(const PrivatePort&) = delete;
  PrivatePort& operator=(const PrivatePort&) = delete;

  /// Opens a free port, closing the one before.
  void open(STPStatus* status);
  std::uint16_t number() const { return listener_.port(); }
  /// Has a transport wait for the client.
  void listenWith(STPTransport* transport, STPStatus* status);
  /// Whether the transport has a client now, with the port closed. A client of another user than
  /// this one or root is closed unread, and the wait goes on.
  bool tryAccept(STPStatus* status);
  /// Closes the port and ends the transport's wait, if there is any.
  void close();

 private:
  STPListener listener_;
  CountedPtr<STPTransport> transport_;
};
