// What a child writes on its standard error, caught in a way that never holds the child up.
//
// The child gets a datagram socket that is connected to itself: what it writes comes to lie in the
// socket, from where this process reads it. A write to it never waits and never fails for want of
// room or of a reader, as long as the child lives, whatever has become of this process; what finds
// no room is lost. Nobody else can send to it. It differs from the null device in this: one write
// of more than 65,507 bytes fails, reading from it waits, and it can't be opened anew by a name
// such as `/dev/stderr`.
#pragma once

#include <string>

#include "platform/readiness.h"

namespace platform {

/// Owns the socket, which stands in the readiness set. Belongs to the main thread.
class ErrorCatcher {
 public:
  ErrorCatcher() = default;
  ~ErrorCatcher() { close(); }
  ErrorCatcher(const ErrorCatcher&) = delete;
  ErrorCatcher& operator=(const ErrorCatcher&) = delete;

  /// Begins anew. False if the system has no such socket to give.
  bool open();
  /// For StartRequest::error; -1, which is the null device, if it isn't open.
  int descriptor() const { return socket_; }
  /// Whether a wait of the readiness set has seen something come. Costs no call.
  bool hasNews() const { return readiness().isReadable(socket_); }
  /// What has come, as it was written; of much of it a part, and the next call gives more.
  std::string take();
  /// What the child writes from here on is lost, and takes no memory.
  void close();

 private:
  int socket_ = -1;
};

}  // namespace platform
