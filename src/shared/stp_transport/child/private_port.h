// The port that one child is told to connect back to: a listening socket, bound to the loopback
// address, and the transport that waits on it.
#pragma once

#include <cstdint>

#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_transport.h"

/// Owns the socket, and holds a reference on the transport for as long as it listens there.
class PrivatePort {
 public:
  PrivatePort() = default;
  ~PrivatePort() { close(); }
  PrivatePort(const PrivatePort&) = delete;
  PrivatePort& operator=(const PrivatePort&) = delete;

  /// Opens a socket on a free port, closing the one before.
  void open(STPStatus* status);
  std::uint16_t number() const { return number_; }
  /// Has a transport wait for the client.
  void listenWith(STPTransport* transport, STPStatus* status);
  /// Whether the transport has a client now, with the socket closed. A client of another user than
  /// this one or root is closed unread, and the wait goes on.
  bool tryAccept(STPStatus* status);
  /// Closes the socket and ends the transport's wait, if there is any.
  void close();

 private:
  void forget();

  int socket_ = 0;
  std::uint16_t number_ = 0;
  CountedPtr<STPTransport> transport_;
};
