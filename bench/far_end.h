// The far end of every path: a process that does what the driver tells it to on a connection of
// their own, whatever lies between them on the path that is measured. Since one process stands at
// the end of all paths that are compared, they differ by what lies between and by nothing else.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "bench/loopback.h"
#include "bench/packet_socket.h"

/// The executables that the processes of a run are made of.
struct BenchPrograms {
  std::string bench;  ///< hublink_bench
  std::string hub;
};

inline constexpr const char* kRoleFarEnd = "far-end";

/// Serves the driver that listens on `port` as the far end of that pair, until it has gone. The
/// exit code of its process.
int runFarEnd(std::uint16_t port, int pair);

/// The driver's view of the far ends, each a process that ends with this object.
class FarEnds {
 public:
  /// Starts one for each pair; null with a text in `error`.
  static std::unique_ptr<FarEnds> start(const BenchPrograms& programs, int pairs,
                                        std::string& error);

  std::size_t size() const { return all_.size(); }
  /// Where that one takes its orders.
  PacketSocket& orders(std::size_t pair) { return *all_[pair].orders; }
  /// The number of the next path that all of them join.
  std::uint32_t nextPath() { return paths_++; }
  /// Lets them end; nothing can be ordered from here on.
  void dismiss();
  /// Tells, for people, which have ended; empty if none has.
  std::string ended() const;

 private:
  struct One {
    BenchProcess process;
    LoopbackSocket connection;
    std::optional<PacketSocket> orders;
  };

  bool startOne(const BenchPrograms& programs, int pair, std::string& error);

  std::deque<One> all_;
  std::uint32_t paths_ = 0;
};
