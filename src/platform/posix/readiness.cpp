#include "platform/readiness.h"

#include <errno.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>

#include "platform/clock.h"

namespace platform {

namespace {

constexpr std::uint32_t kInput = EPOLLIN | EPOLLRDHUP | EPOLLET;
// Milliseconds from which on a wait is ended by the alarm.
constexpr int kLongWait = 100;
// How long a busy wait lasts in ns, and after how many sleeps that were no longer one begins: once
// it has been in vain, others have to show again that it pays.
constexpr std::uint64_t kBusyTime = 50000;
constexpr int kQuickWaits = 3;
constexpr std::uint64_t kMillion = 1000000;

epoll_event eventOf(int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  return event;
}

}  // namespace

ReadinessSet::ReadinessSet()
    : set_(epoll_create1(EPOLL_CLOEXEC)),
      alarm_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      waker_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  for (int* own : {&alarm_, &waker_}) {
    epoll_event event = eventOf(*own, EPOLLIN | EPOLLET);
    if (*own < 0 || epoll_ctl(set_, EPOLL_CTL_ADD, *own, &event) == 0) continue;
    close(*own);
    *own = -1;
  }
}

ReadinessSet::~ReadinessSet() {
  for (const int descriptor : {alarm_, waker_, set_})
    if (descriptor >= 0) close(descriptor);
}

// Each write is announced anew, so that nobody has to read it.
void ReadinessSet::wake() {
  if (waker_ >= 0) eventfd_write(waker_, 1);
}

int ReadinessSet::descriptor() const {
  return set_;
}

void ReadinessSet::watch(int descriptor) {
  if (descriptor < 0) return;
  const auto index = static_cast<std::size_t>(descriptor);
  if (index >= flags_.size()) flags_.resize(index + 64);
  if (flags_[index] & kWatched) return;
  epoll_event event = eventOf(descriptor, kInput);
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
  clear(descriptor, kWritable);
  if ((flags(descriptor) & (kWatched | kAlways | kArmed)) == kWatched) arm(descriptor, true);
}

void ReadinessSet::arm(int descriptor, bool room) {
  std::uint8_t& known = flags_[static_cast<std::size_t>(descriptor)];
  known = static_cast<std::uint8_t>(room ? known | kArmed : known & ~kArmed);
  epoll_event event = eventOf(descriptor, kInput | (room ? EPOLLOUT : 0U));
  epoll_ctl(set_, EPOLL_CTL_MOD, descriptor, &event);
}

// To start and stop a timer in each wait would cost a hop between two plugins as much as a
// twentieth of its time. Waits that are long begin one after the other and mostly end early: one
// alarm, set for the first of them, serves those behind it too.
bool ReadinessSet::wait(int milliseconds, bool& failed) {
  if (milliseconds < kLongWait) return look(milliseconds, failed) >= 0;
  const std::uint64_t begin = monotonicNanoseconds();
  int found = quickWaits_ >= kQuickWaits ? lookBusily(begin, failed) : 0;
  if (found != 0) return found > 0;
  found =
      sleepUntil(begin / kMillion + static_cast<std::uint64_t>(milliseconds), milliseconds, failed);
  if (mayPoll_) quickWaits_ = monotonicNanoseconds() - begin < kBusyTime ? quickWaits_ + 1 : 0;
  return found >= 0;
}

int ReadinessSet::lookBusily(std::uint64_t begin, bool& failed) {
  int found = 0;
  while (found == 0 && monotonicNanoseconds() - begin < kBusyTime) found = look(0, failed);
  return found;
}

int ReadinessSet::sleepUntil(std::uint64_t end, int milliseconds, bool& failed) {
  while (setAlarm(end)) {
    const int found = look(-1, failed);
    if (found != 0 || monotonicMilliseconds() >= end) return found;
  }
  return look(milliseconds, failed);
}

void ReadinessSet::setBusyPolling(bool flag) {
  cpu_set_t processors;
  mayPoll_ = flag && sched_getaffinity(0, sizeof processors, &processors) == 0 &&
             CPU_COUNT(&processors) > 1;
  quickWaits_ = 0;
}

// False if there is no timer to be had.
bool ReadinessSet::setAlarm(std::uint64_t latest) {
  if (alarmAt_ != 0 && alarmAt_ <= latest) return true;
  itimerspec when{};
  when.it_value.tv_sec = static_cast<time_t>(latest / 1000);
  when.it_value.tv_nsec = static_cast<long>(latest % 1000 * 1000000);
  if (timerfd_settime(alarm_, TFD_TIMER_ABSTIME, &when, nullptr) != 0) return false;
  alarmAt_ = latest;
  return true;
}

// One look at the set: how many events there were beside the alarm, or -1 as wait() says.
int ReadinessSet::look(int milliseconds, bool& failed) {
  std::array<epoll_event, 256> events;
  const int count = epoll_wait(set_, events.data(), static_cast<int>(events.size()), milliseconds);
  failed = count < 0 && errno != EINTR;
  int found = count;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    if (event.data.fd == alarm_) {
      alarmAt_ = 0;
      --found;
      continue;
    }
    if (event.data.fd == waker_) continue;
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
  return found;
}

ReadinessSet& readiness() {
  static ReadinessSet set;
  return set;
}

}  // namespace platform
