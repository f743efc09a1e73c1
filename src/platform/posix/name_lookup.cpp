#include "platform/name_lookup.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/posix/lookup_threads.h"
#include "platform/readiness.h"
#include "platform/socket.h"

namespace platform {

// Shared by the object and by whoever resolves; goes with the last of them.
struct Inquiry {
  explicit Inquiry(std::string host) : name(std::move(host)) {}
  ~Inquiry() {
    if (event >= 0) close(event);
  }
  Inquiry(const Inquiry&) = delete;
  Inquiry& operator=(const Inquiry&) = delete;

  void resolve() {
    isFound = resolveHost(name.c_str(), address);
    isOver.store(true, std::memory_order_release);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(event, &one, sizeof one);
  }

  const std::string name;
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::atomic<bool> isOver = false;
  bool isFound = false;
  std::uint32_t address = 0;
};

namespace {

constexpr int kMostThreads = 64;

using InquiryPtr = std::shared_ptr<Inquiry>;

// What waits for a thread, and how many there are. Each thread holds a share, since it may outlast
// the main thread.
class LookupThreads {
 public:
  // Null if nothing is left, with which the thread that asks counts as ended.
  InquiryPtr next() {
    const std::lock_guard lock(mutex_);
    if (waiting_.empty()) {
      --running_;
      return nullptr;
    }
    InquiryPtr inquiry = std::move(waiting_.front());
    waiting_.pop_front();
    return inquiry;
  }
  // False if there is no thread that would take it. `start` gives one more.
  bool give(const InquiryPtr& inquiry, bool (*start)()) {
    const std::lock_guard lock(mutex_);
    if (running_ < kMostThreads && start()) ++running_;
    if (running_ == 0) return false;
    waiting_.push_back(inquiry);
    return true;
  }
  // Does nothing for one that a thread has.
  void takeBack(const InquiryPtr& inquiry) {
    const std::lock_guard lock(mutex_);
    std::erase(waiting_, inquiry);
  }
  bool anyRuns() {
    const std::lock_guard lock(mutex_);
    return running_ > 0;
  }

 private:
  std::mutex mutex_;
  std::deque<InquiryPtr> waiting_;
  int running_ = 0;
};

using Share = std::shared_ptr<LookupThreads>;

const Share& lookupThreads() {
  static const Share all = std::make_shared<LookupThreads>();
  return all;
}

void* runThread(void* argument) {
  const std::unique_ptr<Share> share(static_cast<Share*>(argument));
  while (const InquiryPtr inquiry = (*share)->next()) inquiry->resolve();
  return nullptr;
}

bool startThread() {
  auto share = std::make_unique<Share>(lookupThreads());
  // Signals are the main thread's.
  sigset_t every, before;
  sigfillset(&every);
  pthread_sigmask(SIG_SETMASK, &every, &before);
  pthread_t thread{};
  const bool hasStarted = pthread_create(&thread, nullptr, runThread, share.get()) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (!hasStarted) return false;
  [[maybe_unused]] const Share* given = share.release();
  pthread_detach(thread);
  return true;
}

}  // namespace

bool anyLookupRuns() {
  return lookupThreads()->anyRuns();
}

NameLookup::NameLookup(const std::string& name) : inquiry_(std::make_shared<Inquiry>(name)) {
  if (inquiry_->event >= 0 && lookupThreads()->give(inquiry_, startThread))
    readiness().watch(inquiry_->event);
  else
    inquiry_->isOver = true;
}

NameLookup::~NameLookup() {
  lookupThreads()->takeBack(inquiry_);
  readiness().forget(inquiry_->event);
}

bool NameLookup::isOver() const {
  return inquiry_->isOver.load(std::memory_order_acquire);
}

std::optional<std::uint32_t> NameLookup::address() const {
  return inquiry_->isFound ? std::optional(inquiry_->address) : std::nullopt;
}

}  // namespace platform
