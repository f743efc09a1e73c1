// An attempt to connect to a host and port. In this first form it is over at the first poll, which
// waits as connectToServer does.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "stp_transport/transport/stp_socket.h"
#include "stp_transport/transport/stp_status.h"

class STPConnectAttempt {
 public:
  STPConnectAttempt(const char* host, std::uint16_t port) : host_(host), port_(port) {}
  /// True once it is over.
  bool poll() {
    socket_ = connectToServer(host_.c_str(), port_, &status_);
    return true;
  }
  /// The connected socket, which is the caller's; 0 if it has failed.
  int takeSocket() { return std::exchange(socket_, 0); }
  const STPStatus& status() const { return status_; }
  /// Milliseconds until the next poll has something to do if nothing else happens.
  int timeLeft() const { return 0; }

 private:
  std::string host_;
  std::uint16_t port_;
  int socket_ = 0;
  STPStatus status_;
};
