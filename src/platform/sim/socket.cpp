// Stream sockets of the simulated machine.
#include "platform/socket.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "platform/host.h"
#include "platform/sim/stream.h"
#include "platform/sim/world.h"

namespace platform {
namespace error {
// Numbers of its own: what they are is nobody's business but the texts'.
const int interrupted = 4, accessDenied = 13, badAddress = 14, invalid = 22, inProgress = 115,
          notSocket = 88, messageTooBig = 90, notSupported = 95, netDown = 100, netReset = 102,
          aborted = 103, reset = 104, noBuffers = 105, notConnected = 107, brokenPipe = 32,
          timedOut = 110, hostUnreachable = 113, addressInUse = 98, refused = 111;
}  // namespace error

namespace {

constexpr int kNoDescriptor = 24;  // no descriptor is left
constexpr std::uint32_t kLoopback = 0x7F000001;

using sim::Descriptor;
using sim::Stream;
using sim::World;

Stream* streamOf(Socket socket) {
  const Descriptor* entry = World::current().entry(socket);
  return entry ? entry->stream.get() : nullptr;
}

Transfer failure(int number) {
  Transfer outcome;
  outcome.error = number;
  return outcome;
}

Transfer blocked() {
  Transfer outcome;
  outcome.wouldBlock = true;
  return outcome;
}

std::string dotted(std::uint32_t address) {
  std::array<char, 16> text;
  std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", address >> 24, address >> 16 & 0xFF,
                address >> 8 & 0xFF, address & 0xFF);
  return text.data();
}

// A name is its machine's.
std::string placeOf(const Stream& stream, const std::string& name) {
  return dotted(stream.address) + "/" + name;
}

// Connects a stream with whoever listens at the place, if he takes it.
bool join(const std::shared_ptr<Stream>& near, const std::string& place) {
  World& world = World::current();
  const std::shared_ptr<Stream> listener = world.listenerAt(place);
  if (!listener || world.chance(world.weather.refusal)) return false;
  const auto far = std::make_shared<Stream>();
  far->port = listener->port;
  far->user = near->peerUser = listener->user;
  far->peerUser = near->user;
  far->accepted = true;
  far->byName = near->byName;
  near->withinMachine = far->withinMachine = near->address == listener->address;
  // A machine is its own loopback.
  far->address = near->withinMachine ? kLoopback : listener->address;
  if (near->byName) near->address = kLoopback;
  far->peerAddress = near->address;
  near->peerAddress = far->address;
  far->peer = near;
  near->peer = far;
  near->connected = far->connected = true;
  listener->clients.push_back(far);
  ++world.self().connections;
  world.announce(listener);
  world.announce(near);
  return true;
}

}  // namespace

Socket openStream() {
  World& world = World::current();
  if (world.self().killed) return kNoSocket;
  auto stream = std::make_shared<Stream>();
  stream->address = world.self().address;
  stream->user = world.self().user;
  return world.open(world.self(), {std::move(stream)});
}

void setStreamOptions(Socket) {}

bool bindPort(Socket socket, std::uint16_t port, bool) {
  World& world = World::current();
  Stream* stream = streamOf(socket);
  if (!stream || (port != 0 && world.listenerAt(std::to_string(port)))) return false;
  stream->port = port != 0 ? port : world.freePort();
  stream->place = std::to_string(stream->port);
  return true;
}

bool listenOn(Socket socket) {
  Stream* stream = streamOf(socket);
  if (!stream) return false;
  stream->listening = true;
  World::current().listen(World::current().entry(socket)->stream);
  return true;
}

Socket acceptFrom(Socket listener, Transfer& outcome) {
  World& world = World::current();
  world.idle();
  Stream* stream = streamOf(listener);
  outcome = failure(error::invalid);
  if (!stream) return kNoSocket;
  outcome = stream->clients.empty() ? blocked() : failure(kNoDescriptor);
  if (stream->clients.empty() || world.chance(world.weather.acceptFailure)) return kNoSocket;
  std::shared_ptr<Stream> client = std::move(stream->clients.front());
  stream->clients.pop_front();
  outcome = Transfer();
  if (client->peerUser == client->user) ++world.self().connections;
  return world.open(world.self(), {std::move(client)});
}

