// Channels and the sync barrier, on both sides: what a program asks for and what a peer's packets
// do.
#include "stp_transport/transport/stp_channel.h"

#include <algorithm>

#include "stp_transport/transport/stp_transport.h"

namespace {

// A peer can neither open nor sync more than this without anybody taking part.
constexpr std::size_t kUnclaimedLimit = 65536;

}  // namespace

void STPTransport::queueControl(std::int32_t local, std::int32_t remote, std::uint32_t type,
                                std::uint32_t id) {
  enqueueMessage(*newMessage(local, remote, type, id, 0));
}

void STPTransport::recordSync(const STPReceivedMessage& message) {
  if (syncs_.size() >= kUnclaimedLimit) syncs_.pop_front();
  syncs_.emplace_back(message.header.sourceRN, message.header.destinationRN);
}

bool STPTransport::takeSync(std::int32_t source, std::int32_t destination) {
  const auto place = std::find(syncs_.begin(), syncs_.end(), std::pair(source, destination));
  if (place == syncs_.end()) return false;
  syncs_.erase(place);
  return true;
}

void STPTransport::awaitSync(std::int32_t local, std::int32_t remote, RetryHandler* retry,
                             STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  queueControl(local, remote, STP_SYNC, 0);
  bool synced = false;
  const WaitState end = waitUntil(retry, WaitOrder::askFirst, [&] {
    synced = synced || takeSync(remote, local);
    return synced && !isWritePending();
  });
  if (end == WaitState::gaveUp)
    status_.set(STP_TIMEOUT, "[awaitSync]: reached timeout while waiting to receive sync packet");
  // What came together with the failure is no barrier for the next connection.
  if (end == WaitState::failed && !synced) takeSync(remote, local);
  copyStatus(status);
}

STPChannel* STPTransport::createChannel(std::int32_t local, std::int32_t remote,
                                        RetryHandler* retry, STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  STPChannel*& entry = channels_[ChannelKey{local, remote}];
  if (entry && entry->createSent_) {
    status_.set(STP_MISUSE, "[createChannel]: Tried to create channel that exists");
    copyStatus(status);
    return nullptr;
  }
  if (!entry) entry = new STPChannel(this, local, remote);
  STPChannel* channel = entry;
  channel->createSent_ = true;
  queueControl(local, remote, STP_CHANNEL, STP_CHANNEL_CREATE);
  const WaitState end = waitUntil(retry, WaitOrder::askFirst,
                                  [&] { return channel->createReceived_ && !isWritePending(); });
  if (end == WaitState::gaveUp) {
    status_.set(STP_TIMEOUT,
                "[createChannel]: reached timeout while waiting to receive create ack");
    channel->closeSent_ = true;  // no close goes out
    delete channel;
    channel = nullptr;
  }
  copyStatus(status);
  return channel;
}

void STPTransport::handleChannelPacket(const STPReceivedMessage& message) {
  // Seen from this side the packet's destination is the local end.
  const ChannelKey key{message.header.destinationRN, message.header.sourceRN};
  const auto place = channels_.find(key);
  STPChannel* channel = place == channels_.end() ? nullptr : place->second;
  switch (message.header.id) {
    case STP_CHANNEL_CREATE:
      if (!channel && channels_.size() < kUnclaimedLimit)
        channel = channels_[key] = new STPChannel(this, key.first, key.second);
      if (channel) channel->createReceived_ = true;
      break;
    case STP_CHANNEL_START:
      if (channel) channel->startReceived_ = true;
      break;
    case STP_CHANNEL_CLOSE:
      if (channel) channel->closeReceived_ = true;
      break;
    default:
      break;
  }
}

// Channels that only the peer has opened have no other owner; the others outlive the transport.
void STPTransport::dropChannels() {
  for (const auto& entry : channels_) {
    STPChannel* channel = entry.second;
    channel->transport_ = nullptr;
    if (!channel->createSent_) delete channel;
  }
  channels_.clear();
}

STPChannel::~STPChannel() {
  if (!transport_) return;
  if (!closeSent_) transport_->queueControl(localRN_, remoteRN_, STP_CHANNEL, STP_CHANNEL_CLOSE);
  transport_->channels_.erase({localRN_, remoteRN_});
}

void STPChannel::startChannel(RetryHandler* retry, STPStatus* status) {
  status_.clear();
  if (startSent_)
    status_.set(STP_MISUSE, "[startChannel]: Channel start already sent.");
  else if (closeSent_)
    status_.set(STP_MISUSE, "[startChannel]: Channel close already sent.");
  else if (closeReceived_ || !transport_)
    status_.set(STP_CHANNEL_CLOSED, "[startChannel]: Channel has been closed.");
  if (status_.good()) {
    const STPTransport::Hold hold(transport_);
    startSent_ = true;
    transport_->status_.clear();
    transport_->queueControl(localRN_, remoteRN_, STP_CHANNEL, STP_CHANNEL_START);
    const WaitState end = transport_->waitUntil(retry, WaitOrder::askFirst, [&] {
      if (isStarted() && !transport_->isWritePending()) return true;
      if (isClosed())
        status_.set(STP_CHANNEL_CLOSED, "[startChannel]: channel already closed before start");
      return isClosed();
    });
    if (end == WaitState::gaveUp)
      status_.set(STP_TIMEOUT, "[startChannel]: reached timeout while waiting to receive start");
    else if (status_.good())
      status_ = transport_->status_;
  }
  if (status) *status = status_;
}

void STPChannel::closeChannel(RetryHandler* retry, STPStatus* status) {
  status_.clear();
  if (!transport_ || closeSent_) {
    status_.set(STP_MISUSE, "[startChannel]: Channel already closed.");
  } else {
    const STPTransport::Hold hold(transport_);
    closeSent_ = true;
    transport_->status_.clear();
    transport_->queueControl(localRN_, remoteRN_, STP_CHANNEL, STP_CHANNEL_CLOSE);
    if (transport_->waitUntil(retry, WaitOrder::lookFirst,
                              [&] { return !transport_->isWritePending(); }) == WaitState::gaveUp)
      status_.set(STP_TIMEOUT, "[closeChannel]: reached timeout while waiting to transmit close");
    else
      status_ = transport_->status_;
  }
  if (status) *status = status_;
}
