// Users of the simulated machine. A machine at another address is elsewhere.
#include "platform/credentials.h"

#include "platform/sim/stream.h"
#include "platform/sim/world.h"

namespace platform {
namespace {

// Over TCP the other end keeps its user as long as somebody has it open.
PeerUser otherEnd(Socket socket) {
  const sim::Descriptor* entry = sim::World::current().entry(socket);
  if (!entry || !entry->stream || !entry->stream->connected) return {};
  const sim::Stream& stream = *entry->stream;
  if (!stream.withinMachine) return {PeerUser::Kind::elsewhere};
  if (!stream.tellsUser()) return {};
  return {PeerUser::Kind::known, stream.peerUser};
}

}  // namespace

UserId currentUser() {
  return sim::World::current().self().user;
}

PeerUser userOfClient(Socket accepted) {
  return otherEnd(accepted);
}

PeerUser userOfClient(const TcpEnd&, const TcpEnd&) {
  return {};
}

PeerUser userOfServer(Socket connected) {
  return otherEnd(connected);
}

}  // namespace platform
