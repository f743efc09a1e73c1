// Looks into a hub between two passes and holds its tables against each other.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <tuple>

#include "services/hublink/hublink.h"

class HublinkInspector {
 public:
  explicit HublinkInspector(const Hublink& hub) : hub_(hub) {}

  /// The first thing that isn't as it must be; empty if all is whole.
  std::string firstFault();
  /// What still waits for the plugin's sake: requests and questions for services, and starts.
  int waitingRequests(std::int32_t pluginID) const;
  int waitingStarts(std::int32_t pluginID) const;
  std::size_t connections() const;
  /// Nothing is owned, registered or awaited.
  bool isEmpty() const;
  std::string describe() const;

 private:
  using Awaited = std::tuple<std::int32_t, std::int32_t, std::int32_t>;

  const Hublink& hub_;
  std::set<Awaited> awaited_;  // requests as requester, cookie and awaited plugin, last time
};
