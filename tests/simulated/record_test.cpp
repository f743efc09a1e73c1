// How a hub and the tools treat its record and lock as time goes by, on the simulated machine.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <random>

#include "active_hub/active_hub_record.h"
#include "active_hub/lock_file.h"
#include "hublink_plugin/hublink_plugin.h"
#include "indgen/scratch.h"
#include "platform/clock.h"
#include "platform/sim/world.h"
#include "service_database/service_database.h"
#include "services/hublink/hublink.h"
#include "services/hublink/main_loop.h"

namespace {

namespace fs = std::filesystem;
using platform::sim::Process;

class RecordTest : public testing::Test {
 protected:
  RecordTest() {
    gen_temporary_directory(scratch.path().c_str());
    // The files' times are the system's.
    world.wallStart = std::time(nullptr) * 1000;
  }
  ~RecordTest() override {
    world.endAll();
    EXPECT_EQ(world.fault(), "");
    gen_temporary_directory("/tmp");
  }

  Process& start(std::function<int()> body) {
    Process& process = world.start("it", [body](const auto&) { return body(); });
    world.settle();
    return process;
  }
  Process& startHub() {
    return start([this] {
      Hublink hub(database, 0, nullptr, nullptr);
      hub.plugins().ids().setLimit(lastPluginID);
      if (!hub.startListening(false, "zone")) return 1;
      port = static_cast<std::uint16_t>(hub.entrance().port());
      runMainLoop(hub, [this] { passes += hasRecord(); });
      return 0;
    });
  }
  Process& startPlugin() {
    return start([this] {
      HublinkPlugin plugin;
      std::string error;
      return plugin.connect(port, error) ? plugin.serveUntil([] { return false; }, -1) : 1;
    });
  }
  Process& startLocking(int wait, bool& got) {
    return start([&, wait] { return got = lockFile(guarded.c_str(), wait, 60), 0; });
  }
  void endPass(Process& hub) {
    world.wake(hub);
    world.settle();
  }
  bool hasRecord() const { return fs::exists(scratch / "svc_zone"); }
  void makeLock(int age) const {
    const std::chrono::seconds time(platform::unixMilliseconds() / 1000 - age);
    fs::last_write_time(scratch.write("a.lock", ""),
                        std::chrono::file_clock::from_sys(std::chrono::sys_seconds(time)));
  }

