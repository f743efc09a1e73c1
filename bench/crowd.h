// Plugins that are there and silent.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "stp_transport/transport/stp_transport.h"

class IdlePlugin;

class Crowd {
 public:
  Crowd();
  ~Crowd();
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  /// Connects `count` more plugins before it looks at any of them, and waits until each has its ID;
  /// false if one is refused or doesn't get it.
  bool join(std::uint16_t port, int count);

 private:
  int known_ = 0;
  STPTransportSet transports_;
  std::vector<std::pair<CountedPtr<STPTransport>, CountedPtr<IdlePlugin>>> members_;
};
