// The stand-ins that there are, by whom they stand for. Each is made when it is first needed, and
// goes some time after its last link. A hub gives each plugin ID once in its life, so that a
// machine which shows ever new plugins, in good faith or not, gets no more of them than its share:
// others stand in again that nobody needs any more.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "services/hublink_bridge/stand_in.h"

namespace bridge {

class HubDesk;

class StandInTable {
 public:
  /// Null if there is none to be had; the reason was told on standard error.
  using Handler = std::function<void(StandIn* standIn)>;

  StandInTable(StandInListener& listener, HubDesk& desk) : listener_(listener), desk_(desk) {}

  /// The hub that new ones connect to, by its port, from its beginning.
  void setHubPort(std::uint16_t port) {
    port_ = port;
    made_ = 0;
    madeFor_.clear();
    noneBefore_ = 0;
  }
  /// Gives the stand-in of a plugin once the hub knows for whom it stands, at once if it does
  /// already.
  void want(const RemotePluginKey& key, const std::string& program, Handler handler);
  StandIn* find(const RemotePluginKey& key) const;
  /// By the plugin ID that the local hub has given it.
  StandIn* findLocal(std::int32_t pluginID) const;

  /// A link more, or one less, goes through it.
  void linkBegins(StandIn& standIn);
  void linkEnds(StandIn& standIn, std::int64_t now);

  /// Serves those that have something to do. Not within a handler of one of them.
  void serve();
  void flush();
  /// 0 if one has something to do, else the milliseconds until one has, -1: none will by itself.
  int nextTimeout(std::int64_t now) const;
  /// Takes down those that nobody has needed for kIdleTime and those whose connection has ended.
  /// Not within a handler of one of them.
  void sweep(std::int64_t now);
  /// Ends all connections: links end, and sweep() takes them down.
  void disconnectAll();

  std::size_t size() const { return entries_.size(); }
  void forEach(const std::function<void(const StandIn& standIn, int links)>& visit) const;

 private:
  static constexpr std::int64_t kIdleTime = 30000;  // ms
  /// How many one machine may have at once, and how many are made in a hub's life: for one machine,
  /// and for all.
  static constexpr std::size_t kMostOfMachine = 1280;
  static constexpr int kMostMadeForMachine = 4096;
  static constexpr int kMostMade = 32768;
  /// After a hub that didn't take one in time, others aren't tried for so long, in ms.
  static constexpr std::int64_t kHubPause = 5000;

  struct Entry {
    std::unique_ptr<StandIn> standIn;
    bool isKnown = false;  // the hub has been told
    std::vector<Handler> waiting;
    int links = 0;
    std::int64_t idleSince = 0;
  };
  using Entries = std::map<RemotePluginKey, Entry>;

  Entry* make(const RemotePluginKey& key);
  Entries::iterator findIdle(const std::string& machine);
  std::size_t countOf(const std::string& machine) const;
  /// No more are made for this machine, so that those that are there stay.
  bool hasHadItsShare(const std::string& machine) const;
  void told(const RemotePluginKey& key, const std::string& error);

  StandInListener& listener_;
  HubDesk& desk_;
  std::uint16_t port_ = 0;
  int made_ = 0;
  std::map<std::string, int> madeFor_;
  std::int64_t noneBefore_ = 0;
  Entries entries_;
};

}  // namespace bridge
