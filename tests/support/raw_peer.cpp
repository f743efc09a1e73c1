#include "support/raw_peer.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>

#include "platform/clock.h"
#include "platform/readiness.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

std::vector<std::string> namesIn(const char* text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

}  // namespace

const std::vector<std::string> kTagNames = namesIn(
    "accept args argv client_cookie client_start cookie count data debugger debugger_opts do_debug "
    "error_message errors found host hostname is_shared_object localRN local_only message "
    "my_plugin_id name name_list name_value_pairs no_reuse num_persistent num_total persistent "
    "pluginID plugin_id plugin_name port preferAda providingPluginID remoteRN requesting_plugin_id "
    "rn rn_list serviceName serviceRN service_name shared_object_name startup_if_not_running "
    "success value variable wasAccepted wasFound working_dir");

const std::vector<std::string> kHubReceives = namesIn(
    "ConnectionAcceptedEvent DebugPlugin DropServiceConnection LogMessageEvent "
    "NumPersistentServices PersistentService RegisterServiceList ReleaseRN "
    "RequestHublinkDisconnect RequestLocation RequestPluginConnect RequestPluginIdForService "
    "RequestPluginLaunch RequestServiceConnection RequestValueOfNameOnPlugin ReserveRNBlock "
    "SetEnvironmentVariable SetPreferAda SetWorkingDir StartPluginEvent UnregisterService "
    "ValueOfNameOnPluginResponseEvent");

const std::vector<std::string> kHubSends = namesIn(
    "ConnectionDroppedEvent ConnectionReplyEvent ConnectionRequestedEvent "
    "ForwardedRequestValueOfNameOnPlugin LocationEvent PluginConnectedEvent PluginId "
    "PluginIdForServiceReplyEvent RNBlockReservedEvent StartLogging StartPlugin "
    "ValueOfNameOnPluginEvent");

std::uint32_t indexOf(const std::vector<std::string>& names, std::string_view name) {
  return static_cast<std::uint32_t>(std::find(names.begin(), names.end(), name) - names.begin());
}

std::string wordBytes(std::uint32_t word) {
  std::string bytes(4, '\0');
  for (unsigned i = 0; i < 4; ++i) bytes[i] = static_cast<char>(word >> (8 * i) & 0xFF);
  return bytes;
}

std::string packetBytes(const PacketShape& shape, std::string_view payload) {
  std::string header;
  for (const std::uint32_t word :
       {shape.headerSize, static_cast<std::uint32_t>(payload.size()), 2u, shape.destination,
        shape.sequence, 0u, shape.type, shape.id, shape.flags, shape.sequence, 1u})
    header += wordBytes(word);
  header.resize(shape.headerSize, '\xEE');
  return header.append(payload);
}

std::string filled(std::string packet) {
  packet.resize((packet.size() + 3) & ~std::size_t{3}, '\xEE');
  return packet;
}

static std::string payloadOf(STPMessage& message) {
  message.finishMessage(2);
  return {reinterpret_cast<const char*>(message.storage()) + STP_HEADER_SIZE,
          static_cast<std::size_t>(message.header.payloadSize)};
}

std::string hubMessageBytes(std::string_view name, const std::function<void(STPMessage&)>& write,
                            std::uint32_t flags) {
  STPMessage message;
  if (write) write(message);
  return packetBytes({.id = hubMessage(name), .flags = flags}, payloadOf(message));
}

std::string hubMessageBytes(std::string_view name, const Numbers& fields) {
  return hubMessageBytes(name, [&](STPMessage& message) {
    for (const auto& [field, value] : fields) message.putU32(tag(field), value);
  });
}

void putTexts(STPMessage& message, std::int32_t block, std::int32_t countTag, std::uint32_t count,
              const std::vector<const char*>& texts) {
  std::int64_t mark = 0;
  message.beginStruct(block, mark);
  message.putU32(countTag, count);
  message.putU32(STP_TAG_ARRAY_COUNT, count);
  for (const char* text : texts) message.putString(STP_TAG_ARRAY_ELEMENT, text);
  message.endStruct(mark);
}

std::string negotiateBytes(const std::vector<std::string>& tags,
                           const std::vector<std::string>& messages,
                           const std::vector<std::uint32_t>& ids) {
  STPMessage message;
  message.writeWord("plugin", "name");
  message.writeString("1", "vstamp");
  message.writeInt(0, "flags");
  message.writeArrayBegin(static_cast<std::int32_t>(tags.size()), "tags");
  for (const std::string& name : tags) message.writeWord(name.c_str());
  message.writeArrayEnd();
  message.writeArrayBegin(static_cast<std::int32_t>(messages.size()), "msgs");
  for (std::size_t i = 0; i < messages.size(); ++i) {
    message.writeBlockBegin();
    message.writeInt(ids[i], "id");
    message.writeWord(messages[i].c_str(), "name");
    message.writeInt(2, "flags");
    message.writeBlockEnd();
  }
  message.writeArrayEnd();
  return packetBytes({.type = STP_NEGOTIATION, .id = STP_NEGOTIATE}, payloadOf(message));
}

