// Connects to addresses that answer late or never, and names that take long, on a simulated clock.
#include <gtest/gtest.h>

#include <set>

#include "platform/clock.h"
#include "platform/sim/world.h"
#include "stp_transport/transport/stp_connect_attempt.h"
#include "stp_transport/transport/stp_listener.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

struct ConnectEnd {
  std::string text;
  std::uint64_t taken = 0;  // ms
};

class SlowConnect : public testing::Test {
 protected:
  ~SlowConnect() override {
    world.endAll();
    EXPECT_EQ(world.fault(), "");
  }
  ConnectEnd connect(const char* host, STPConnectMode mode) {
    ConnectEnd end;
    world.start("it", [&](const auto&) {
      STPListener listener;
      STPStatus status;
      listener.open(0, &status, true);
      const std::uint64_t start = platform::monotonicMilliseconds();
      STPConnectAttempt attempt(host, listener.port(), false, mode);
      bool failed = false;
      while (!attempt.poll()) platform::readiness().wait(attempt.timeLeft(), failed);
      end.taken = platform::monotonicMilliseconds() - start;
      if (const int socket = attempt.takeSocket(); socket > 0) closeSocket(socket);
      end.text = attempt.status().message;
      return 0;
    });
    world.pass(60000);
    return end;
  }

  platform::sim::World world;
};

TEST_F(SlowConnect, EndsWithTheAnswerOrAtItsLimit) {
  constexpr const char* kFailure = "[ConnectToServer]: connection failed";
  for (const STPConnectMode mode : {STPConnectMode::polled, STPConnectMode::waiting}) {
    world.weather.noAnswer = 1000;
    const ConnectEnd silent = connect("127.0.0.1", mode);
    EXPECT_EQ(silent.text, kFailure);
    EXPECT_EQ(silent.taken, 5000u);
    world.weather = {};
    world.weather.slowAnswer = 1000;
    std::set<std::string> texts;
    for (int i = 0; i < 50; ++i) {
      const ConnectEnd slow = connect("127.0.0.1", mode);
      EXPECT_EQ(slow.text, slow.taken < 5000 ? "" : kFailure);
      EXPECT_TRUE(slow.taken > 0 && slow.taken <= 5000);
      texts.insert(slow.text);
    }
    EXPECT_EQ(texts.size(), 2u) << "some in time, some not";
  }
}

TEST_F(SlowConnect, ANameHasALimitOfItsOwn) {
  world.weather.noAnswer = 1000;
  const ConnectEnd silent = connect("localhost", STPConnectMode::polled);
  EXPECT_EQ(silent.text, "[connectToServer]: Unable to resolve host");
  EXPECT_EQ(silent.taken, 30000u);
  world.weather = {};
  EXPECT_EQ(connect("localhost", STPConnectMode::polled).text, "");
  EXPECT_EQ(connect("nobody", STPConnectMode::polled).text, silent.text);
}

}  // namespace
