// One link between a plugin of this machine and one of another, as this bridge carries it: on the
// one side a connection to the hub that stands for the other plugin, on the other a session. And
// the table of all of them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hublink_plugin/hublink_link.h"
#include "services/hublink_bridge/link_flow.h"
#include "services/hublink_bridge/session.h"
#include "services/hublink_bridge/stand_in.h"

namespace bridge {

/// Who a link joins.
struct LinkEnds {
  std::string service;
  std::int32_t localPluginID = -1;  ///< of this machine
  RemotePluginKey remote;
  bool isRequesterLocal = false;
};

class Link : private PacketOutlet {
 public:
  /// The number is the session's initiator's. Until join() what comes from the other side is kept.
  Link(Session& session, std::uint32_t number, LinkEnds ends)
      : session_(session),
        number_(number),
        ends_(std::move(ends)),
        outgoing_(session, number),
        incoming_(session, number) {}
  ~Link() override;

  /// It is up at the local hub, too, which gets what has come before. False if that is no packets.
  bool join(StandIn& standIn, const std::shared_ptr<HublinkLink>& hubLink);

  Session& session() const { return session_; }
  std::uint32_t number() const { return number_; }
  const LinkEnds& ends() const { return ends_; }
  void setRemote(RemotePluginKey remote) { ends_.remote = std::move(remote); }
  void setLocalPluginID(std::int32_t pluginID) { ends_.localPluginID = pluginID; }
  /// Null before join().
  StandIn* standIn() const { return standIn_; }
  std::int32_t localRN() const { return hubLink_ ? hubLink_->localRN() : -1; }
  /// In ms since 1970; 0 before join().
  std::int64_t since() const { return since_; }
  const FlowCounters& sent() const { return outgoing_.counters(); }
  const FlowCounters& received() const { return incoming_.counters(); }

  // --- What happens ---
  void packetsArrived(const unsigned char* packets, std::size_t size);
  /// False if the frame is malformed or more than was allowed.
  bool dataArrived(const Frame& frame);
  bool creditArrived(const Frame& frame);
  /// The session has room again.
  void sendMore();
  /// What was passed on may have been written meanwhile.
  void noteWritten();
  bool hasUnwritten() const { return incoming_.hasUnwritten(); }
  /// The local side has ended: the other is told behind all that came before.
  void localEnded();
  /// The other side has: the local one is told behind all that came before, once it has joined.
  void remoteEnded();
  /// Nothing is left to do for it.
  bool isOver() const;

 private:
  std::uint64_t passOn(const unsigned char* packets, std::size_t size) override;
  void holdReading();
  void endHere();

  Session& session_;
  const std::uint32_t number_;
  LinkEnds ends_;
  OutgoingFlow outgoing_;
  IncomingFlow incoming_;
  StandIn* standIn_ = nullptr;
  std::shared_ptr<HublinkLink> hubLink_;
  std::int64_t since_ = 0;
  bool hasLocalEnded_ = false;
  bool hasRemoteEnded_ = false;
  bool isToSettle_ = false;  // stands in the table's list

  friend class LinkTable;
};

class LinkTable {
 public:
  /// `ended` is told of each link that goes, before it does.
  explicit LinkTable(std::function<void(Link& link)> ended) : ended_(std::move(ended)) {}

  Link& add(Session& session, std::uint32_t number, LinkEnds ends);
  /// False if what the other side has sent for it is no packets. The link's end at the hub is seen
  /// to from now on.
  bool join(Link& link, StandIn& standIn, const std::shared_ptr<HublinkLink>& hubLink);
  Link* find(const Session& session, std::uint32_t number) const;
  Link* find(const StandIn& standIn, std::int32_t localRN) const;
  /// A stand-in of the machine that has a link with this plugin here; null if none has.
  StandIn* standInBetween(std::int32_t localPluginID, const std::string& machine) const;
  std::size_t countWith(const std::string& machine) const;
  std::size_t size() const { return links_.size(); }
  void forEach(const std::function<void(const Link& link)>& visit) const;

  /// The session has room again.
  void roomAgain(const Session& session);
  /// All links of the session end at the hub.
  void sessionEnded(const Session& session);
  /// Something has happened to it that settle() is to look at.
  void settleLater(Link& link);
  /// Whether any link of the session is left.
  bool hasAny(const Session& session) const;
  /// Looks at those for which something was passed on, and takes out those that are over. Not
  /// within a call of a link's.
  void settle();

 private:
  using Key = std::pair<const Session*, std::uint32_t>;

  /// Calls `visit` with each link of the session.
  template <class Visit>
  void eachOf(const Session& session, const Visit& visit) const {
    for (auto place = links_.lower_bound({&session, 0});
         place != links_.end() && place->first.first == &session; ++place)
      visit(*place->second);
  }

  std::function<void(Link& link)> ended_;
  std::map<Key, std::unique_ptr<Link>> links_;
  std::map<std::pair<const StandIn*, std::int32_t>, Link*> byRN_;
  std::vector<Key> toSettle_;
  std::map<const Session*, std::uint32_t> lastServed_;  // the link that had the last of the room
};

}  // namespace bridge
