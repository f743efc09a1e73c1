// Binding a transport to a socket, with the guards of its states.
#include "platform/readiness.h"
#include "platform/socket.h"
#include "stp_transport/transport/stp_listener.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_socket.h"
#include "stp_transport/transport/stp_transport.h"

void STPTransport::connect(const char* host, std::uint16_t port, STPStatus* status,
                           bool takesLocalRoad) {
  if (isConnected()) {
    status_.set(STP_MISUSE, "[connect]: Already connected");
  } else if (isListening()) {
    status_.set(STP_MISUSE, "[connect]: Already listening as server");
  } else {
    const int fd = connectToServer(host, port, &status_, takesLocalRoad);
    if (status_.good()) bindFD(fd);
  }
  copyStatus(status);
}

void STPTransport::listen(std::uint16_t port, RetryHandler* retry, STPStatus* status) {
  const Hold hold(this);
  if (isConnected()) {
    status_.set(STP_MISUSE, "[listen]: Already connected");
  } else if (isListening()) {
    status_.set(STP_MISUSE, "[listen]: Already listening as server");
  } else {
    const int fd = getListenSocket(port, &status_);
    if (status_.good()) {
      listenOnFD(fd, true, retry);
      // A failed accept has left the port to nobody.
      if (isClosed() && !status_.good()) closeSocket(fd);
    }
  }
  copyStatus(status);
}

void STPTransport::listenOnFD(int fd, bool closeListener, RetryHandler* retry, STPStatus* status) {
  const Hold hold(this);
  startListenOnFD(fd);
  if (status_.good()) {
    bool isAccepted = false;
    waitUntil(retry, WaitOrder::passFirst, [&] {
      isAccepted = tryAccept(closeListener);
      return isAccepted || isClosed();
    });
    if (!isAccepted && status_.good())
      status_.set(STP_TIMEOUT, "[listenOnFD]: timed out waiting for client");
  }
  copyStatus(status);
}

void STPTransport::startListenOnFD(int fd, STPStatus* status) {
  if (isConnected()) {
    status_.set(STP_MISUSE, "[startListenOnFD]: Already connected");
  } else if (isListening()) {
    status_.set(STP_MISUSE, "[startListenOnFD]: Already listening as server");
  } else {
    status_.clear();
    link_ = Link::listening;
    fd_ = fd;
    watchForClients(fd);
  }
  copyStatus(status);
}

void STPTransport::startListenOn(const STPListener& listener, STPStatus* status) {
  startListenOnFD(listener.tcp(), status);
  if (!status_.good() || listener.local() == 0) return;
  localFD_ = listener.local();
  watchForClients(localFD_);
}

void STPTransport::watchForClients(int fd) {
  platform::readiness().watch(fd);
  claim(fd);
}

void STPTransport::endListening() {
  disclaim(fd_);
  disclaim(localFD_);
  fd_ = localFD_ = -1;
  link_ = Link::closed;
}

void STPTransport::stopListening() {
  if (!isListening()) return;
  endListening();
  ++stpProcess().closings;
  attend();
}

// Each transport takes one client: turn about, so that neither road starves the other.
int STPTransport::takeClient(bool closeListener) {
  if (localFD_ < 0) return acceptClient(fd_, closeListener, &status_);
  const bool localFirst = serial_ % 2 == 0;
  const int first = acceptClient(localFirst ? localFD_ : fd_, false, &status_);
  if (first >= 0 || !status_.good()) return first;
  return acceptClient(localFirst ? fd_ : localFD_, false, &status_);
}

bool STPTransport::tryAccept(bool closeListener, STPStatus* status) {
  if (!isListening()) {
    status_.set(STP_MISUSE, isConnected() ? "[tryAccept]: Already connected"
                                          : "[tryAccept]: Not listening as server");
    copyStatus(status);
    return false;
  }
  status_.clear();
  if (link_ != Link::clientWaiting) {
    copyStatus(status);
    return false;
  }
  link_ = Link::listening;
  attend();
  const int fd = takeClient(closeListener);
  // Whoever was there has gone again: no failure, and the wait goes on.
  if (fd < 0 && status_.good()) {
    copyStatus(status);
    return false;
  }
  // It goes on as the client's: only without one has it ended.
  const bool hasClient = status_.good();
  endListening();
  if (hasClient) {
    bindFD(fd);
  } else {
    ++stpProcess().closings;
    attend();
  }
  copyStatus(status);
  return status_.good();
}

void STPTransport::bindFD(int fd, STPStatus* status) {
  if (isConnected()) {
    status_.set(STP_MISUSE, "[bindFD]: Already bound");
  } else if (isListening()) {
    status_.set(STP_MISUSE, "[bindFD]: Already listening");
  } else {
    status_.clear();
    fd_ = fd;
    link_ = Link::connected;
    writeQueue_.append(fields_.front(), fields_.count);  // was queued before
    fields_.clear();
    platform::makeNonBlocking(fd);
    platform::readiness().watch(fd);
    claim(fd);
  }
  copyStatus(status);
}

void STPTransport::serveOnPort(std::uint16_t port, STPStatus* status) {
  const Hold hold(this);
  listen(port, nullptr);
  while (status_.good() && isConnected()) serviceOnce(STP_WAIT_STEP);
  copyStatus(status);
}

void STPTransport::serveOnFD(int fd, STPStatus* status) {
  const Hold hold(this);
  bindFD(fd);
  while (status_.good() && isConnected()) serviceOnce(STP_WAIT_STEP);
  copyStatus(status);
}
