#include "services/hublink/entrance.h"

#include "platform/clock.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/user_gate.h"

namespace {

// Clients that one pass takes at most.
constexpr int kMostAccepts = 256;
// Milliseconds after which an accept that failed is tried again.
constexpr std::uint64_t kAcceptRetry = 500;

}  // namespace

bool Entrance::open(bool loopbackOnly) {
  STPStatus status;
  if (!sockets_.open(static_cast<std::uint16_t>(port_), &status, loopbackOnly, !tcpOnly_))
    return false;
  port_ = sockets_.port();
  if (!tcpOnly_ && sockets_.local() == 0)
    log_.logInternal("Local socket of port %u can't be had: plugins connect by TCP.\n", port_);
  renewListener();
  return listener_ != nullptr;
}

// A new transport for the next client.
void Entrance::renewListener() {
  listener_ = nullptr;
  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  transport->startListenOn(sockets_, &status);
  if (!status.good()) return;
  listener_ = transport.get();
  transport->addRef();
  transports_.insert(listener_);
}

void Entrance::acceptNewConnections() {
  for (int count = 0; count < kMostAccepts && acceptNewConnection(); ++count)
    if (listener_) listener_->handleRead();  // only a further try tells whether somebody else waits
}

// True if there was a client.
bool Entrance::acceptNewConnection() {
  if (!listener_) {
    // Without a listener nobody could come any more: it is made anew as soon as it can be.
    acceptFailed();
    return false;
  }
  if (acceptBroken_) {
    if (platform::monotonicMilliseconds() < retryAt_) return false;
    listener_->handleRead();  // nothing announces those who already wait
  }
  STPStatus status;
  const bool accepted = listener_->tryAccept(false, &status);
  if (!status.good()) {
    acceptFailed();
    return false;
  }
  acceptBroken_ = false;
  if (!accepted) return false;
  CountedPtr<STPTransport> client(listener_);
  renewListener();
  if (!gate_.mayConnect(*client, port_)) {
    client->disconnect();
    return true;
  }
  log_.logInternal("Accepted new connection.\n");
  if (plugins_.ids().areLeft()) {
    plugins_.add(client);
  } else {
    log_.logInternal("Closed new connection: plugin IDs are used up.\n");
    client->disconnect();
  }
  return true;
}

// The transport that waited is idle now and goes with the next reaping; the socket itself is sound.
void Entrance::acceptFailed() {
  if (!acceptBroken_) log_.logInternal("Unable to accept a new connection.\n");
  acceptBroken_ = true;
  retryAt_ = platform::monotonicMilliseconds() + kAcceptRetry;
  renewListener();
}
