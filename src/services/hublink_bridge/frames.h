// What two bridges say to each other about links, to the byte: messages, each a head and any number
// of frames, and the bodies of the frames. All numbers are little-endian. Whatever is read here was
// written by another machine, so nothing is believed: sizes are compared with what has come before
// they are used.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bridge {

/// Bytes of the head of a message, and of the head of a frame.
inline constexpr std::size_t kMessageHeadSize = 32;
inline constexpr std::size_t kFrameHeadSize = 9;
/// Bytes of the body of a frame other than DATA, at most. (DATA is cut to any size.)
inline constexpr std::size_t kMaxBody = 60000;

/// Flags of a message.
inline constexpr std::uint8_t kFirst = 1;  ///< opens the session if it isn't known
inline constexpr std::uint8_t kNak = 2;    ///< the other is to send again from `ack` on
inline constexpr std::uint8_t kReset = 4;  ///< the session isn't known, or ends

struct MessageHead {
  std::uint64_t session = 0;
  std::uint64_t sequence = 0;  ///< of this message, or of the next one if this has no frames
  std::uint64_t ack = 0;       ///< the sequence that is expected next
  std::uint32_t window = 0;    ///< bytes of frames that may be under way without an ack
  std::uint8_t flags = 0;
};

/// None if there are too few bytes, an unknown flag or a reserved byte that isn't 0.
std::optional<MessageHead> readMessageHead(const unsigned char* message, std::size_t size);
void writeMessageHead(unsigned char* message, const MessageHead& head);

enum class FrameKind : std::uint8_t { open = 1, opened, data, credit, close, value, valued };

/// A frame where it lies in its message.
struct Frame {
  FrameKind kind = FrameKind::open;
  std::uint32_t link = 0;         ///< the number that the session's initiator gave it
  unsigned char* body = nullptr;  ///< may be written to in place
  std::size_t size = 0;           ///< bytes of the body
};

void writeFrameHead(unsigned char* place, FrameKind kind, std::uint32_t link, std::size_t size);

/// Goes through the frames of a message, whose bytes stay the caller's.
class FrameReader {
 public:
  FrameReader(unsigned char* frames, std::size_t size) : at_(frames), left_(size) {}
  /// False after the last frame, and before one that isn't whole or of no known kind.
  bool next(Frame& frame);
  /// Whether next() has stopped before the end.
  bool isBroken() const { return left_ != 0; }

 private:
  unsigned char* at_;
  std::size_t left_;
};

using Bytes = std::vector<unsigned char>;
/// None is a null text.
using OptionalText = std::optional<std::string>;

/// Asks for a link to a service.
struct OpenBody {
  static constexpr std::uint8_t kQueryOnly = 1;  ///< nothing is opened: who would provide it?
  static constexpr std::uint8_t kMayStart = 2;   ///< a provider may be started

  std::int32_t requesterID = 0;
  std::int32_t providerID = -1;  ///< a plugin of the receiver's machine, or -1 for any
  std::uint8_t flags = 0;
  OptionalText service;
  OptionalText requesterProgram;
  OptionalText workingDirectory;
  std::vector<OptionalText> pairs;  ///< the texts of the list: name, value, name, value ...
};

struct OpenedBody {
  enum class Outcome : std::uint8_t { accepted, refused, notFound };

  Outcome outcome = Outcome::notFound;
  std::int32_t providerID = -1;
  OptionalText providerProgram;
};

struct ValueBody {
  std::uint32_t cookie = 0;
  std::int32_t pluginID = 0;  ///< a plugin of the receiver's machine
  std::int32_t askingID = 0;  ///< one of the sender's
  OptionalText name;
};

struct ValuedBody {
  std::uint32_t cookie = 0;
  OptionalText value;
};

/// Bodies as bytes. The caller sees to kMaxBody.
Bytes bodyOf(const OpenBody& body);
Bytes bodyOf(const OpenedBody& body);
Bytes bodyOf(const ValueBody& body);
Bytes bodyOf(const ValuedBody& body);

/// False if the body isn't exactly what its kind asks for: too short or too long, a text with a
/// zero byte in it, an unknown flag or outcome. `body` is then in any state, and the session is to
/// end.
bool readBody(const Frame& frame, OpenBody& body);
bool readBody(const Frame& frame, OpenedBody& body);
bool readBody(const Frame& frame, ValueBody& body);
bool readBody(const Frame& frame, ValuedBody& body);
bool readCredit(const Frame& frame, std::uint32_t& bytes);

}  // namespace bridge
