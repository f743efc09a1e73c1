// Readiness in the simulated machine: a wait sees what has been announced since the last one.
#include "platform/readiness.h"

#include <algorithm>

#include "platform/sim/stream.h"
#include "platform/sim/world.h"

namespace platform {
namespace {

using sim::Descriptor;
using sim::World;

struct State {
  bool readable, writable, hungUp;
  bool any() const { return readable || writable || hungUp; }
};

State stateOf(const Descriptor& entry, bool isArmed) {
  World& world = World::current();
  if (!entry.stream && entry.child != 0) return {!world.isAlive(entry.child), false, false};
  if (!entry.stream) return {world.now() >= entry.answerAt, false, false};
  const sim::Stream& stream = *entry.stream;
  if (stream.connecting) return {false, isArmed && world.now() >= stream.answerAt, false};
  const bool over = stream.connected && (stream.isAtEnd() || stream.reset || stream.ended);
  const bool hasRoom =
      isArmed && stream.connected && stream.roomComes && stream.room(world.weather.streamSize) > 0;
  return {stream.isReadable() || over, hasRoom || (over && stream.isBroken()), over};
}

// When the clock by itself changes that state.
std::uint64_t changeOf(const Descriptor& entry) {
  if (!entry.stream) return entry.child != 0 ? sim::kNever : entry.answerAt;
  return entry.stream->connecting ? entry.stream->answerAt : sim::kNever;
}

}  // namespace

ReadinessSet::ReadinessSet() : set_(0) {
  static int sets = 0;
  set_ = ++sets;
}

ReadinessSet::~ReadinessSet() = default;

void ReadinessSet::watch(int descriptor) {
  Descriptor* entry = World::current().entry(descriptor);
  if (!entry || entry->watchedBy == set_) return;
  const auto index = static_cast<std::size_t>(descriptor);
  if (index >= flags_.size()) flags_.resize(index + 64);
  flags_[index] = kWatched | kWritable;
  entry->watchedBy = set_;
  entry->announced = false;
}

void ReadinessSet::watchProcess(int descriptor) {
  watch(descriptor);
}

void ReadinessSet::forget(int descriptor) {
  if (!(flags(descriptor) & kWatched)) return;
  flags_[static_cast<std::size_t>(descriptor)] = 0;
  if (Descriptor* entry = World::current().entry(descriptor)) entry->watchedBy = -1;
}

// Its time doesn't pass while somebody looks.
void ReadinessSet::setBusyPolling(bool) {}

void ReadinessSet::clearWritable(int descriptor) {
  if (!(flags(descriptor) & kWatched)) return;
  clear(descriptor, kWritable);
  if (!(flags(descriptor) & kArmed)) arm(descriptor, true);
}

// A simulated process has one thread, which calls this for itself.
void ReadinessSet::wake() {
  World::wake(World::current().self());
}

int ReadinessSet::descriptor() const {
  return -1;
}

// What is ready already is told once more.
void ReadinessSet::arm(int descriptor, bool room) {
  std::uint8_t& known = flags_[static_cast<std::size_t>(descriptor)];
  known = static_cast<std::uint8_t>(room ? known | kArmed : known & ~kArmed);
  if (Descriptor* entry = World::current().entry(descriptor)) entry->announced = false;
}

bool ReadinessSet::wait(int milliseconds, bool& failed) {
  World& world = World::current();
  sim::Process& process = world.self();
  failed = process.killed;
  world.idle();
  const auto isArmed = [this](std::size_t index) {
    return (flags(static_cast<int>(index)) & kArmed) != 0;
  };
  const auto news = [this, &process, &isArmed] {
    for (std::size_t i = 0; i < process.descriptors.size(); ++i) {
      const Descriptor& entry = process.descriptors[i];
      if (entry.watchedBy == set_ && !entry.announced && stateOf(entry, isArmed(i)).any())
        return true;
    }
    return false;
  };
  if (milliseconds != 0 && !process.killed && !news() && !process.woken) {
    process.idleCalls = 0;
    std::uint64_t end =
        milliseconds < 0 ? sim::kNever : world.now() + static_cast<std::uint64_t>(milliseconds);
    for (const Descriptor& entry : process.descriptors)
      if (entry.watchedBy == set_ && !entry.announced) end = std::min(end, changeOf(entry));
    world.waitUntil(end, news, true);
  }
  failed = process.killed;
  if (failed) return false;
  const bool interrupted = std::exchange(process.woken, false);
  if (interrupted && !news()) return false;
  for (std::size_t i = 0; i < process.descriptors.size(); ++i) {
    Descriptor& entry = process.descriptors[i];
    if (entry.watchedBy != set_ || entry.announced) continue;
    const State state = stateOf(entry, isArmed(i));
    if (!state.any()) continue;
    entry.announced = true;
    if (state.writable && (flags_[i] & kArmed) && (flags_[i] & kWritable))
      arm(static_cast<int>(i), false);
    if (entry.child != 0) processEnded_ = true;
    if (state.readable) flags_[i] |= kReadable;
    if (state.writable) flags_[i] |= kWritable;
    if (state.hungUp) flags_[i] |= kHungUp;
    news_.push_back(static_cast<int>(i));
  }
  return true;
}

ReadinessSet& readiness() {
  static thread_local ReadinessSet set;
  return set;
}

}  // namespace platform
