#include "platform/socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/clock.h"
#include "platform/posix/named_socket.h"

namespace platform {
namespace error {
const int interrupted = EINTR, accessDenied = EACCES, badAddress = EFAULT, invalid = EINVAL,
          inProgress = EINPROGRESS, notSocket = ENOTSOCK, messageTooBig = EMSGSIZE,
          notSupported = EOPNOTSUPP, netDown = ENETDOWN, netReset = ENETRESET,
          aborted = ECONNABORTED, reset = ECONNRESET, noBuffers = ENOBUFS, notConnected = ENOTCONN,
          brokenPipe = EPIPE, timedOut = ETIMEDOUT, hostUnreachable = EHOSTUNREACH,
          addressInUse = EADDRINUSE, refused = ECONNREFUSED;
}  // namespace error

namespace {

sockaddr_in addressOf(std::uint32_t address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

sockaddr* generic(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

// How much may wait in a socket within this machine: the system counts the memory that holds it
// against twice as much, and cuts it to what it lets everybody have. It is memory only while
// something waits. Half of this costs a tenth of a stream of small packets, more brings nothing.
constexpr int kLocalSendBuffer = 512 << 10;

struct NameAddress {
  explicit NameAddress(const std::string& name) {
    address.sun_family = AF_UNIX;
    // The zero in front makes it a name and no path.
    const std::size_t count = std::min(name.size(), sizeof address.sun_path - 1);
    std::copy_n(name.data(), count, address.sun_path + 1);
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + count);
  }
  const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&address); }

  sockaddr_un address{};
  socklen_t size = 0;
};

Socket openLocalStream() {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

Transfer outcomeOf(ssize_t result) {
  Transfer transfer;
  if (result >= 0)
    transfer.count = result;
  else if (errno == EAGAIN || errno == EWOULDBLOCK)
    transfer.wouldBlock = true;
  else
    transfer.error = errno;
  return transfer;
}

using NameCall = int (*)(int, sockaddr*, socklen_t*);

bool nameOf(NameCall call, Socket socket, sockaddr_in& address) {
  socklen_t size = sizeof address;
  return call(socket, generic(address), &size) == 0 && address.sin_family == AF_INET;
}

std::string dotted(NameCall call, Socket socket) {
  if (isNamed(socket)) return "127.0.0.1";
  sockaddr_in address{};
  char text[INET_ADDRSTRLEN] = "";
  if (!nameOf(call, socket, address)) return {};
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return text;
}

}  // namespace

Socket openStream() {
  return ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

void setStreamOptions(Socket socket) {
  if (isNamed(socket)) {
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kLocalSendBuffer, sizeof kLocalSendBuffer);
    return;
  }
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool bindPort(Socket socket, std::uint16_t port, bool loopbackOnly) {
  sockaddr_in address = addressOf(loopbackOnly ? INADDR_LOOPBACK : INADDR_ANY, port);
  return bind(socket, generic(address), sizeof address) == 0;
}

// The kernel cuts the backlog to its own limit.
bool listenOn(Socket socket) {
  return listen(socket, 65535) == 0;
}

Socket acceptFrom(Socket listener, Transfer& outcome) {
  for (;;) {
    const Socket client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    outcome = outcomeOf(client);
    // A client that has gone again, or an interrupt, says nothing of the listener.
    if (outcome.error == EINTR || outcome.error == ECONNABORTED) continue;
    return client;
  }
}

int beginConnect(Socket socket, std::uint32_t address, std::uint16_t port) {
  sockaddr_in server = addressOf(address, port);
  if (connect(socket, generic(server), sizeof server) == 0) return 0;
  return errno == EINTR ? EINPROGRESS : errno;
}

int connectOutcome(Socket socket, int milliseconds) {
  const std::uint64_t end = monotonicMilliseconds() + static_cast<std::uint64_t>(milliseconds);
  for (;;) {
    const std::uint64_t now = monotonicMilliseconds();
    pollfd entry{socket, POLLOUT, 0};
    const int ready = poll(&entry, 1, now < end ? static_cast<int>(end - now) : 0);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return ready == 0 ? EINPROGRESS : errno;
    int failure = 0;
    socklen_t size = sizeof failure;
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &failure, &size);
    return failure;
  }
}

int connectStream(Socket socket, std::uint32_t address, std::uint16_t port, int milliseconds) {
  int outcome = beginConnect(socket, address, port);
  if (outcome == EINPROGRESS) outcome = connectOutcome(socket, milliseconds);
  return outcome == EINPROGRESS ? ETIMEDOUT : outcome;
}

Socket listenOnName(const std::string& name) {
  const NameAddress address(name);
  const Socket socket = openLocalStream();
  if (socket < 0) return kNoSocket;
  if (bind(socket, address.generic(), address.size) == 0 && listenOn(socket)) return socket;
  close(socket);
  return kNoSocket;
}

Socket connectToName(const std::string& name) {
  const NameAddress address(name);
  const Socket socket = openLocalStream();
  if (socket < 0) return kNoSocket;
  if (connect(socket, address.generic(), address.size) == 0) return socket;
  close(socket);
  return kNoSocket;
}

// Addresses that a socket can be bound to are this machine's. Where the system lets any address be
// bound, all of them pass for its own.
bool isOwnAddress(std::uint32_t address) {
  if (address >> 24 == IN_LOOPBACKNET) return true;
  const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in end = addressOf(address, 0);
  const bool isOwn = bind(probe, generic(end), sizeof end) == 0 || errno != EADDRNOTAVAIL;
  if (probe >= 0) close(probe);
  return isOwn;
}

bool parseAddress(const char* text, std::uint32_t& address) {
  in_addr parsed{};
  if (inet_aton(text, &parsed) == 0) return false;
  address = ntohl(parsed.s_addr);
  return true;
}

bool resolveHost(const char* name, std::uint32_t& address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &found) != 0) return false;
  if (found) address = ntohl(reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr.s_addr);
  const bool any = found != nullptr;
  freeaddrinfo(found);
  return any;
}