  platform::sim::World world;
  const Scratch scratch;
  const std::string guarded = scratch / "a.b";
  const ServiceDatabase database{};
  std::uint16_t port = 0;
  std::int32_t lastPluginID = 65535;
  int passes = 0;  // of the hub, at whose end its record was there
};

TEST_F(RecordTest, GoesOnTheThirdIdlePassAndTheHubLater) {
  Process& hub = startHub();
  Process& plugin = startPlugin();
  world.pass(10000);
  EXPECT_TRUE(hasRecord());
  passes = 0;
  world.kill(plugin);
  world.pass(3000);
  EXPECT_FALSE(hasRecord());
  EXPECT_EQ(passes, 3);
  // Somebody who has known the port from before keeps it alive.
  Process& late = startPlugin();
  world.pass(10000);
  EXPECT_FALSE(hub.returned);
  EXPECT_FALSE(late.returned);
  world.kill(late);
  world.pass(4000);
  endPass(hub);
  EXPECT_FALSE(hub.returned);
  world.pass(1);
  endPass(hub);
  EXPECT_TRUE(hub.returned);
  EXPECT_EQ(passes, 3) << "no record comes back";
}

TEST_F(RecordTest, StaysWhileAToolHoldsTheLock) {
  Process& hub = startHub();
  for (int i = 0; i < 3; ++i) endPass(hub);
  EXPECT_TRUE(hasRecord()) << "no time has passed";
  EXPECT_TRUE(lockActiveHub("zone", nullptr, nullptr));
  world.pass(3000);
  EXPECT_TRUE(hasRecord());
  EXPECT_EQ(findActiveHub("zone", nullptr, nullptr), port);
  unlockActiveHub("zone", nullptr, nullptr);
  world.pass(500);
  EXPECT_FALSE(hasRecord());
  EXPECT_FALSE(hub.returned);
}

TEST_F(RecordTest, GoesWithTheLastPluginID) {
  lastPluginID = 3;
  Process& hub = startHub();
  const auto visit = [this] {
    start([this] {
      auto link = makeCounted<STPTransport>();
      link->connect("127.0.0.1", port);
      link->serviceOnce(100);  // until it is taken
      return link->disconnect(), 0;
    });
  };
  for (int i = 0; i < 10; ++i) visit();  // no plugin, and nobody learns the ID
  int ids = 0;
  const auto join = [&] {
    start([&]() -> int {
      HublinkPlugin plugin;
      std::string error;
      if (!plugin.connect(port, error)) return 1;
      ids = ids * 10 + plugin.pluginID();
      return plugin.serveUntil([] { return false; }, -1);
    });
    world.pass(1000);
  };
  join();
  join();
  EXPECT_TRUE(hasRecord());
  testing::internal::CaptureStderr();
  join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "All 3 plugin IDs are used up: no further plugin is taken.\n");
  EXPECT_EQ(ids, 231);
  EXPECT_FALSE(hasRecord());
  join();
  EXPECT_EQ(ids, 231);
  EXPECT_FALSE(hub.returned);
  const std::uint16_t old = port;
  startHub();
  EXPECT_NE(port, old);
  join();
  EXPECT_EQ(ids, 2311);
}

// Fifty hubs take the record from each other, while some are killed and others idle.
TEST_F(RecordTest, NamesTheHubThatTookItLastAsLongAsItLives) {
  std::mt19937 random(11);
  for (int round = 0; round < 5; ++round) {
    bool isServing = false;
    std::vector<Process*> left;
    for (int i = 0; i < 50; ++i) {
      Process& hub = startHub();
      Process& plugin = startPlugin();
      EXPECT_EQ(findActiveHub("zone", nullptr, nullptr), port);
      isServing = false;
      switch (random() % 3) {
        case 0:
          world.kill(hub);
          break;
        case 1:
          world.kill(plugin);
          break;
        default:
          isServing = true;
          left.push_back(&hub);
      }
      world.pass(random() % 300);
    }
    world.pass(10000);
    EXPECT_EQ(findActiveHub("zone", nullptr, nullptr), isServing ? port : 0) << round;
    for (Process* hub : left) {
      EXPECT_FALSE(hub->returned);
      world.kill(*hub);
    }
    world.settle();
  }
}

TEST_F(RecordTest, LocksAgeAndWait) {
  bool got = true;
  makeLock(60);
  EXPECT_TRUE(startLocking(0, got).returned) << "one try, without a pause";
  EXPECT_FALSE(got);
  makeLock(61);
  EXPECT_FALSE(lockFile(guarded.c_str(), 0, kLockNeverStale));
  testing::internal::CaptureStderr();
  EXPECT_TRUE(lockFile(guarded.c_str(), 0, 60));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "warning: Breaking lock on file " + scratch / "a.lock" +
                " because it is more than 60 seconds old.\n");
  Process& waiting = startLocking(20, got = true);
  int pauses = 0;
  for (; !waiting.returned && pauses < 1000; ++pauses) world.pass(100);
  EXPECT_EQ(pauses, 200);
  EXPECT_FALSE(got);
  Process& patient = startLocking(kWaitForLock, got);
  world.pass(100000);
  EXPECT_FALSE(patient.returned);
  EXPECT_TRUE(unlockFile(guarded.c_str()));
  EXPECT_TRUE(unlockFile(guarded.c_str())) << "nobody has it";
  world.pass(100);
  EXPECT_TRUE(patient.returned && got);
}

}  // namespace
