// What the sources of this room ask of a socket that may be one with a name of this machine.
#pragma once

#include <sys/socket.h>

#include "platform/socket.h"

namespace platform {

/// Whether it is one of listenOnName() and connectToName(), or was accepted by one.
inline bool isNamed(Socket socket) {
  int domain = 0;
  socklen_t size = sizeof domain;
  return getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
}

}  // namespace platform
