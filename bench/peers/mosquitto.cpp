// MQTT 3.1.1 at quality of service 0, docs.oasis-open.org/mqtt/mqtt/v3.1.1.
#include <fstream>

#include "bench/peers/framed_client.h"

namespace {

constexpr unsigned char kConnect = 0x10, kConnectAck = 0x20, kPublish = 0x30, kSubscribe = 0x82,
                        kSubscribeAck = 0x90;
constexpr std::size_t kLengthBytes = 4;  // at most

void appendText(std::string_view text, Bytes& bytes) {
  bytes.push_back(static_cast<unsigned char>(text.size() >> 8));
  bytes.push_back(static_cast<unsigned char>(text.size()));
  bytes.insert(bytes.end(), text.begin(), text.end());
}

// Section 2.2.3: seven bits in each byte, the lowest first.
void appendLength(std::size_t length, Bytes& bytes) {
  for (; length > 0x7F; length >>= 7) bytes.push_back(static_cast<unsigned char>(length | 0x80));
  bytes.push_back(static_cast<unsigned char>(length));
}

class MqttClient : public FramedClient {
 public:
  MqttClient(const BrokerPlace& place, PeerEnd end) : FramedClient(place.port), end_(end) {}

  bool join() {
    // Level 4, a clean session, no keep-alive.
    Bytes rest;
    appendText("MQTT", rest);
    rest.insert(rest.end(), {4, 2, 0, 0});
    appendText(addressOf(end_), rest);
    if (!sendPacket(kConnect, rest) || !awaitFrame(kConnectAck)) return false;
    rest = {0, 1};
    appendText(addressOf(end_), rest);
    rest.push_back(0);
    return sendPacket(kSubscribe, rest) && awaitFrame(kSubscribeAck);
  }

 protected:
  void appendFrame(Message payload, Bytes& bytes) const override {
    const std::string_view topic = addressOfOther(end_);
    bytes.push_back(kPublish);
    appendLength(2 + topic.size() + payload.size(), bytes);
    appendText(topic, bytes);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
  }

  bool readFrame(Message bytes, Frame& frame) override {
    std::size_t length = 0, place = 1;
    for (bool more = true; more; ++place) {
      if (place > kLengthBytes) return fail("a packet with too long a length has arrived");
      if (place >= bytes.size()) return true;
      length |= static_cast<std::size_t>(bytes[place] & 0x7F) << (7 * (place - 1));
      more = (bytes[place] & 0x80) != 0;
    }
    if (bytes.size() < place + length) return true;
    frame.size = place + length;
    const Message rest = bytes.subspan(place, length);
    if (bytes[0] != kPublish) {
      frame.kind = bytes[0];
      // The last byte of both acknowledgements is 0 if they grant what was asked for.
      return rest.empty() || rest.back() == 0 || fail("the broker refuses the client");
    }
    const std::size_t topic = length < 2 ? length : 2u + (rest[0] << 8 | rest[1]);
    if (topic > length) return fail("a packet with too long a topic has arrived");
    frame.payload = rest.subspan(topic);
    return true;
  }

 private:
  bool sendPacket(unsigned char type, const Bytes& rest) {
    Bytes bytes{type};
    appendLength(rest.size(), bytes);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return sendFrame(bytes);
  }

  PeerEnd end_;
};

}  // namespace

const PeerKind kMosquitto{"mosquitto", "mosquitto, QoS 0", "mosquitto",
                          [](const BrokerPlace& place) -> std::vector<std::string> {
                            const std::string file = place.directory + "/mosquitto.conf";
                            // Queues so long that nothing is dropped from them.
                            std::ofstream(file)
                                << "listener " << place.port << " 127.0.0.1\n"
                                << "allow_anonymous true\nset_tcp_nodelay true\npersistence false\n"
                                << "log_dest none\nmax_inflight_messages 0\n"
                                << "max_queued_messages 100000000\n";
                            return {"-c", file};
                          },
                          connectClient<MqttClient>};
