#include "tools/hublinkctl/web/board.h"

#include <chrono>
#include <utility>

#include "platform/clock.h"

namespace hublinkctl {
namespace {

// A little less than the second in which a page asks again, so that it gets a new one.
constexpr std::uint64_t kFresh = 900;  // ms
constexpr std::chrono::seconds kPatience{10};
constexpr std::size_t kMostEvents = 1000;

}  // namespace

bool Board::isWanted() const {
  const std::lock_guard lock(mutex_);
  return wanted_;
}

void Board::put(Facts snapshot) {
  auto shared = std::make_shared<const Facts>(std::move(snapshot));
  const std::lock_guard lock(mutex_);
  snapshot_ = std::move(shared);
  taken_ = platform::monotonicMilliseconds();
  wanted_ = false;
  changed_.notify_all();
}

void Board::add(Facts event) {
  const std::lock_guard lock(mutex_);
  events_.push_back({++lastNumber_, std::make_shared<const Facts>(std::move(event))});
  if (events_.size() > kMostEvents) events_.pop_front();
  changed_.notify_all();
}

void Board::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

Board::Snapshot Board::read() {
  std::unique_lock lock(mutex_);
  if (!snapshot_ || platform::monotonicMilliseconds() - taken_ > kFresh) {
    wanted_ = true;
    if (!changed_.wait_for(lock, kPatience, [this] { return closed_ || !wanted_; })) return {};
  }
  return closed_ ? Snapshot() : snapshot_;
}

std::vector<Board::Event> Board::eventsAfter(std::uint64_t number) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(1), [&] { return closed_ || lastNumber_ > number; });
  std::vector<Event> found;
  for (const Event& event : events_)
    if (event.number > number) found.push_back(event);
  return found;
}

bool Board::isClosed() const {
  const std::lock_guard lock(mutex_);
  return closed_;
}

}  // namespace hublinkctl
