#include "bench/loopback.h"

#include <cstring>
#include <utility>

#include "platform/clock.h"
#include "platform/readiness.h"

namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;
constexpr int kAcceptPause = 100;  // ms between two looks at what makes it futile to wait
constexpr int kOrderlyEnd = 2000;  // ms for a child that was asked to end
constexpr int kStandardError = 2;

std::string nameOf(std::uint16_t number) {
  return "hublink_bench/" + std::to_string(number);
}

}  // namespace

LoopbackSocket::LoopbackSocket(LoopbackSocket&& other) noexcept
    : socket_(other.release()), port_(other.port_) {}

LoopbackSocket& LoopbackSocket::operator=(LoopbackSocket&& other) noexcept {
  std::swap(socket_, other.socket_);
  std::swap(port_, other.port_);
  return *this;
}

LoopbackSocket::~LoopbackSocket() {
  if (*this) platform::closeStream(socket_);
}

platform::Socket LoopbackSocket::release() {
  return std::exchange(socket_, platform::kNoSocket);
}

LoopbackSocket LoopbackSocket::listening(Road road) {
  if (road == Road::local) {
    for (std::uint16_t number = 1; number != 0; ++number) {
      LoopbackSocket made(platform::listenOnName(nameOf(number)));
      made.port_ = number;
      if (made) return made;
    }
    return {};
  }
  LoopbackSocket made(platform::openStream());
  if (!made || !platform::bindPort(made.get(), 0, true) || !platform::listenOn(made.get()))
    return {};
  made.port_ = platform::localPort(made.get());
  return made;
}

LoopbackSocket LoopbackSocket::connectedTo(std::uint16_t port, Road road) {
  LoopbackSocket made(road == Road::local ? platform::connectToName(nameOf(port))
                                          : platform::openStream());
  if (!made) return {};
  if (road == Road::tcp && platform::connectStream(made.get(), kLoopback, port, kStartLimit) != 0)
    return {};
  platform::setStreamOptions(made.get());
  return made;
}

LoopbackSocket LoopbackSocket::accept(const std::function<bool()>& givenUp) const {
  auto& ready = platform::readiness();
  const std::uint64_t end = platform::monotonicMilliseconds() + kStartLimit;
  LoopbackSocket client;
  ready.watch(socket_);
  while (!client && platform::monotonicMilliseconds() < end && !platform::stopRequested()) {
    platform::Transfer outcome;
    client.socket_ = platform::acceptFrom(socket_, outcome);
    if (client) {
      platform::setStreamOptions(client.get());
      continue;
    }
    if (!outcome.wouldBlock || givenUp()) break;
    ready.drained(socket_);
    bool failed = false;
    ready.wait(kAcceptPause, failed);
  }
  ready.forget(socket_);
  return client;
}

BenchProcess::~BenchProcess() {
  if (process_ == 0) return;
  std::size_t which = 0;
  platform::terminateProcess(process_);
  if (platform::waitForChildren(&process_, 1, true, kOrderlyEnd, which) ==
      platform::WaitOutcome::timedOut) {
    platform::killProcess(process_);
    platform::waitForChildren(&process_, 1, true, -1, which);
  }
  platform::releaseChild(process_);
}

bool BenchProcess::start(const std::string& program, const std::vector<std::string>& arguments,
                         std::string& error) {
  platform::StartRequest request;
  request.program = program;
  request.arguments.push_back(program);
  request.arguments.insert(request.arguments.end(), arguments.begin(), arguments.end());
  request.error = kStandardError;
  const int result = platform::startProcess(request, process_);
  if (result == 0) return true;
  process_ = 0;
  error = program + " can't be started: " + std::strerror(-result);
  return false;
}

bool BenchProcess::ended(int& status) const {
  std::size_t which = 0;
  if (platform::waitForChildren(&process_, 1, true, 0, which) != platform::WaitOutcome::ended)
    return false;
  status = platform::childEnd(process_)->status();
  return true;
}
