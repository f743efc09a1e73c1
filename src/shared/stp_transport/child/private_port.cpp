#include "stp_transport/child/private_port.h"

#include "platform/credentials.h"

namespace {

// Strangers that one try sends away at most.
constexpr int kMostStrangers = 64;

}  // namespace

void PrivatePort::open(STPStatus* status) {
  close();
  listener_.open(0, status, true);
}

void PrivatePort::listenWith(STPTransport* transport, STPStatus* status) {
  transport->startListenOn(listener_, status);
  if (status->good()) transport_ = CountedPtr<STPTransport>(transport);
}

bool PrivatePort::tryAccept(STPStatus* status) {
  for (int i = 0; i < kMostStrangers; ++i) {
    if (!transport_->tryAccept(false, status)) return false;
    if (platform::userOfClient(transport_->fileDescriptor()).isOwn()) {
      listener_.close();
      transport_.reset();
      return true;
    }
    transport_->disconnect();
    transport_->startListenOn(listener_, status);
    if (!status->good()) return false;
    transport_->handleRead();  // only a further try tells whether somebody else waits
  }
  return false;
}

void PrivatePort::close() {
  if (!listener_.isOpen()) return;
  if (transport_ && transport_->isListening() && transport_->fileDescriptor() == listener_.tcp())
    transport_->stopListening();
  listener_.close();
  transport_.reset();
}
