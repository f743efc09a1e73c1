// A plugin of another machine as the local hub sees it: a connection to that hub, with a plugin ID,
// for each such plugin that takes part in a link. So one that doesn't read stops those who send to
// it and nobody else, values can be asked of it, and people see it among the hub's plugins.
//
// Packets pass through it unread, in runs of whole ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <tuple>

#include "hublink_plugin/hublink_plugin.h"
#include "stp_transport/transport/response_listener.h"

namespace bridge {

/// A plugin by its machine and its ID there.
struct RemotePluginKey {
  std::string machine;
  std::int32_t pluginID = -1;
  bool operator<(const RemotePluginKey& other) const {
    return std::tie(machine, pluginID) < std::tie(other.machine, other.pluginID);
  }
};

class StandIn;

/// Hears what comes to a stand-in.
class StandInListener {
 public:
  virtual ~StandInListener() = default;
  /// Packets for one RN of the stand-in's, each with its fill; gone after the call, in which
  /// nothing may be served.
  virtual void packetsArrived(StandIn& standIn, std::int32_t localRN, const unsigned char* packets,
                              std::int64_t size) = 0;
  virtual void valueAsked(StandIn& standIn, std::int32_t requestingPluginID,
                          const std::string& name, HublinkPlugin::ValueAnswer answer) = 0;
};

class StandIn : private PacketSink {
 public:
  explicit StandIn(StandInListener& listener);
  ~StandIn() override;

  /// Connects to the hub on `port` of this machine.
  bool connect(std::uint16_t port, std::string& error);
  /// For whom it stands from now on.
  void standFor(RemotePluginKey key, std::string program);
  const RemotePluginKey& key() const { return key_; }
  const std::string& program() const { return program_; }
  HublinkPlugin& plugin() { return plugin_; }
  const HublinkPlugin& plugin() const { return plugin_; }

  /// Queues whole packets, whose RNs already stand in them. Gives the place of their end in all
  /// that was ever queued here.
  std::uint64_t send(const unsigned char* packets, std::size_t size);
  /// Up to which place all has been written to the hub. Messages to the hub wait among the packets,
  /// and count as if they stood behind all of them.
  std::uint64_t written() const;
  /// Whether what comes for this RN can't be taken on at present: as long as that holds for any,
  /// the hub isn't read.
  void setHeld(std::int32_t localRN, bool flag);

 private:
  void takePackets(const unsigned char* packets, std::int64_t size) override;

  StandInListener& listener_;
  RemotePluginKey key_;
  std::string program_;
  HublinkPlugin plugin_;
  std::uint64_t queuedEnd_ = 0;
  std::set<std::int32_t> held_;
};

}  // namespace bridge
