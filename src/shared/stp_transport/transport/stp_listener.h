// Where clients of this process come in: a TCP port and, beside it, a socket of this machine whose
// name follows from the user and the port. Whoever knows the port of a process on this machine so
// knows both, and takes the shorter road if it is there (stp_socket.h).
#pragma once

#include <cstdint>
#include <string>

#include "stp_transport/transport/stp_status.h"

/// Owns both sockets.
class STPListener {
 public:
  STPListener() = default;
  ~STPListener() { close(); }
  STPListener(const STPListener&) = delete;
  STPListener& operator=(const STPListener&) = delete;

  /// Listens on `port` (0: the system picks), bound to 127.0.0.1 with `loopbackOnly`, and unless
  /// told otherwise on the name beside it; without the name it goes too.
  bool open(std::uint16_t port, STPStatus* status, bool loopbackOnly, bool offersLocalRoad = true);
  void close();
  bool isOpen() const { return tcp_ != 0; }
  std::uint16_t port() const { return port_; }
  /// The sockets, 0 for none.
  int tcp() const { return tcp_; }
  int local() const { return local_; }

 private:
  int tcp_ = 0;
  int local_ = 0;
  std::uint16_t port_ = 0;
};
