// The outcome of an operation: a constant text and a code.
#pragma once

#include <cstdint>

enum STPCode : std::int32_t {
  STP_OK = 0,
  STP_FAILED = 1,          ///< socket failure, invalid packet, failed connect or bind
  STP_MISUSE = 3,          ///< an operation called in the wrong state
  STP_LAUNCH_FAILED = 4,   ///< a child program did not start or died
  STP_PEER_CLOSED = 5,     ///< the other end closed the connection
  STP_CHANNEL_CLOSED = 6,  ///< the channel is closed
  STP_TIMEOUT = 7,         ///< a retry handler gave up
  STP_UNSUPPORTED = 8,     ///< the peer has no number for a message
};

/// Every operation that can fail takes an optional pointer to one as its last argument. The text is
/// a constant that is never freed, empty in the good state.
struct STPStatus {
  const char* message = "";
  std::int32_t code = STP_OK;

  bool good() const { return code == STP_OK; }
  void clear() { *this = STPStatus{}; }
  void set(std::int32_t failure, const char* text) {
    code = failure;
    message = text;
  }
  /// The same, if the caller wants to know: `status` may be null.
  static void report(STPStatus* status, std::int32_t failure, const char* text) {
    if (status) status->set(failure, text);
  }
};
