// The bridge's link to the hub's service for bridges: the hub tells what its plugins want of other
// machines, and is told which of the bridge's connections stand for whom.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "hubbridge.h"
#include "hublink_plugin/hublink_plugin.h"
#include "services/hublink_bridge/stand_in.h"

namespace bridge {

/// Hears what the hub's plugins want. The cookies are the hub's.
class WishListener {
 public:
  virtual ~WishListener() = default;
  virtual void wanted(const hubbridge::Wanted& wish) = 0;
  virtual void providerWanted(const hubbridge::WantedProvider& wish) = 0;
  virtual void noLongerWanted(std::int32_t cookie) = 0;
};

class HubDesk {
 public:
  static constexpr const char* kService = "hublink.abroad";

  explicit HubDesk(WishListener& listener) : listener_(listener) {}

  /// Opens the link on a plugin that is connected, and waits for it.
  bool open(HublinkPlugin& plugin, std::string& error);
  bool isOpen() const { return side_ && side_->isUp(); }
  void close() { side_.reset(); }

  /// Tells for whom a connection stands; `done` gets an empty text, or why the hub hasn't taken it.
  void standsFor(const StandIn& standIn, std::function<void(const std::string& error)> done);
  void found(std::int32_t cookie, std::int32_t pluginID, std::int32_t rn);
  void notFound(std::int32_t cookie);

 private:
  class Side;
  WishListener& listener_;
  std::unique_ptr<hubbridge::Bridge> side_;
};

}  // namespace bridge
