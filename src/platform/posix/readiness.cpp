#include "platform/readiness.h"

#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>

namespace platform {

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
  event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
  event.data.fd = descriptor;
  flags_[index] = kWatched;
  if (epoll_ctl(set_, EPOLL_CTL_ADD, descriptor, &event) == 0) return;
  // Known from an earlier owner of the number: taken over, which tells its state anew.
  if (errno == EEXIST && epoll_ctl(set_, EPOLL_CTL_MOD, descriptor, &event) == 0) return;
  // A file, or no room in the set, or no descriptor at all. Trying it always costs time, but never
  // waits for what nobody will announce.
  flags_[index] = kWatched | kReadable | kWritable | kAlways;
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

bool ReadinessSet::wait(int milliseconds, bool& failed) {
  std::array<epoll_event, 256> events;
  const int count = epoll_wait(set_, events.data(), static_cast<int>(events.size()), milliseconds);
  failed = count < 0 && errno != EINTR;
  if (count < 0) return false;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    std::uint8_t& known = flags_[static_cast<std::size_t>(event.data.fd)];
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
