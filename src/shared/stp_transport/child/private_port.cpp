#include "stp_transport/child/private_port.h"

#include "stp_transport/transport/stp_socket.h"

void PrivatePort::open(STPStatus* status) {
  close();
  socket_ = getFreeListenSocket(&number_, status, true);
}

void PrivatePort::listenWith(STPTransport* transport, STPStatus* status) {
  transport->startListenOnFD(socket_, status);
  if (status->good()) transport_ = CountedPtr<STPTransport>(transport);
}

void PrivatePort::connected() {
  socket_ = 0;
  transport_.reset();
}

void PrivatePort::close() {
  if (socket_ == 0) return;
  if (transport_ && transport_->isListening() && transport_->fileDescriptor() == socket_)
    transport_->stopListening();
  closeListenSocket(socket_, nullptr);
  connected();
}
