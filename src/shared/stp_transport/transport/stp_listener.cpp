#include "stp_transport/transport/stp_listener.h"

#include "platform/socket.h"
#include "stp_transport/transport/stp_socket.h"

bool STPListener::open(std::uint16_t port, STPStatus* status, bool loopbackOnly,
                       bool offersLocalRoad) {
  close();
  tcp_ = getListenSocket(port, status, loopbackOnly);
  if (tcp_ == 0) return false;
  port_ = platform::localPort(tcp_);
  if (!offersLocalRoad || !stpUsesLocalRoad()) return true;
  const platform::Socket local = platform::listenOnName(stpLocalName(port_));
  if (local != platform::kNoSocket) local_ = local;
  return true;
}

void STPListener::close() {
  if (local_ != 0) closeListenSocket(local_, nullptr);
  if (tcp_ != 0) closeListenSocket(tcp_, nullptr);
  tcp_ = local_ = 0;
}
