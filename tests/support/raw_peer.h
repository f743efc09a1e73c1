// A peer that is nothing but bytes: it builds packets of any kind, sane or not, and sees what comes
// back to the byte. The names of the interface stand here a second time, written out, so that a
// mistake in the catalogue shows.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/socket.h"
#include "stp_transport/message/stp_received_message.h"
#include "support/hub_process.h"

/// The 49 field names in the hub's order.
extern const std::vector<std::string> kTagNames;
/// What the hub receives, and what it sends, in its order.
extern const std::vector<std::string> kHubReceives;
extern const std::vector<std::string> kHubSends;

std::uint32_t indexOf(const std::vector<std::string>& names, std::string_view name);
/// The hub's number of one of its messages, and of a field.
inline std::uint32_t hubMessage(std::string_view name) {
  return indexOf(kHubReceives, name);
}
inline std::int32_t tag(std::string_view name) {
  return static_cast<std::int32_t>(indexOf(kTagNames, name));
}

std::string wordBytes(std::uint32_t word);

/// The parts of a packet that tests vary.
struct PacketShape {
  std::uint32_t headerSize = 44;
  std::uint32_t destination = 1;
  std::uint32_t type = 15;
  std::uint32_t id = 0;
  std::uint32_t flags = 0x02;
  std::uint32_t sequence = 2;
};
/// Header and payload, without fill.
std::string packetBytes(const PacketShape& shape, std::string_view payload);
/// The same with fill that is no zero.
std::string filled(std::string packet);
/// A binary message to the hub, under the hub's number, with what `write` puts into it.
std::string hubMessageBytes(std::string_view name,
                            const std::function<void(STPMessage&)>& write = nullptr,
                            std::uint32_t flags = 0x02);
/// The same with 32-bit fields only.
using Numbers = std::vector<std::pair<std::string_view, std::uint32_t>>;
std::string hubMessageBytes(std::string_view name, const Numbers& fields);
/// An array of texts in its block, with any count.
void putTexts(STPMessage& message, std::int32_t block, std::int32_t countTag, std::uint32_t count,
              const std::vector<const char*>& texts);
/// A negotiate packet with any field and message names; message i has the number `ids[i]`.
std::string negotiateBytes(const std::vector<std::string>& tags,
                           const std::vector<std::string>& messages,
                           const std::vector<std::uint32_t>& ids);
/// That of a plugin which has the hub's own tables.
std::string negotiateBytes();

struct Packet {
  std::string bytes;  ///< header and payload

  bool isEmpty() const { return bytes.empty(); }
  std::uint32_t word(std::size_t index) const;
  std::uint32_t id() const { return word(7); }
  std::string payload() const { return isEmpty() ? bytes : bytes.substr(word(0)); }
  STPReceivedMessage read() const;
};

class RawPeer {
 public:
  /// Connects to a port of this machine.
  explicit RawPeer(std::uint16_t port, bool byLocalRoad = false);
  RawPeer(RawPeer&& other) noexcept;
  RawPeer& operator=(RawPeer&&) = delete;
  ~RawPeer() { close(); }

  /// Sends all of it, however long the peer lets it wait; false if the connection has ended.
  bool send(std::string_view bytes);
  /// The next packet, its fill skipped; an empty one at the end of the stream.
  Packet next();
  /// Asks the hub a question and throws away what comes before the answer; false if none comes.
  bool isAnswered();
  /// Throws away what still comes; true if the stream then ends.
  bool ends();
  void close();
  /// The socket for threads of a test's own: from here on its transfers wait, each for a moment
  /// only so that its thread can be ended, and nothing else of this object may be used but close().
  platform::Socket blockingSocket();
  /// Sends a record, takes the hub's, and gives the ID that the hub tells.
  std::uint32_t negotiate(const std::string& record = negotiateBytes());

 private:
  bool receive();  // waits for more bytes; false at the end

  platform::Socket socket_;
  std::string input_;
  std::size_t taken_ = 0;  // bytes of it that next() has given away, fill included
};
