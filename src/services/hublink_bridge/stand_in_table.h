// The stand-ins that there are, by whom they stand for. Each is made when it is first needed, and
// goes some time after its last link.
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

  /// The hub that new ones connect to, by its port.
  void setHubPort(std::uint16_t port) { port_ = port; }
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

  struct Entry {
    std::unique_ptr<StandIn> standIn;
    bool isKnown = false;  // the hub has been told
    std::vector<Handler> waiting;
    int links = 0;
    std::int64_t idleSince = 0;
  };
  void told(const RemotePluginKey& key, const std::string& error);

  StandInListener& listener_;
  HubDesk& desk_;
  std::uint16_t port_ = 0;
  std::map<RemotePluginKey, Entry> entries_;
};

}  // namespace bridge
