// A plugin in a loop of plain poll().
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "digest_service.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

int millisecondsUntil(Clock::time_point time) {
  const auto left = std::chrono::ceil<Milliseconds>(time - Clock::now());
  return static_cast<int>(std::max(left, Milliseconds(0)).count());
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  DigestService service;
  bool isOver = false;
  if (!service.start(argc, argv, [&isOver] { isOver = true; })) return 1;

  const Milliseconds beat(DigestService::kBeat);
  auto nextBeat = Clock::now() + beat;
  while (!isOver) {
    int milliseconds = millisecondsUntil(nextBeat);
    const int due = service.plugin().nextTimeout();
    if (due >= 0) milliseconds = std::min(milliseconds, due);
    pollfd hub{service.plugin().descriptor(), POLLIN, 0};
    poll(&hub, 1, milliseconds);
    if (hub.revents != 0 || service.plugin().nextTimeout() == 0) service.step();
    if (Clock::now() >= nextBeat) {
      service.beat();
      nextBeat = Clock::now() + beat;
    }
  }
  return service.finish();
}
