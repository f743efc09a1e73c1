// D-Bus, dbus.freedesktop.org/doc/dbus-specification.html: method calls that want no reply, from
// one well-known name to the other.
#include <cstring>
#include <fstream>

#include "bench/peers/framed_client.h"

namespace {

constexpr unsigned char kMethodCall = 1, kMethodReturn = 2, kError = 3;  // message types
constexpr unsigned char kNoReply = 1;                                    // flag
enum Field : unsigned char { kPath = 1, kMember = 3, kDestination = 6, kSignature = 8 };
constexpr std::size_t kFixedHeader = 16;  // with the length of the fields

void pad(std::size_t alignment, Bytes& bytes) {
  bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
}

void putWord(std::size_t value, unsigned char* bytes) {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

void appendWord(std::size_t value, Bytes& bytes) {
  pad(4, bytes);
  bytes.resize(bytes.size() + 4);
  putWord(value, &bytes[bytes.size() - 4]);
}

std::size_t wordAt(Message bytes, std::size_t place) {
  std::size_t word = 0;
  for (std::size_t i = 4; i-- > 0;) word = word << 8 | bytes[place + i];
  return word;
}

void appendString(std::string_view text, Bytes& bytes) {
  appendWord(text.size(), bytes);
  bytes.insert(bytes.end(), text.begin(), text.end());
  bytes.push_back(0);
}

// A field of type `s`, or `o` for a path, or `g` for a signature, whose length is one byte.
void appendField(Field field, char type, std::string_view text, Bytes& bytes) {
  pad(8, bytes);
  bytes.insert(bytes.end(), {field, 1, static_cast<unsigned char>(type), 0});
  if (type == 'g') {
    bytes.push_back(static_cast<unsigned char>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
  } else {
    appendString(text, bytes);
  }
}

// A method call up to its body, whose length is still to be put at byte 4.
Bytes callHeader(std::string_view destination, std::string_view member, unsigned char flags,
                 std::string_view signature) {
  Bytes bytes{'l', kMethodCall, flags, 1};
  appendWord(0, bytes);
  appendWord(1, bytes);  // serial; the daemon doesn't compare it with others
  appendWord(0, bytes);
  appendField(kPath, 'o', "/", bytes);
  appendField(kMember, 's', member, bytes);
  appendField(kDestination, 's', destination, bytes);
  if (!signature.empty()) appendField(kSignature, 'g', signature, bytes);
  putWord(bytes.size() - kFixedHeader, &bytes[12]);
  pad(8, bytes);
  return bytes;
}

class DBusClient : public FramedClient {
 public:
  DBusClient(const BrokerPlace& place, PeerEnd end)
      : FramedClient(place.port),
        name_(std::string("hublink.bench.") + addressOf(end)),
        header_(callHeader(std::string("hublink.bench.") + addressOfOther(end), "Take", kNoReply,
                           "ay")) {}

  bool join() {
    // The zero byte and the lines of the authentication; what follows BEGIN is messages.
    if (!sendText(std::string_view("\0AUTH ANONYMOUS\r\n", 17)) || !awaitFrame(kAccepted) ||
        !sendText("BEGIN\r\n"))
      return false;
    authenticated_ = true;
    Bytes body;
    appendString(name_, body);
    appendWord(0, body);
    return call("Hello", "", {}) && call("RequestName", "su", body);
  }

 protected:
  void appendFrame(Message payload, Bytes& bytes) const override {
    // Messages follow each other without any filling, so that each is aligned to its own start.
    const std::size_t start = bytes.size();
    bytes.insert(bytes.end(), header_.begin(), header_.end());
    putWord(4 + payload.size(), &bytes[start + 4]);
    bytes.resize(bytes.size() + 4);
    putWord(payload.size(), &bytes[bytes.size() - 4]);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
  }

  bool readFrame(Message bytes, Frame& frame) override {
    if (!authenticated_) return readLine(bytes, frame);
    if (bytes.size() < kFixedHeader) return true;
    if (bytes[0] != 'l') return fail("a message of another byte order has arrived");
    const std::size_t body = wordAt(bytes, 4);
    const std::size_t header = kFixedHeader + (wordAt(bytes, 12) + 7) / 8 * 8;
    if (bytes.size() < header + body) return true;
    frame.size = header + body;
    if (bytes[1] == kError) return fail("the bus has answered with an error");
    if (bytes[1] != kMethodCall) {
      frame.kind = bytes[1];
      return true;
    }
    if (body < 4 || wordAt(bytes, header) != body - 4)
      return fail("a call with another body has arrived");
    frame.payload = bytes.subspan(header + 4, body - 4);
    return true;
  }

 private:
  static constexpr int kAccepted = 256;  // no type of a message

  bool readLine(Message bytes, Frame& frame) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const std::size_t end = text.find("\r\n");
    if (end == text.npos) return true;
    if (!text.starts_with("OK ")) return fail("the bus refuses the client");
    frame.size = end + 2;
    frame.kind = kAccepted;
    return true;
  }

  bool call(std::string_view member, std::string_view signature, const Bytes& body) {
    Bytes bytes = callHeader("org.freedesktop.DBus", member, 0, signature);
    putWord(body.size(), &bytes[4]);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return sendFrame(bytes) && awaitFrame(kMethodReturn);
  }

  std::string name_;
  Bytes header_;
  bool authenticated_ = false;
};

}  // namespace

const PeerKind kDBus{
    "dbus", "dbus-daemon", "dbus-daemon",
    [](const BrokerPlace& place) -> std::vector<std::string> {
      const std::string file = place.directory + "/bus.conf";
      std::ofstream out(file);
      out << "<busconfig>\n"
          << "<listen>tcp:host=127.0.0.1,port=" << place.port << ",family=ipv4</listen>\n"
          << "<auth>ANONYMOUS</auth><allow_anonymous/>\n"
          << "<policy context=\"default\">\n"
          << "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
          << "<allow own=\"*\"/>\n</policy>\n";
      // What a session's bus has too: no limit that matters.
      for (const char* limit : {"max_incoming_bytes", "max_outgoing_bytes", "max_message_size"})
        out << "<limit name=\"" << limit << "\">1000000000</limit>\n";
      out << "</busconfig>\n";
      return {"--config-file=" + file, "--nofork", "--nopidfile"};
    },
    connectClient<DBusClient>};
