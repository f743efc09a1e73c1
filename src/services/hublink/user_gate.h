// Whose processes may be connected with the hub. Whoever is can have programs started as this user:
// on this machine that is for the user's own processes and root's alone, unless the hub was told
// otherwise.
#pragma once

#include <cstdint>

#include "platform/credentials.h"
#include "stp_transport/transport/stp_transport.h"

class HubLog;

class UserGate {
 public:
  explicit UserGate(HubLog& log) : log_(log) {}

  /// Whether other users of this machine are taken, too.
  void setAnyUser(bool flag) { anyUser_ = flag; }
  /// Whether a client of the hub's port may stay; if not, that is logged. One whose user can't be
  /// told has mostly gone already, and may be anybody.
  bool mayConnect(const STPTransport& client, std::uint32_t port);
  /// The same for whom the hub has connected to itself, who can have as much done.
  bool mayConnectTo(const STPTransport& server, std::uint32_t port);

 private:
  bool takesUser(const platform::PeerUser& peer, const char* what, std::uint32_t port);

  HubLog& log_;
  bool anyUser_ = false;
  std::uint64_t refusalsSince_ = 0;  // ms of the steady clock
  int refusals_ = 0;                 // since then
};
