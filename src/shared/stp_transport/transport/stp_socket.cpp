#include "stp_transport/transport/stp_socket.h"

#include <cstdio>

#include "indgen/find.h"
#include "platform/credentials.h"
#include "platform/readiness.h"
#include "platform/socket.h"
#include "stp_transport/transport/stp_connect_attempt.h"

namespace {

void report(STPStatus* status, std::int32_t code, const char* text) {
  if (status) status->set(code, text);
}

}  // namespace

bool stpUsesLocalRoad() {
  static const bool isWanted = gen_getenv("HUBLINK_TCP_ONLY", nullptr) == nullptr;
  return isWanted;
}

std::string stpLocalName(std::uint16_t port) {
  return "hublink/" + std::to_string(platform::currentUser()) + "/" + std::to_string(port);
}

int getListenSocket(std::uint16_t port, STPStatus* status, bool loopbackOnly) {
  report(status, STP_OK, "");
  const platform::Socket fd = platform::openStream();
  if (fd == platform::kNoSocket) {
    report(status, STP_FAILED, "[GetListenSocket]: Could not create socket");
    return 0;
  }
  platform::setStreamOptions(fd);
  const char* failure = nullptr;
  if (!platform::bindPort(fd, port, loopbackOnly))
    failure = "[getListenSocket]: Could not bind to port";
  else if (!platform::listenOn(fd))
    failure = "[getListenSocket]: Could not listen on socket";
  if (!failure) return fd;
  platform::closeStream(fd);
  report(status, STP_FAILED, failure);
  return 0;
}

int getFreeListenSocket(std::uint16_t* port, STPStatus* status, bool loopbackOnly) {
  const int fd = getListenSocket(0, status, loopbackOnly);
  if (fd != 0) *port = platform::localPort(fd);
  return fd;
}

void closeListenSocket(int fd, STPStatus* status) {
  report(status, STP_OK, "");
  closeSocket(fd);
}

int acceptClient(int listenFD, bool closeListener, STPStatus* status) {
  report(status, STP_OK, "");
  platform::Transfer outcome;
  const platform::Socket fd = platform::acceptFrom(listenFD, outcome);
  if (fd < 0) {
    // Nobody is left, or a try just now would fail again: the next client announces itself.
    platform::readiness().drained(listenFD);
    if (!outcome.wouldBlock) report(status, STP_FAILED, "[acceptClient]: Could not accept");
    return -1;
  }
  if (closeListener) closeSocket(listenFD);
  platform::setStreamOptions(fd);
  return fd;
}

int connectToServer(const char* host, std::uint16_t port, STPStatus* status, bool takesLocalRoad) {
  STPConnectAttempt attempt(host, port, takesLocalRoad, STPConnectMode::waiting);
  if (status) *status = attempt.status();
  return attempt.takeSocket();
}

void closeSocket(int fd) {
  platform::readiness().forget(fd);
  const int shutdownError = platform::shutdownStream(fd);
  if (shutdownError != 0 && shutdownError != platform::error::notConnected)
    std::fprintf(stderr, "shutdown of socket %d failed with error: %d\n", fd, shutdownError);
  const int closeError = platform::closeStream(fd);
  if (closeError != 0)
    std::fprintf(stderr, "close of socket %d failed with error: %d\n", fd, closeError);
}
