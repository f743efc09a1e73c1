// Sockets between the processes of the benchmark, and those processes: both owned, so that neither
// outlives the object that holds it, whatever becomes of the run.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/process.h"
#include "platform/socket.h"

/// How the processes of a path reach each other: by TCP on 127.0.0.1, or by sockets with a name of
/// this machine.
enum class Road { tcp, local };

/// Milliseconds that a process of the benchmark has to get ready.
inline constexpr int kStartLimit = 10000;

/// A stream socket of either road, not blocking; holds none if it couldn't be made.
class LoopbackSocket {
 public:
  LoopbackSocket() = default;
  LoopbackSocket(LoopbackSocket&& other) noexcept;
  LoopbackSocket& operator=(LoopbackSocket&& other) noexcept;
  ~LoopbackSocket();

  /// Listens on a port that is free, or on the name of this program's that such a number gives.
  static LoopbackSocket listening(Road road = Road::tcp);
  static LoopbackSocket connectedTo(std::uint16_t port, Road road = Road::tcp);
  /// Waits for the next client, at most kStartLimit or until `givenUp`.
  LoopbackSocket accept(const std::function<bool()>& givenUp) const;

  platform::Socket get() const { return socket_; }
  /// Where it listens.
  std::uint16_t port() const { return port_; }
  explicit operator bool() const { return socket_ != platform::kNoSocket; }
  /// Leaves the socket to the caller.
  platform::Socket release();

 private:
  explicit LoopbackSocket(platform::Socket socket) : socket_(socket) {}

  platform::Socket socket_ = platform::kNoSocket;
  std::uint16_t port_ = 0;
};

/// A child process that is asked to end, and made to if it doesn't, when its owner goes.
class BenchProcess {
 public:
  BenchProcess() = default;
  BenchProcess(const BenchProcess&) = delete;
  BenchProcess& operator=(const BenchProcess&) = delete;
  ~BenchProcess();

  /// False, with the reason in `error`, if the program can't be started.
  bool start(const std::string& program, const std::vector<std::string>& arguments,
             std::string& error);
  /// True if it was started and has ended; `status` is its exit code.
  bool ended(int& status) const;
  platform::ProcessId id() const { return process_; }

 private:
  platform::ProcessId process_ = 0;
};
