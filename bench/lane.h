// The three paths between the driver and the far end, each open from its start to the end of the
// run, so that measurements can go from one to the next at once.
#pragma once

#include <array>
#include <cstdint>
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

/// One path with the processes that it needs, all of which end with it.
class Lane {
 public:
  /// Starts the processes and waits until the far end is ready; null with a text in `error`.
  static std::unique_ptr<Lane> open(Path path, const BenchPrograms& programs, std::string& error);
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  Path path() const { return path_; }
  /// The driver's end.
  PacketSocket& socket() { return *socket_; }
  /// What has gone wrong, for people: the failure of the socket, and which process has ended.
  std::string failure() const;

 private:
  Lane(Path path, const BenchPrograms& programs) : path_(path), programs_(programs) {}
  bool openPlain(bool withRelay, std::string& error);
  bool openHub(std::string& error);
  bool startFarEnd(const char* role, std::uint16_t port, std::string& error);
  LoopbackSocket acceptFrom(const LoopbackSocket& listener, const char* whom,
                            std::string& error) const;
  std::string endedProcess() const;

  Path path_;
  BenchPrograms programs_;
  // The connections go before the processes: those then end by themselves.
  BenchProcess between_;
  BenchProcess farEnd_;
  LoopbackSocket connection_;
  HubEnd hub_;
  std::optional<PacketSocket> socket_;
};
