// What plugins of other machines ask of this one: each is checked against what this machine
// exports, and then asked of the local hub by the asking plugin's stand-in. Nothing is done for
// another machine that isn't exported: this is where the realm's trust ends.
#pragma once

#include <cstdint>
#include <map>
#include <string>

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
  /// In hand until the hub has answered, or hasn't in time, also when nobody waits any more.
  struct Visit {
    std::string machine;
    Session* session;  // null: nobody waits
    std::uint32_t number;
  };
  /// Never given twice, so that a late answer can't meet another visit.
  using Ticket = std::uint64_t;

  bool mayStart(const OpenBody& body) const;
  bool isWaiting(Ticket ticket) const;
  void answer(Ticket ticket, const OpenedBody& body);
  void notFound(Ticket ticket) { answer(ticket, {}); }
  void query(Ticket ticket, const OpenBody& body);
  void link(Ticket ticket, const OpenBody& body);
  void ask(Ticket ticket, const OpenBody& body, std::int32_t providerID);
  void replied(Ticket ticket, const std::string& service, StandIn& standIn,
               const ServiceReply& reply);
  Visit* find(const Session& session, std::uint32_t number);
  std::size_t inHandOf(const std::string& machine) const;

  Parts parts_;
  std::map<Ticket, Visit> inHand_;
  Ticket lastTicket_ = 0;
};

}  // namespace bridge
