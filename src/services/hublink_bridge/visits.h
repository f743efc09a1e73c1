// What plugins of other machines ask of this one: each is checked against what this machine
// exports, and then asked of the local hub by the asking plugin's stand-in. Nothing is done for
// another machine that isn't exported: this is where the realm's trust ends.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "hublink_plugin/hublink_plugin.h"
#include "services/hublink_bridge/parts.h"
#include "services/hublink_bridge/session.h"

namespace bridge {

class StandIn;

class Visits {
 public:
  /// What one machine may have at once.
  static constexpr std::size_t kMostLinks = 1024;
  static constexpr std::size_t kMostInHand = 256;

  explicit Visits(const Parts& parts) : parts_(parts) {}

  /// An OPEN. False if it is malformed, or of a link that there is: the session is to end.
  bool open(Session& session, const Frame& frame);
  /// The other machine doesn't want it any more. False if it isn't in hand.
  bool closed(const Session& session, std::uint32_t number);
  void sessionEnded(const Session& session);
  /// The hub has gone: what is in hand is answered as not found.
  void clear();

 private:
  using Key = std::pair<Session*, std::uint32_t>;

  void answer(const Key& key, const OpenedBody& body);
  void notFound(const Key& key) { answer(key, {}); }
  void query(const Key& key, const OpenBody& body);
  void link(const Key& key, const OpenBody& body);
  void ask(const Key& key, const OpenBody& body, std::int32_t providerID);
  void replied(const Key& key, const std::string& service, StandIn& standIn,
               const ServiceReply& reply);
  std::size_t inHandOf(const std::string& machine) const;

  Parts parts_;
  std::set<Key> inHand_;
};

}  // namespace bridge