std::string negotiateBytes() {
  std::vector<std::uint32_t> ids(kHubSends.size());
  for (std::size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<std::uint32_t>(i);
  return negotiateBytes(kTagNames, kHubSends, ids);
}

std::uint32_t Packet::word(std::size_t index) const {
  return index * 4 + 4 <= bytes.size()
             ? stpReadWord(reinterpret_cast<const unsigned char*>(bytes.data()) + index * 4)
             : 0;
}

STPReceivedMessage Packet::read() const {
  return {reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<std::int32_t>(word(0)),
          static_cast<std::int32_t>(word(1))};
}

RawPeer::RawPeer(std::uint16_t port, bool byLocalRoad)
    : socket_(byLocalRoad ? platform::connectToName(stpLocalName(port)) : platform::openStream()) {
  constexpr std::uint32_t kLoopback = 0x7F000001;
  if (!byLocalRoad && platform::connectStream(socket_, kLoopback, port, kPatience) != 0) {
    close();
    return;
  }
  platform::setStreamOptions(socket_);
  platform::readiness().watch(socket_);
}

RawPeer::RawPeer(RawPeer&& other) noexcept
    : socket_(std::exchange(other.socket_, platform::kNoSocket)),
      input_(std::move(other.input_)),
      taken_(std::exchange(other.taken_, 0)) {}

void RawPeer::close() {
  if (socket_ == platform::kNoSocket) return;
  platform::readiness().forget(socket_);
  platform::closeStream(socket_);
  socket_ = platform::kNoSocket;
}

bool RawPeer::send(std::string_view bytes) {
  const std::uint64_t end = platform::monotonicMilliseconds() + kPatience;
  while (!bytes.empty()) {
    const platform::Transfer sent =
        platform::sendBytes(socket_, bytes.data(), static_cast<std::int64_t>(bytes.size()));
    if (sent.error != 0 || platform::monotonicMilliseconds() > end) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent.count));
    if (!sent.wouldBlock) continue;
    platform::readiness().clearWritable(socket_);
    bool failed = false;
    platform::readiness().wait(kPatience, failed);
  }
  return true;
}

bool RawPeer::receive() {
  const std::uint64_t end = platform::monotonicMilliseconds() + kPatience;
  static std::array<char, 1 << 18> block;
  while (socket_ != platform::kNoSocket) {
    const platform::Transfer got = platform::receiveBytes(socket_, block.data(), block.size());
    if (got.error == 0 && got.count > 0) {
      input_.append(block.data(), static_cast<std::size_t>(got.count));
      return true;
    }
    if (!got.wouldBlock) {
      close();
      return false;
    }
    if (platform::monotonicMilliseconds() > end) return false;
    platform::readiness().drained(socket_);
    bool failed = false;
    platform::readiness().wait(kPatience, failed);
  }
  return false;
}

Packet RawPeer::next() {
  for (;;) {
    const std::size_t available = input_.size() - std::min(taken_, input_.size());
    if (available >= 8) {
      Packet packet{input_.substr(taken_, 8)};
      const std::size_t size = packet.word(0) + packet.word(1);
      if (available >= size) {
        packet.bytes = input_.substr(taken_, size);
        taken_ += (size + 3) & ~std::size_t{3};
        return packet;
      }
    }
    if (taken_ <= input_.size()) {
      input_.erase(0, taken_);
      taken_ = 0;
    }
    if (!receive()) return {};
  }
}

bool RawPeer::isAnswered() {
  send(hubMessageBytes("NumPersistentServices", nullptr, 0x01));
  Packet packet = next();
  while (!packet.isEmpty() && packet.word(6) != STP_RESPONSE) packet = next();
  return !packet.isEmpty();
}

platform::Socket RawPeer::blockingSocket() {
  platform::makeBlocking(socket_, 50);
  return socket_;
}

bool RawPeer::ends() {
  while (receive()) input_.clear();
  taken_ = 0;
  return socket_ == platform::kNoSocket;
}

std::uint32_t RawPeer::negotiate(const std::string& record) {
  if (!send(record)) return 0;
  next();
  return next().read().getU32(tag("plugin_id"));
}
