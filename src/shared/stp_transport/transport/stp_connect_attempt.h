// A connect to a server that is under way while its caller does other things: the lookup of the
// host's name, the local road where it is there, and TCP.
//
// Whoever begins one polls it in its loop: what it waits for ends a wait of the readiness set, and
// timeLeft() bounds the wait, since nothing announces that the time is up. An object that goes
// before it is over gives up. It owns the socket until that is taken.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/name_lookup.h"
#include "platform/socket.h"
#include "stp_transport/transport/stp_status.h"

/// Milliseconds that a connect by TCP may take, and the lookup of a name before it. A caller that
/// waits waits for the lookup as long as the system lets it.
inline constexpr int STP_CONNECT_LIMIT = 5000, STP_LOOKUP_LIMIT = 30000;

enum class STPConnectMode : std::uint8_t { polled, waiting };

class STPConnectAttempt {
 public:
  /// Begins; with `waiting` it is over then. A null host can't be resolved. With `takesLocalRoad` a
  /// host that is this machine is reached by the name beside the port, if a process of this user or
  /// of root listens there, else by TCP.
  STPConnectAttempt(const char* host, std::uint16_t port, bool takesLocalRoad = true,
                    STPConnectMode mode = STPConnectMode::polled);
  ~STPConnectAttempt();
  STPConnectAttempt(const STPConnectAttempt&) = delete;
  STPConnectAttempt& operator=(const STPConnectAttempt&) = delete;

  /// Goes on; true once it is over.
  bool poll();
  /// Milliseconds after which poll() has something to do in any case; 0 once it is over.
  int timeLeft() const;
  /// The connected socket, which becomes the caller's and stands in no readiness set; 0 before the
  /// end, after a failure, and once it was taken.
  int takeSocket();
  /// The failure, with the text that connectToServer gives.
  const STPStatus& status() const { return status_; }

 private:
  void reach(std::uint32_t address);
  bool takeLocalRoad();
  void settle(int outcome);
  void setLimit(int milliseconds);

  const std::uint16_t port_;
  const bool takesLocalRoad_;
  const STPConnectMode mode_;
  std::optional<platform::NameLookup> lookup_;
  platform::Socket socket_ = platform::kNoSocket;
  std::uint64_t limit_ = 0;  // ms of the steady clock; 0 once it is over
  STPStatus status_;
};
