// A connected socket whose calls wait: what every client of a benchmark sends and receives with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/socket.h"

using Bytes = std::vector<unsigned char>;

/// Milliseconds that one transfer may take before the run is given up.
inline constexpr int kTransferLimit = 10000;

class WaitingSocket {
 public:
  /// Borrows `socket`, which must outlive it and was given to makeBlocking with kTransferLimit.
  explicit WaitingSocket(platform::Socket socket) : socket_(socket) {}

  /// Why the last call failed.
  const std::string& failure() const { return failure_; }
  /// Notes why the other end can't be trusted any more; false.
  bool fail(const char* what, int error = 0);

  /// Sends `count` bytes, all of them.
  bool send(const unsigned char* bytes, std::int64_t count);
  /// Stores at least one byte and at most `room`. The count, or 0 if that failed. A `patient` call
  /// waits without limit.
  std::int64_t receiveSome(unsigned char* bytes, std::int64_t room, bool patient);

 private:
  platform::Socket socket_;
  std::string failure_;
};
