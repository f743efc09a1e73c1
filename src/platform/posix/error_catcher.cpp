#include "platform/error_catcher.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace platform {
namespace {

// The most that one datagram carries, and how many are read in a row, so that a child that writes
// without end keeps nobody from anything else.
constexpr std::size_t kLargest = 65507;
constexpr int kMostInARow = 512;

bool connectToItself(int socket) {
  sockaddr_in own{};
  socklen_t size = sizeof own;
  own.sin_family = AF_INET;
  own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto address = reinterpret_cast<sockaddr*>(&own);
  // That a packet can really be sent shows with an empty one.
  return bind(socket, address, sizeof own) == 0 && getsockname(socket, address, &size) == 0 &&
         connect(socket, address, size) == 0 && send(socket, "", 0, MSG_DONTWAIT) == 0;
}

}  // namespace

bool ErrorCatcher::open() {
  close();
  // It stays one whose transfers wait: the child shares the flags, and its writes find room at
  // once.
  const int made = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (made < 0) return false;
  if (!connectToItself(made)) {
    ::close(made);
    return false;
  }
  socket_ = made;
  readiness().watch(socket_);
  return true;
}

std::string ErrorCatcher::take() {
  std::string text;
  std::array<char, kLargest> datagram;
  for (int i = 0; socket_ >= 0 && i < kMostInARow; ++i) {
    const ssize_t size = recv(socket_, datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (size < 0) {
      readiness().drained(socket_);
      break;
    }
    text.append(datagram.data(), static_cast<std::size_t>(size));
  }
  return text;
}

void ErrorCatcher::close() {
  if (socket_ < 0) return;
  // The child keeps the socket: hardly any room is left in it, and nothing that has taken some.
  const int least = 0;
  setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
  take();
  readiness().forget(socket_);
  ::close(socket_);
  socket_ = -1;
}

}  // namespace platform
