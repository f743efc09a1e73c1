#include "stp_transport/child/private_port.h"

#include "platform/credentials.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

// Strangers that one try sends away at most.
constexpr int kMostStrangers = 64;

}  // namespace

void PrivatePort::open(STPStatus* status) {
  close();
  socket_ = getFreeListenSocket(&number_, status, true);
}

void PrivatePort::listenWith(STPTransport* transport, STPStatus* status) {
  transport->startListenOnFD(socket_, status);
  if (status->good()) transport_ = CountedPtr<STPTransport>(transport);
}

bool PrivatePort::tryAccept(STPStatus* status) {
  for (int i = 0; i < kMostStrangers; ++i) {
    if (!transport_->tryAccept(false, status)) return false;
    if (platform::userOfClient(transport_->fileDescriptor()).isOwn()) {
      closeListenSocket(socket_, nullptr);
      forget();
      return true;
    }
    transport_->disconnect();
    transport_->startListenOnFD(socket_, status);
    if (!status->good()) return false;
    transport_->handleRead();  // only a further try tells whether somebody else waits
  }
  return false;
}

void PrivatePort::forget() {
  socket_ = 0;
  transport_.reset();
}

void PrivatePort::close() {
  if (socket_ == 0) return;
  if (transport_ && transport_->isListening() && transport_->fileDescriptor() == socket_)
    transport_->stopListening();
  closeListenSocket(socket_, nullptr);
  forget();
}
