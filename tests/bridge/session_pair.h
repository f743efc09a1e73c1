// Two sessions and the carrier between them, which does under a seed all that a carrier may do.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "services/hublink_bridge/session.h"

namespace bridge_test {

using namespace bridge;

/// One side: keeps what comes, and gives to the carrier what goes.
struct End : SessionHost {
  bool transmit(Session&, const unsigned char* message, std::size_t size) override {
    if (isUp) out.emplace_back(message, message + size);
    return isUp;
  }
  void frameArrived(Session& from, const Frame& frame) override {
    ++frames;
    if (frame.kind == FrameKind::data)
      streams[frame.link].append(reinterpret_cast<const char*>(frame.body), frame.size);
    if (onFrame) onFrame(from, frame);
  }
  void roomAgain(Session&) override { isHeld = false; }
  void sessionEnded(Session&, const std::string& reason) override { ends.push_back(reason); }

  bool isUp = true;
  bool isHeld = false;  // set by who was told that there is no room
  std::vector<Bytes> out;
  int frames = 0;
  std::map<std::uint32_t, std::string> streams;
  std::vector<std::string> ends;
  std::function<void(Session&, const Frame&)> onFrame;
};

struct Faults {
  int lost = 0, doubled = 0;  // of a hundred
  int delay = 1;              // milliseconds at most; with more than one, messages overtake others
};

struct SessionPair {
  explicit SessionPair(Faults carrierFaults = {}, unsigned seed = 1, SessionOptions options = {})
      : faults(carrierFaults),
        random(seed),
        first("first", 77, true, ends[0], options, 0),
        second("second", 77, false, ends[1], options, 0) {}

  bool chance(int percent) { return static_cast<int>(random() % 100) < percent; }

  /// One millisecond: what is due arrives, timers run, what was queued leaves.
  void turn() {
    ++now;
    if (now % 2000 == 0 && ends[0].isUp && ends[1].isUp)  // what members tell each other
      for (const std::size_t side : {0, 1}) session(side).heard(now);
    for (auto [due, end] = std::pair(way.begin(), way.upper_bound(now)); due != end;) {
      auto& [to, message] = due->second;
      if (ends[to].isUp) session(to).take(message.data(), message.size(), now);
      due = way.erase(due);
    }
    for (const std::size_t side : {0, 1}) {
      session(side).step(now);
      session(side).flush(now);
      for (Bytes& message : std::exchange(ends[side].out, {}))
        for (int copies = chance(faults.lost) ? 0 : 1 + chance(faults.doubled); copies > 0;
             --copies)
          way.insert({now + 1 + random() % faults.delay, {1 - side, message}});
    }
  }
  void run(int milliseconds) {
    while (milliseconds-- > 0) turn();
  }
  void setUp(std::size_t side, bool isUp) {
    ends[side].isUp = isUp;
    session(side).carrierChanged(isUp, now);
  }
  Session& session(std::size_t side) { return side == 0 ? first : second; }

  Faults faults;
  std::mt19937 random;
  std::int64_t now = 0;
  std::array<End, 2> ends;
  Session first, second;
  std::multimap<std::int64_t, std::pair<std::size_t, Bytes>> way;
};

}  // namespace bridge_test
