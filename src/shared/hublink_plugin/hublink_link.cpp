#include "hublink_plugin/hublink_link.h"

#include "hublink_plugin/hublink_plugin.h"
#include "stp_transport/spec/stp_specclass.h"
#include "stp_transport/transport/response_listener.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

// Field word and length word in front of the bytes.
constexpr std::int64_t kBytesOffset = 8;
// What a packet must be below, in bytes.
constexpr std::size_t kMostBytes = static_cast<std::size_t>(STP_MAX_PACKET_SIZE) - 128;

}  // namespace

class HublinkLink::Listener : public ResponseListener {
 public:
  explicit Listener(HublinkLink& link) : link_(link) {}
  bool handleMessage(STPReceivedMessage& message, bool) override {
    if (!link_.transport_->canDeliver(message)) return false;
    const std::shared_ptr<HublinkLink> hold = link_.shared_from_this();
    hold->arrive(message);
    return true;
  }

 private:
  HublinkLink& link_;
};

HublinkLink::HublinkLink(HublinkPlugin* plugin, std::int32_t localRN, std::int32_t remoteRN,
                         std::int32_t peerPluginID, std::string serviceName, bool ownsRN)
    : plugin_(plugin),
      transport_(plugin->transport_),
      listener_(std::make_unique<Listener>(*this)),
      localRN_(localRN),
      remoteRN_(remoteRN),
      peerPluginID_(peerPluginID),
      serviceName_(std::move(serviceName)),
      ownsRN_(ownsRN) {
  transport_->addListener(remoteRN, localRN, listener_.get(), STP_PLAIN);
}

HublinkLink::~HublinkLink() {
  transport_->removeListener(listener_.get());
}

bool HublinkLink::send(const void* bytes, std::size_t size) {
  if (!up_ || size >= kMostBytes) return false;
  const std::shared_ptr<HublinkLink> hold = shared_from_this();
  return awaitRoom(-1) && queue(bytes, size);
}

bool HublinkLink::awaitRoom(int milliseconds) {
  if (!up_) return false;
  if (!plugin_->isFull()) return true;
  return plugin_->awaitRoom([this] { return !up_; }, milliseconds) && up_;
}

SendOutcome HublinkLink::trySend(const void* bytes, std::size_t size) {
  if (!up_ || size >= kMostBytes) return SendOutcome::failed;
  if (plugin_->isFull()) plugin_->flush();
  if (plugin_->isFull()) {
    if (!std::exchange(awaitsRoom_, true)) plugin_->roomAwaited_.push_back(weak_from_this());
    return SendOutcome::full;
  }
  return queue(bytes, size) ? SendOutcome::sent : SendOutcome::failed;
}

bool HublinkLink::queue(const void* bytes, std::size_t size) {
  const auto message = transport_->newMessage(localRN_, remoteRN_, STP_PLAIN, 0, STP_ONE_WAY);
  message->putArrayData(STP_TAG_PLAIN_BYTES, bytes, static_cast<std::int32_t>(size), 1);
  return transport_->enqueueMessage(*message) != 0;
}

void HublinkLink::tellRoom() {
  const std::shared_ptr<HublinkLink> hold = shared_from_this();
  awaitsRoom_ = false;
  const RoomHandler handler = roomHandler_;  // it may be replaced in the call
  if (up_ && handler) handler();
}

void HublinkLink::flush() {
  if (up_) plugin_->flush();
}

void HublinkLink::takeRest() {
  while (up_) {
    const auto message = transport_->takeDeferred(remoteRN_, localRN_, STP_PLAIN);
    if (!message) return;
    arrive(*message);
  }
}

void HublinkLink::arrive(const STPReceivedMessage& message) {
  const unsigned char* payload = message.storage() + message.header.headerSize;
  const std::int64_t room = message.header.payloadSize - kBytesOffset;
  if (room < 0) return;
  const std::int64_t size = stpReadWord(payload + 4);
  if (size > room) return;
  const unsigned char* bytes = payload + kBytesOffset;
  if (!packetHandler_)
    inbox_.emplace_back(bytes, bytes + size);
  else if (plugin_ && plugin_->putsOff())
    plugin_->putOff_.push_back(
        [hold = shared_from_this(), packet = Packet(bytes, bytes + size)] { hold->take(packet); });
  else
    callHandler(bytes, static_cast<std::size_t>(size));
  if (plugin_) plugin_->handlePutOff();
}

// A link that has ended has no plugin any more.
void HublinkLink::callHandler(const unsigned char* bytes, std::size_t size) {
  HublinkPlugin* const plugin = plugin_;
  const PacketHandler handler = packetHandler_;  // it may be replaced in the call
  if (plugin) ++plugin->packetDepth_;
  handler(bytes, size);
  if (plugin) --plugin->packetDepth_;
}

void HublinkLink::take(const Packet& packet) {
  if (packetHandler_)
    callHandler(packet.data(), packet.size());
  else
    inbox_.push_back(packet);
}

void HublinkLink::onPacket(PacketHandler handler) {
  const std::shared_ptr<HublinkLink> hold = shared_from_this();
  packetHandler_ = std::move(handler);
  while (packetHandler_ && !inbox_.empty()) {
    const Packet packet = std::move(inbox_.front());
    inbox_.pop_front();
    callHandler(packet.data(), packet.size());
  }
  if (plugin_) plugin_->handlePutOff();
}

bool HublinkLink::receive(Packet& packet, int milliseconds) {
  const std::shared_ptr<HublinkLink> hold = shared_from_this();
  if (inbox_.empty() && up_)
    plugin_->serveUntil([this] { return !inbox_.empty() || !up_; }, milliseconds);
  if (inbox_.empty()) return false;
  packet = std::move(inbox_.front());
  inbox_.pop_front();
  return true;
}

void HublinkLink::onEnd(EndHandler handler) {
  if (plugin_)
    endHandler_ = std::move(handler);
  else if (handler)
    handler();
}

void HublinkLink::attach(STPSpecClass* spec) {
  spec->setTransport(transport_.get(), localRN_, remoteRN_);
  if (!up_) {
    spec->virtualConnectionClose();
    return;
  }
  specs_.emplace_back(spec);
  // The other side's record may have come with the reply that has made this link.
  while (transport_->redispatchUnclaimed(remoteRN_, localRN_, STP_NEGOTIATION)) {
  }
}

void HublinkLink::close() {
  if (!up_) return;
  endHandler_ = nullptr;
  packetHandler_ = nullptr;
  plugin_->closeLink(*this);
}

void HublinkLink::end() {
  if (!up_) return;
  const std::shared_ptr<HublinkLink> hold = shared_from_this();
  up_ = false;
  for (const auto& spec : std::exchange(specs_, {})) spec->virtualConnectionClose();
  if (plugin_->putsOff())
    plugin_->putOff_.push_back([hold] { hold->tellEnd(); });
  else
    tellEnd();
}

void HublinkLink::tellEnd() {
  plugin_ = nullptr;
  packetHandler_ = nullptr;
  roomHandler_ = nullptr;
  if (const EndHandler handler = std::exchange(endHandler_, nullptr)) handler();
}
