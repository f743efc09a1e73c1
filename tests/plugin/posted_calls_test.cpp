// Work that other threads hand over, and loops that sleep by other means than the plugin's own.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "hublink_plugin/hublink_plugin.h"
#include "support/hub_test.h"

namespace {

class PostedCallsTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    std::string error;
    ASSERT_TRUE(plugin.connect(port, error, "127.0.0.1", kPatience)) << error;
  }
  HublinkPlugin plugin;
};

TEST_F(PostedCallsTest, RunInOrderInThePluginsThread) {
  constexpr int kThreads = 4, kCalls = 2000;
  std::vector<int> last(kThreads, -1);
  int made = 0, misplaced = 0;
  const auto own = std::this_thread::get_id();
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([&, thread] {
      for (int call = 0; call < kCalls; ++call)
        plugin.post([&, thread, call] {
          int& before = last[static_cast<std::size_t>(thread)];
          misplaced += std::this_thread::get_id() != own || std::exchange(before, call) != call - 1;
          if (++made == kThreads * kCalls) plugin.stop();
        });
    });
  plugin.run();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(made, kThreads * kCalls);
  EXPECT_EQ(misplaced, 0);
}

// Each wake is the answer to the one before, so that the plugin is asleep or about to be.
TEST_F(PostedCallsTest, WakeWhoeverSleeps) {
  std::atomic<int> wakes = 0;
  std::thread thread([&] {
    for (int next = 0; next < 200; ++next) {
      plugin.post([&] { ++wakes; });
      while (wakes == next) std::this_thread::yield();
    }
    plugin.post([&] { plugin.stop(); });
  });
  EXPECT_TRUE(plugin.serveUntil([&] { return wakes >= 100; }, -1));
  plugin.run();
  thread.join();
  EXPECT_EQ(wakes, 200);
}

TEST_F(PostedCallsTest, NeedNoConnectionAndGoWithThePlugin) {
  const auto counted = std::make_shared<int>(0);
  {
    HublinkPlugin lonely;
    EXPECT_EQ(lonely.nextTimeout(), -1);
    lonely.post([&, counted] {
      ++*counted;
      lonely.post([counted] { ++*counted; });
    });
    EXPECT_EQ(lonely.nextTimeout(), 0);
    EXPECT_FALSE(lonely.serve(kPatience));
    EXPECT_EQ(*counted, 1) << "what a call posts waits for the next step";
    std::string error;
    EXPECT_TRUE(lonely.connect(port, error, "127.0.0.1", kPatience)) << error;
    EXPECT_EQ(*counted, 2);
    lonely.disconnect();
    lonely.post([counted] { ++*counted; });
    EXPECT_FALSE(lonely.serve(kPatience));
    EXPECT_EQ(*counted, 3);
    // What goes with the plugin may still turn to it.
    struct LastWish {
      explicit LastWish(HublinkPlugin& of) : turnsTo(of) {}
      ~LastWish() {
        turnsTo.post([] {});
        turnsTo.cancelLater({});
      }
      HublinkPlugin& turnsTo;
    };
    lonely.post([counted, wish = std::make_shared<LastWish>(lonely)] { ++*counted; });
    lonely.callLater(0, [counted, wish = std::make_shared<LastWish>(lonely)] { ++*counted; });
  }
  EXPECT_EQ(*counted, 3);
  EXPECT_EQ(counted.use_count(), 1);
}

}  // namespace
