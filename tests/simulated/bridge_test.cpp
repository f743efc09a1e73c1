// A bridge that takes questions and answers none: whoever asks isn't kept for ever.
#include <gtest/gtest.h>

#include "hubbridge.h"
#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"
#include "platform/sim/world.h"
#include "service_database/service_database.h"
#include "services/hublink/hublink.h"

namespace {

struct SilentBridge : hubbridge::Bridge {
  int wanted = 0, voided = 0;
  void onWanted(const hubbridge::Wanted&) override { ++wanted; }
  void onNoLongerWanted(const hubbridge::NoLongerWanted&) override { ++voided; }
};

ServiceQuery serviceOf(const char* service) {
  ServiceQuery query;
  query.serviceName = service;
  return query;
}

TEST(SilentBridge, IsAskedForAMinute) {
  platform::sim::World world;
  const ServiceDatabase database;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log{std::tmpfile(), std::fclose};
  std::uint16_t port = 0;
  SilentBridge bridge;
  ServiceReply reply;
  std::uint64_t taken = 0;
  const auto start = [&](const std::function<void(HublinkPlugin&)>& body) {
    world.start("plugin", [&, body](const auto&) {
      HublinkPlugin plugin;
      std::string error;
      if (plugin.connect(port, error)) body(plugin);
      return 0;
    });
    world.settle();
  };
  world.start("hub", [&](const auto&) {
    platform::installStopSignals();
    Hublink hub(database, 0, nullptr, log.get());
    hub.startListening(true, nullptr);
    port = static_cast<std::uint16_t>(hub.entrance().port());
    while (!platform::stopRequested()) hub.servicePass(500);
    hub.shutdownPlugins(false, 0);
    return 0;
  });
  world.settle();
  start([&](HublinkPlugin& plugin) {
    bridge.attach(plugin.requestService(serviceOf("hublink.abroad")).link);
    EXPECT_TRUE(bridge.knows("StandsFor"));
    plugin.run();
  });
  start([&](HublinkPlugin& plugin) {
    const std::uint64_t begin = platform::monotonicMilliseconds();
    reply = plugin.requestService(serviceOf("Far"), 100000);
    taken = platform::monotonicMilliseconds() - begin;
  });
  world.pass(90000);
  EXPECT_EQ(reply.outcome, ServiceReply::Outcome::notFound);
  EXPECT_GE(taken, 60000u);
  EXPECT_LT(taken, 61000u);
  EXPECT_EQ(bridge.wanted, 1);
  EXPECT_EQ(bridge.voided, 1);
  world.endAll();
  EXPECT_EQ(world.fault(), "");
}

}  // namespace
