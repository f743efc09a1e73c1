#include "services/hublink/user_gate.h"

#include <string>

#include "platform/clock.h"
#include "services/hublink/hub_log.h"

namespace {

// Lines about refused connections in each of these spans of milliseconds.
constexpr int kMostRefusalLines = 3;
constexpr std::uint64_t kRefusalSpan = 1000;

}  // namespace

bool UserGate::mayConnect(const STPTransport& client, std::uint32_t port) {
  return anyUser_ ||
         takesUser(platform::userOfClient(client.fileDescriptor()), "a connection to", port);
}

bool UserGate::mayConnectTo(const STPTransport& server, std::uint32_t port) {
  return anyUser_ ||
         takesUser(platform::userOfServer(server.fileDescriptor()), "to connect to", port);
}

bool UserGate::takesUser(const platform::PeerUser& peer, const char* what, std::uint32_t port) {
  if (peer.kind == platform::PeerUser::Kind::elsewhere || peer.isOwn()) return true;
  // A stranger who comes again and again doesn't fill the log.
  const std::uint64_t now = platform::monotonicMilliseconds();
  if (now - refusalsSince_ >= kRefusalSpan) {
    refusalsSince_ = now;
    refusals_ = 0;
  }
  if (++refusals_ > kMostRefusalLines) return false;
  const std::string user =
      peer.kind == platform::PeerUser::Kind::known ? std::to_string(peer.user) : "unknown";
  log_.logInternal("Refused %s port %u: user %s.\n", what, port, user.c_str());
  return false;
}