Transfer sendBytes(Socket socket, const void* bytes, std::int64_t count) {
  ssize_t result = send(socket, bytes, static_cast<std::size_t>(count), MSG_NOSIGNAL);
  if (result < 0 && errno == ENOTSOCK)
    result = write(socket, bytes, static_cast<std::size_t>(count));
  return outcomeOf(result);
}

Transfer sendGathered(Socket socket, const Piece* pieces, std::size_t count) {
  if (count == 1) return sendBytes(socket, pieces->bytes, pieces->count);
  std::array<iovec, kMostPieces> parts;
  for (std::size_t i = 0; i < count; ++i)
    parts[i] = {const_cast<void*>(pieces[i].bytes), static_cast<std::size_t>(pieces[i].count)};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = count;
  ssize_t result = sendmsg(socket, &message, MSG_NOSIGNAL);
  if (result < 0 && errno == ENOTSOCK)
    result = writev(socket, parts.data(), static_cast<int>(count));
  return outcomeOf(result);
}

Transfer receiveBytes(Socket socket, void* bytes, std::int64_t count) {
  ssize_t result = recv(socket, bytes, static_cast<std::size_t>(count), 0);
  if (result < 0 && errno == ENOTSOCK)
    result = read(socket, bytes, static_cast<std::size_t>(count));
  return outcomeOf(result);
}

bool makeBlocking(Socket socket, int milliseconds) {
  const timeval limit{milliseconds / 1000, milliseconds % 1000 * 1000L};
  const int flags = fcntl(socket, F_GETFL);
  return flags >= 0 && fcntl(socket, F_SETFL, flags & ~O_NONBLOCK) == 0 &&
         setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
         setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

bool makeNonBlocking(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  return flags >= 0 &&
         ((flags & O_NONBLOCK) != 0 || fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0);
}

int shutdownStream(Socket socket) {
  return shutdown(socket, SHUT_RDWR) == 0 ? 0 : errno;
}

int endSending(Socket socket) {
  return shutdown(socket, SHUT_WR) == 0 ? 0 : errno;
}

int closeStream(Socket socket) {
  return close(socket) == 0 ? 0 : errno;
}

std::uint16_t localPort(Socket socket) {
  sockaddr_in address{};
  return nameOf(getsockname, socket, address) ? ntohs(address.sin_port) : std::uint16_t{0};
}

std::string localAddress(Socket socket) {
  return dotted(getsockname, socket);
}

std::string peerAddress(Socket socket) {
  return dotted(getpeername, socket);
}

}  // namespace platform
