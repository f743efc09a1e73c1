// Stream sockets: IPv4, and by a name within this machine. Every call is one system call or a few,
// and none of them blocks but connectStream and connectOutcome (which have a limit), resolveHost,
// and transfers on a socket that was given to makeBlocking. Every failure is a value: errors are
// errno numbers, with the ones that a caller tells apart named below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform {

using Socket = int;
inline constexpr Socket kNoSocket = -1;

/// The errors that callers tell apart, in the system's own numbers.
namespace error {
extern const int interrupted, accessDenied, badAddress, invalid, inProgress, notSocket,
    messageTooBig, notSupported, netDown, netReset, aborted, reset, noBuffers, notConnected,
    brokenPipe, timedOut, hostUnreachable, addressInUse, refused;
}  // namespace error

/// Result of a transfer: bytes moved, or none with an error.
struct Transfer {
  std::int64_t count = 0;
  int error = 0;            ///< 0 if nothing failed
  bool wouldBlock = false;  ///< nothing moved, and nothing failed
};

/// A new non-blocking stream socket that children don't inherit; kNoSocket on failure.
Socket openStream();
/// Sets what suits a connection of packets: SO_REUSEADDR and TCP_NODELAY, or, within this machine,
/// as large a send buffer as everybody may have. Failures are not looked at.
void setStreamOptions(Socket socket);
/// Binds to every local address, or only 127.0.0.1, on `port` (0: the system picks). True if bound.
bool bindPort(Socket socket, std::uint16_t port, bool loopbackOnly);
/// Listens with the system's largest backlog.
bool listenOn(Socket socket);
/// Takes the next client: a non-blocking socket that children don't inherit. `wouldBlock` in
/// `outcome` if nobody is there.
Socket acceptFrom(Socket listener, Transfer& outcome);
/// Begins to connect; 0 if that was all, inProgress, or the error.
int beginConnect(Socket socket, std::uint32_t address, std::uint16_t port);
/// What became of a connect in progress: 0, inProgress, or the error. Waits for it for at most so
/// long. It shows as room of a socket that is watched and was told to have none (clearWritable).
int connectOutcome(Socket socket, int milliseconds);
/// Connects within `milliseconds`; 0, or the error.
int connectStream(Socket socket, std::uint32_t address, std::uint16_t port, int milliseconds);
/// A socket that listens on a name in the abstract namespace of this machine (unix(7)): the name
/// lies in no file system and goes with the socket. kNoSocket if somebody has it already, or on
/// failure.
Socket listenOnName(const std::string& name);
/// A non-blocking socket that is connected to whoever listens on the name, and that children don't
/// inherit; kNoSocket if nobody takes it at once.
Socket connectToName(const std::string& name);
/// Whether an IPv4 address in host order is one of this machine's.
bool isOwnAddress(std::uint32_t address);
/// A dotted address in host order; false if the text isn't one.
bool parseAddress(const char* text, std::uint32_t& address);
/// The first IPv4 address of a host name in host order; false if it can't be resolved.
bool resolveHost(const char* name, std::uint32_t& address);

Transfer sendBytes(Socket socket, const void* bytes, std::int64_t count);
/// Bytes that a gathered transfer takes together with others.
struct Piece {
  const void* bytes = nullptr;
  std::int64_t count = 0;
};
inline constexpr std::size_t kMostPieces = 64;
/// Sends the pieces, one to kMostPieces of them, one behind the other in one call, of which the
/// last that are sent may be so in part.
Transfer sendGathered(Socket socket, const Piece* pieces, std::size_t count);
/// Up to `count` bytes; a count of 0 without wouldBlock is the end of the stream.
Transfer receiveBytes(Socket socket, void* bytes, std::int64_t count);

/// From here on transfers on this socket wait, for at most `milliseconds` each (0: no limit); one
/// that takes longer gives wouldBlock. True if set.
bool makeBlocking(Socket socket, int milliseconds);
/// From here on a transfer on this descriptor never waits. True if set.
bool makeNonBlocking(int descriptor);

/// Ends both directions; 0 or the error.
int shutdownStream(Socket socket);
/// Tells the peer that nothing more is sent, when it has read all that was; 0 or the error.
int endSending(Socket socket);
int closeStream(Socket socket);

/// Port of the local end in host order, 0 if it can't be had.
std::uint16_t localPort(Socket socket);
/// Dotted address of either end, empty if it can't be had. Of a connection by name it is that of
/// the loopback.
std::string localAddress(Socket socket);
std::string peerAddress(Socket socket);

}  // namespace platform
