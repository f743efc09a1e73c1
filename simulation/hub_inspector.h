// Looks into a hub between two passes and holds its tables against each other.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <tuple>

#include "services/hublink/hublink.h"

class HublinkInspector {
 public:
  explicit HublinkInspector(const Hublink& hub)
      : hub_(hub), plugins_(hub.plugins_), broker_(hub.broker_) {}

  /// The first thing that isn't as it must be; empty if all is whole.
  std::string firstFault();
  /// What still waits for the plugin's sake: requests and questions for services, and starts.
  int waitingRequests(std::int32_t pluginID) const;
  int waitingStarts(std::int32_t pluginID) const;
  std::size_t connections() const;
  /// Launches and connects in hand.
  std::size_t inHand() const;
  /// Nothing is owned, registered or awaited.
  bool isEmpty() const;
  std::string describe() const;

 private:
  using AwaitedPlugin = std::tuple<std::int32_t, std::int32_t, std::int32_t>;

  std::string faultOfPlugins();
  std::string faultOfTables() const;
  std::string faultOfWaiting();
  std::string faultOfLinks() const;

  const Hublink& hub_;
  const ConnectedPlugins& plugins_;
  const Broker& broker_;
  std::set<const HublinkConnection*> alive_;
  std::set<std::int32_t> ids_;       // of those
  std::set<AwaitedPlugin> awaited_;  // requests as requester, cookie and awaited plugin, last time
};
