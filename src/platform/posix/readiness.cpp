#include "platform/readiness.h"

#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>

namespace platform {

namespace {

constexpr std::uint32_t kInput = EPOLLIN | EPOLLRDHUP | EPOLLET;

}  // namespace

ReadinessSet::ReadinessSet() : set_(epoll_create1(EPOLL_CLOEXEC)) {}

ReadinessSet::~ReadinessSet() {
  if (set_ >= 0) close(set_);
}

void ReadinessSet::watch(int descriptor) {
  if (descriptor < 0) return;
  const auto index = static_cast<std::size_t>(descriptor);
  if (index >= flags_.size()) flags_.resize(index + 64);
  if (flags_[index] & kWatched) return;
  epoll_event event{};
  event.events = kInput;
  event.data.fd = descriptor;
  flags_[index] = kWatched | kWritable;
  if (epoll_ctl(set_, EPOLL_CTL_ADD, descriptor, &event) == 0) return;
  // Known from an earlier owner of the number: taken over, which tells its state anew.
  if (errno == EEXIST && epoll_ctl(set_, EPOLL_CTL_MOD, descriptor, &event) == 0) return;
  // A file, or no room in the set, or no descriptor at all. Trying it always costs time, but never
  // waits for what nobody will announce.
  flags_[index] |= kReadable | kAlways;
  news_.push_back(descriptor);
}

void ReadinessSet::watchProcess(int descriptor) {
  watch(descriptor);
  if (!(flags(descriptor) & kWatched)) return;
  flags_[static_cast<std::size_t>(descriptor)] |= kProcess;
  processEnded_ |= (flags(descriptor) & kAlways) != 0;
}

void ReadinessSet::forget(int descriptor) {
  if (!(flags(descriptor) & kWatched)) return;
  if (!(flags(descriptor) & kAlways)) epoll_ctl(set_, EPOLL_CTL_DEL, descriptor, nullptr);
  flags_[static_cast<std::size_t>(descriptor)] = 0;
}

// The call also tells what is ready already: room that has come since the write is not missed.
void ReadinessSet::clearWritable(int descriptor) {
  if ((flags(descriptor) & (kWatched | kAlways)) != kWatched) return;
  std::uint8_t& known = flags_[static_cast<std::size_t>(descriptor)];
  known &= static_cast<std::uint8_t>(~kWritable);
  if (known & kArmed) return;
  arm(descriptor, true);
}

void ReadinessSet::arm(int descriptor, bool room) {
  std::uint8_t& known = flags_[static_cast<std::size_t>(descriptor)];
  known = static_cast<std::uint8_t>(room ? known | kArmed : known & ~kArmed);
  epoll_event event{};
  event.events = kInput | (room ? EPOLLOUT : 0U);
  event.data.fd = descriptor;
  epoll_ctl(set_, EPOLL_CTL_MOD, descriptor, &event);
}

bool ReadinessSet::wait(int milliseconds, bool& failed) {
  std::array<epoll_event, 256> events;
  const int count = epoll_wait(set_, events.data(), static_cast<int>(events.size()), milliseconds);
  failed = count < 0 && errno != EINTR;
  if (count < 0) return false;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    std::uint8_t& known = flags_[static_cast<std::size_t>(event.data.fd)];
    // Room that nobody lacks is news of a peer that reads: it isn't asked for any more.
    if ((event.events & EPOLLOUT) && (known & kArmed) && (known & kWritable))
      arm(event.data.fd, false);
    if (event.events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) known |= kReadable;
    if (event.events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) known |= kWritable;
    if (event.events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) known |= kHungUp;
    if (known & kProcess) processEnded_ = true;
    news_.push_back(event.data.fd);
  }
  return true;
}

ReadinessSet& readiness() {
  static ReadinessSet set;
  return set;
}

}  // namespace platform