int beginConnect(Socket socket, std::uint32_t, std::uint16_t port) {
  World& world = World::current();
  world.idle();
  Stream* stream = streamOf(socket);
  if (!stream) return error::invalid;
  stream->place = std::to_string(port);
  stream->connecting = true;
  stream->answerAt = world.answerTime();
  return connectOutcome(socket, 0);
}

int connectOutcome(Socket socket, int milliseconds) {
  World& world = World::current();
  const Descriptor* entry = world.entry(socket);
  if (!entry || !entry->stream->connecting) return error::invalid;
  // A process that is killed while it waits loses its descriptors.
  const std::shared_ptr<Stream> stream = entry->stream;
  const std::uint64_t limit = world.now() + static_cast<std::uint64_t>(milliseconds);
  if (milliseconds > 0 && world.now() < stream->answerAt)
    world.waitUntil(std::min(limit, stream->answerAt), nullptr);
  if (world.self().killed) return error::invalid;
  if (world.now() < stream->answerAt) return error::inProgress;
  stream->connecting = false;
  if (!join(stream, stream->place)) return error::refused;
  stream->port = world.freePort();
  return 0;
}

int connectStream(Socket socket, std::uint32_t address, std::uint16_t port, int milliseconds) {
  int outcome = beginConnect(socket, address, port);
  if (outcome == error::inProgress) outcome = connectOutcome(socket, milliseconds);
  return outcome == error::inProgress ? error::timedOut : outcome;
}

Socket listenOnName(const std::string& name) {
  const Socket socket = openStream();
  Stream* stream = streamOf(socket);
  if (!stream) return kNoSocket;
  stream->place = placeOf(*stream, name);
  if (!World::current().listenerAt(stream->place) && listenOn(socket)) return socket;
  closeStream(socket);
  return kNoSocket;
}

Socket connectToName(const std::string& name) {
  World::current().idle();
  const Socket socket = openStream();
  const Descriptor* entry = World::current().entry(socket);
  if (!entry) return kNoSocket;
  entry->stream->byName = true;
  if (join(entry->stream, placeOf(*entry->stream, name))) return socket;
  closeStream(socket);
  return kNoSocket;
}

bool isOwnAddress(std::uint32_t address) {
  return address == kLoopback || address == World::current().self().address;
}

bool parseAddress(const char* text, std::uint32_t& address) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  char rest = 0;
  if (std::sscanf(text, "%3u.%3u.%3u.%3u%c", &a, &b, &c, &d, &rest) != 4) return false;
  address = a << 24 | b << 16 | c << 8 | d;
  return true;
}

bool resolveHost(const char* name, std::uint32_t& address) {
  address = kLoopback;
  return std::string(name) == "localhost" || name == hostName();
}

