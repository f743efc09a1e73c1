// Two sessions and the carrier between them, which does under a seed all that a carrier may do.
#pragma once

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
  void frameArrived(Session&, const Frame& frame) override {
    ++frames;
    if (frame.kind == FrameKind::data)
      streams[frame.link].append(reinterpret_cast<const char*>(frame.body), frame.size);
    if (onFrame) onFrame(frame);
  }
  void roomAgain(Session&) override { isHeld = false; }
  void sessionEnded(Session&, const std::string& reason) override { ends.push_back(reason); }

  bool isUp = true;
  bool isHeld = false;  // set by who was told that there is no room
  int frames = 0;
  std::vector<Bytes> out;
  std::map<std::uint32_t, std::string> streams;
  std::vector<std::string> ends;
  std::function<void(const Frame&)> onFrame;
};

/// In a hundred messages, and milliseconds at most: beyond one, messages overtake each other. All
/// are late by the last.
struct Faults {
  unsigned lost = 0, doubled = 0, garbled = 0, delay = 1, late = 0;
};

struct SessionPair {
  explicit SessionPair(Faults carrierFaults = {}, unsigned seed = 1)
      : faults(carrierFaults), random(seed) {}

  /// One millisecond: what is due arrives, timers run, what was queued leaves.
  void turn() {
    ++now;
    for (auto due = way.begin(); due != way.end() && due->first <= now; due = way.erase(due)) {
      auto& [to, message] = due->second;
      if (ends[to].isUp) session(to).take(message.data(), message.size(), now);
    }
    for (const std::size_t side : {0, 1}) {
      if (now % 2000 == 0 && ends[0].isUp && ends[1].isUp) session(side).heard(now);
      session(side).step(now);
      session(side).flush(now);
      for (Bytes& message : std::exchange(ends[side].out, {})) {
        if (chance(faults.garbled))
          message[random() % message.size()] ^= static_cast<unsigned char>(1 << random() % 8);
        for (int copies = chance(faults.lost)      ? 0
                          : chance(faults.doubled) ? 2
                                                   : 1;
             copies > 0; --copies)
          way.insert({now + 1 + faults.late + below(faults.delay), {1 - side, message}});
      }
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
  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); }
  bool chance(unsigned percent) { return below(100) < percent; }

  Faults faults;
  std::mt19937 random;
  std::int64_t now = 0;
  End ends[2];
  Session first{"first", 77, true, ends[0], {}, 0};
  Session second{"second", 77, false, ends[1], {}, 0};
  std::multimap<std::int64_t, std::pair<std::size_t, Bytes>> way;
};

}  // namespace bridge_test
