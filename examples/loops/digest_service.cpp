#include "digest_service.h"

#include <array>
#include <cstdio>
#include <utility>

namespace {

constexpr const char* kService = "Digest";

// FNV-1a in 64 bits.
std::string digestOf(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325u;
  for (const char letter : text) {
    hash ^= static_cast<unsigned char>(letter);
    hash *= 0x100000001b3u;
  }
  std::array<char, 17> digits;
  std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(hash));
  return digits.data();
}

}  // namespace

DigestMaker::DigestMaker(HublinkPlugin& plugin) : plugin_(plugin), thread_([this] { work(); }) {}

DigestMaker::~DigestMaker() {
  {
    const std::lock_guard lock(mutex_);
    isOver_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void DigestMaker::make(std::string text, Taker taker) {
  {
    const std::lock_guard lock(mutex_);
    jobs_.push_back({std::move(text), std::move(taker)});
  }
  changed_.notify_one();
}

void DigestMaker::work() {
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return isOver_ || !jobs_.empty(); });
      if (isOver_) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    plugin_.post([taker = std::move(job.taker), digest = digestOf(job.text)] { taker(digest); });
  }
}

bool DigestService::start(int argc, char** argv, std::function<void()> over) {
  over_ = std::move(over);
  std::string error;
  if (!connectToHub(plugin_, argc, argv, error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return false;
  }
  if (plugin_.registerService(kService, [this](const auto& link) { serveLink(link); }) == -1) {
    std::fprintf(stderr, "the hub has not registered %s\n", kService);
    return false;
  }
  std::printf("serves %s\n", kService);
  return true;
}

void DigestService::step() {
  ++steps_;
  if (!plugin_.serve(0)) end(1);
}

void DigestService::beat() {
  ++beats_;
  for (const auto& [requester, link] : links_) link->trySend(".", 1);
}

// A requester may have left when its digest is ready: it is found by its number, or not.
void DigestService::serveLink(const std::shared_ptr<HublinkLink>& link) {
  const int requester = ++requesters_;
  links_[requester] = link;
  link->onPacket([this, requester](const unsigned char* bytes, std::size_t size) {
    maker_.make(std::string(bytes, bytes + size),
                [this, requester](const std::string& digest) { answer(requester, digest); });
  });
  link->onEnd([this, requester] {
    links_.erase(requester);
    if (links_.empty() && plugin_.isConnected()) end(0);
  });
}

void DigestService::answer(int requester, const std::string& digest) {
  const auto place = links_.find(requester);
  if (place == links_.end()) return;
  ++answers_;
  const std::shared_ptr<HublinkLink> link = place->second;  // a send may wait, and it may end then
  link->send(digest.data(), digest.size());
}

void DigestService::end(int exitCode) {
  if (!over_) return;
  exitCode_ = exitCode;
  std::exchange(over_, nullptr)();
}

int DigestService::finish() {
  plugin_.disconnect();
  std::printf("%d digests, %d beats, %d steps\n", answers_, beats_, steps_);
  return exitCode_;
}