Transfer sendGathered(Socket socket, const Piece* pieces, std::size_t count) {
  World& world = World::current();
  world.idle();
  Stream* stream = streamOf(socket);
  if (!stream) return failure(error::brokenPipe);
  if (!stream->connected) return failure(error::notConnected);
  world.meet(*stream);
  const std::shared_ptr<Stream> other = stream->peer.lock();
  if (stream->sendingEnded || stream->isBroken()) return failure(error::brokenPipe);
  std::size_t offered = 0;
  for (std::size_t i = 0; i < count; ++i) offered += static_cast<std::size_t>(pieces[i].count);
  if (!other) {
    // The first bytes to somebody who has gone are lost without a word; the reset comes back.
    stream->reset = true;
    world.announce(world.entry(socket)->stream);
    return {static_cast<std::int64_t>(offered), 0, false};
  }
  const std::size_t room = stream->room(world.weather.streamSize);
  if (room == 0 || !stream->roomComes) {
    stream->wantsRoom = true;
    return blocked();
  }
  std::size_t size = offered;
  if (size > 1 && world.chance(world.weather.partialTransfer)) size = world.upTo(size - 1);
  size = std::min(size, room);
  for (std::size_t i = 0, left = size; left > 0; ++i) {
    const std::size_t part = std::min(left, static_cast<std::size_t>(pieces[i].count));
    other->inbox.append(static_cast<const char*>(pieces[i].bytes), part);
    left -= part;
  }
  const bool some = world.chance(world.weather.partialTransfer);
  if (some) {
    other->arrived += world.upTo(other->inbox.size() - other->arrived) - 1;
    world.later(other);
  } else {
    other->arrived = other->inbox.size();
  }
  world.announce(other);
  if (size < offered) {
    stream->wantsRoom = true;
    stream->roomComes = false;
    world.later(world.entry(socket)->stream);
  }
  world.self().idleCalls = 0;
  return {static_cast<std::int64_t>(size), 0, false};
}

Transfer sendBytes(Socket socket, const void* bytes, std::int64_t count) {
  const Piece piece{bytes, count};
  return sendGathered(socket, &piece, 1);
}

Transfer receiveBytes(Socket socket, void* bytes, std::int64_t count) {
  World& world = World::current();
  world.idle();
  Stream* stream = streamOf(socket);
  if (!stream) return failure(error::reset);
  if (!stream->connected) return failure(error::notConnected);
  world.meet(*stream);
  if (stream->arrived == 0) {
    if (!stream->isAtEnd()) return blocked();
    return stream->reset ? failure(error::reset) : Transfer();
  }
  const std::size_t size = std::min(static_cast<std::size_t>(count), stream->arrived);
  std::copy_n(stream->inbox.data(), size, static_cast<char*>(bytes));
  stream->inbox.erase(0, size);
  stream->arrived -= size;
  const std::shared_ptr<Stream> other = stream->peer.lock();
  // By name each read tells the other side of room, over TCP one that it has waited for.
  if (other && other->room(world.weather.streamSize) > 0 &&
      (std::exchange(other->wantsRoom, false) || other->byName))
    world.announce(other);
  world.self().idleCalls = 0;
  return {static_cast<std::int64_t>(size), 0, false};
}

bool makeBlocking(Socket, int) {
  return false;
}

bool makeNonBlocking(int descriptor) {
  return World::current().entry(descriptor) != nullptr;
}

int shutdownStream(Socket socket) {
  World& world = World::current();
  Stream* stream = streamOf(socket);
  if (!stream) return world.self().killed ? 0 : error::notSocket;
  if (!stream->connected) return error::notConnected;
  stream->shutDown = true;
  // By name the other side hears of both directions.
  if (const auto other = stream->peer.lock(); other && other->byName) other->sendingEnded = true;
  return endSending(socket);
}

int endSending(Socket socket) {
  Stream* stream = streamOf(socket);
  if (!stream || !stream->connected) return error::notConnected;
  stream->sendingEnded = true;
  if (const auto other = stream->peer.lock()) {
    other->ended = true;
    World::current().announce(other);
  }
  return 0;
}

int closeStream(Socket socket) {
  return World::current().close(socket) ? 0 : error::notSocket;
}

std::uint16_t localPort(Socket socket) {
  const Stream* stream = streamOf(socket);
  return stream ? stream->port : std::uint16_t{0};
}

std::string localAddress(Socket socket) {
  const Stream* stream = streamOf(socket);
  return stream && stream->connected ? dotted(stream->address) : std::string();
}

std::string peerAddress(Socket socket) {
  const Stream* stream = streamOf(socket);
  return stream && stream->connected ? dotted(stream->peerAddress) : std::string();
}

}  // namespace platform
