// Looks into a hub between two passes and holds its tables against each other.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

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
  /// Whether the plugin wasn't read at the end of the last pass, since others are slow.
  bool isStalled(std::int32_t pluginID) const { return stalled_.contains(pluginID); }
  /// Cookies of the launches and connects in hand that the plugin has begun and that nobody else
  /// can do instead.
  std::vector<std::int32_t> ownLaunches(std::int32_t pluginID) const;
  std::size_t connections() const;
  /// Of launches in hand, and of plugins.
  std::set<platform::ProcessId> children() const;
  /// Highest plugin ID so far, and how many starts plugins were asked for, each of which may have
  /// taken one.
  std::int32_t idsGiven() const { return plugins_.ids_.used(); }
  std::int32_t clientStarts() const { return hub_.launcher_.lastStartCookie_; }
  /// Launches and connects in hand.
  std::size_t inHand() const;
  /// Nothing is owned, registered or awaited.
  bool isEmpty() const;
  std::string describe() const;

 private:
  using AwaitedPlugin = std::tuple<std::int32_t, std::int32_t, std::int32_t>;
  using Asked = std::pair<std::int32_t, std::int32_t>;  // the requester's ID, the cookie

  std::string faultOfPlugins();
  std::string faultOfLaunches();
  std::string faultOfTables() const;
  std::string faultOfWaiting();
  std::string faultOfProviders() const;
  std::string faultOfLinks() const;
  bool isProvided(const std::string& service) const;

  const Hublink& hub_;
  const ConnectedPlugins& plugins_;
  const Broker& broker_;
  std::set<const HublinkConnection*> alive_;
  std::set<std::int32_t> ids_;       // of those
  std::set<std::int32_t> stalled_;   // of those
  std::set<AwaitedPlugin> awaited_;  // requests as requester, cookie and awaited plugin, last time
  std::set<ArrivalID> arrivals_;     // in hand
  std::set<ArrivalID> failed_;       // of those that were, last time
  std::map<Asked, ArrivalID> hoping_;  // who hung on an arrival last time,
  std::map<Asked, ArrivalID> owners_;  // and who of them wants that plugin alone
  std::int32_t idsBefore_ = 0;         // given last time
};
