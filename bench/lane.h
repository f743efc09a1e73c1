// The paths between the driver and the far ends, each open from its start to the end of the run, so
// that measurements can go from one to the next at once.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "bench/far_end.h"
#include "bench/hub_end.h"

/// The last one is a relay by TCP beside paths by the local road, the yardstick of those.
enum class Path { direct, relay, hub, tcpRelay };
inline constexpr std::array kPaths{Path::direct, Path::relay, Path::hub, Path::tcpRelay};
const char* pathName(Path path);

inline constexpr const char* kRoleRelay = "relay";

/// One path with the process that it needs, which ends with it. It has an end for each of the far
/// ends that it leads to; each of the driver's may be used on a thread of its own.
class Lane {
 public:
  /// Starts the process and leads to `farEnds`, which must outlive the lane, by `road`; null with a
  /// text in `error`.
  static std::unique_ptr<Lane> open(Path path, Road road, const BenchPrograms& programs,
                                    FarEnds& farEnds, std::string& error);
  /// Dismisses the far ends, since a hub that is to end waits for its plugins.
  ~Lane() { farEnds_.dismiss(); }
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  Path path() const { return path_; }
  std::size_t pairs() const { return ends_.size(); }
  /// The driver's end of a pair.
  PacketSocket& socket(std::size_t pair = 0) { return *ends_[pair].socket; }
  /// Announces what comes next on a pair, and waits until its far end is ready for it.
  bool announce(std::size_t pair, StreamOrder order, Order id = Order::stream);
  /// Waits until that far end has told that the stream has arrived.
  bool awaitTaken(std::size_t pair) { return farEnds_.orders(pair).receiveOrder(Order::taken); }
  /// The process between the ends; 0 if there is none.
  platform::ProcessId between() const { return between_.id(); }
  /// Where the hub listens; 0 on the other paths.
  std::uint16_t hubPort() const { return hubPort_; }
  /// What has gone wrong, for people: the failure of a socket, and which process has ended.
  std::string failure() const;

 private:
  // The connections go before the process: that then ends by itself.
  struct End {
    explicit End(int pair) : hub(pair) {}
    LoopbackSocket connection;
    HubEnd hub;
    std::optional<PacketSocket> socket;
  };

  Lane(Path path, Road road, const BenchPrograms& programs, FarEnds& farEnds);
  bool openRelay(const LoopbackSocket& listener, std::uint16_t& farPort, std::string& error);
  bool openPlain(std::string& error);
  bool openHub(std::string& error);
  LoopbackSocket acceptFrom(const LoopbackSocket& listener, const char* whom,
                            std::string& error) const;
  std::string endedProcess() const;

  Path path_;
  Road road_;
  const BenchPrograms& programs_;
  FarEnds& farEnds_;
  std::uint32_t number_;  // of the path, for the far ends
  std::uint16_t hubPort_ = 0;
  BenchProcess between_;
  HublinkPlugin keeper_;  // the hub's first plugin, for whose sake it stays up
  std::deque<End> ends_;
};
