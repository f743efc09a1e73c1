// The three paths between the driver and the far end, each open from its start to the end of the
// run, so that measurements can go from one to the next at once.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "bench/hub_end.h"
#include "bench/loopback.h"
#include "bench/packet_socket.h"

enum class Path { direct, relay, hub };
inline constexpr std::array kPaths{Path::direct, Path::relay, Path::hub};
const char* pathName(Path path);

/// The executables that the processes of a run are made of.
struct BenchPrograms {
  std::string bench;  ///< this program
  std::string hub;
};

/// Names of this program's parts, for the command line of its processes.
inline constexpr const char* kRolePlainEnd = "plain-end";
inline constexpr const char* kRoleHubEnd = "hub-end";
inline constexpr const char* kRoleRelay = "relay";

/// One path with the processes that it needs, all of which end with it. It has one or more pairs of
/// ends; each of the driver's may be used on a thread of its own.
class Lane {
 public:
  /// Starts the processes and waits until the far ends are ready; null with a text in `error`.
  static std::unique_ptr<Lane> open(Path path, const BenchPrograms& programs, std::string& error,
                                    int pairs = 1);
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  Path path() const { return path_; }
  std::size_t pairs() const { return ends_.size(); }
  /// The driver's end of a pair.
  PacketSocket& socket(std::size_t pair = 0) { return *ends_[pair].socket; }
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
    BenchProcess farEnd;
    LoopbackSocket connection;
    HubEnd hub;
    std::optional<PacketSocket> socket;
  };

  Lane(Path path, const BenchPrograms& programs, int pairs);
  bool openRelay(const LoopbackSocket& listener, std::uint16_t& farPort, std::string& error);
  bool openPlain(std::string& error);
  bool openHub(std::string& error);
  bool startFarEnd(std::size_t pair, const char* role, std::uint16_t port, std::string& error);
  LoopbackSocket acceptFrom(const LoopbackSocket& listener, const char* whom,
                            std::string& error) const;
  std::string endedProcess() const;

  Path path_;
  BenchPrograms programs_;
  std::uint16_t hubPort_ = 0;
  BenchProcess between_;
  std::deque<End> ends_;
};
