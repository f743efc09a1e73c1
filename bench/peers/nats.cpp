// NATS: a text protocol, docs.nats.io/reference/reference-protocols/nats-protocol.
#include <algorithm>
#include <charconv>
#include <cstring>

#include "bench/peers/framed_client.h"

namespace {

constexpr std::size_t kLineEnd = 2;  // "\r\n"

class NatsClient : public FramedClient {
 public:
  NatsClient(const BrokerPlace& place, PeerEnd end) : FramedClient(place.port), end_(end) {}

  bool join() {
    return sendText("CONNECT {\"verbose\":false,\"pedantic\":false,\"echo\":false}\r\nSUB " +
                    std::string(addressOf(end_)) + " 1\r\nPING\r\n") &&
           awaitFrame(kPong);
  }

 protected:
  void appendFrame(Message payload, Bytes& bytes) const override {
    const std::string line =
        "PUB " + std::string(addressOfOther(end_)) + " " + std::to_string(payload.size()) + "\r\n";
    bytes.insert(bytes.end(), line.begin(), line.end());
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    bytes.insert(bytes.end(), {'\r', '\n'});
  }

  bool readFrame(Message bytes, Frame& frame) override {
    const char* text = reinterpret_cast<const char*>(bytes.data());
    const void* lineEnd = std::memchr(text, '\n', bytes.size());
    if (!lineEnd) return true;
    const auto length = static_cast<std::size_t>(static_cast<const char*>(lineEnd) - text) + 1;
    const std::string_view line(text, std::max(length, kLineEnd) - kLineEnd);
    if (line.starts_with("MSG ")) return readMessage(bytes, line, frame);
    if (line.starts_with("-ERR")) return fail(std::string(line).c_str());
    frame.size = length;
    frame.kind = line == "PONG" ? kPong : kOther;
    return line != "PING" || sendText("PONG\r\n");
  }

 private:
  enum Kind { kPong, kOther };

  bool readMessage(Message bytes, std::string_view line, Frame& frame) {
    std::size_t payload = 0;
    const char* number = line.data() + line.rfind(' ') + 1;
    const char* end = line.data() + line.size();
    if (const auto parsed = std::from_chars(number, end, payload);
        parsed.ec != std::errc() || parsed.ptr != end)
      return fail("a message without its size has arrived");
    const std::size_t before = line.size() + kLineEnd, size = before + payload + kLineEnd;
    if (bytes.size() < size) return true;
    frame.size = size;
    frame.payload = bytes.subspan(before, payload);
    return true;
  }

  PeerEnd end_;
};

}  // namespace

const PeerKind kNats{
    "nats", "nats-server", "nats-server",
    [](const BrokerPlace& place) -> std::vector<std::string> {
      return {"-a", "127.0.0.1", "-p", std::to_string(place.port), "-l", place.directory + "/log"};
    },
    connectClient<NatsClient>};
