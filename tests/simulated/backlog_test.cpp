// A plugin that doesn't read: the hub holds a bounded backlog for it, its sender waits, and all
// others go on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"
#include "platform/sim/world.h"
#include "services/hublink/hublink.h"
#include "services/hublink/main_loop.h"
#include "stp_transport/transport/stp_process_state.h"

namespace {

constexpr std::int64_t kLimit = 1 << 18;
constexpr std::size_t kPacket = 1 << 16;
constexpr int kPackets = 64;

ServiceQuery queryFor(const char* service) {
  ServiceQuery query;
  query.serviceName = service;
  return query;
}

TEST(Backlog, StopsTheSenderAndNobodyElse) {
  platform::sim::World world;
  const ServiceDatabase database;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log(std::tmpfile(), std::fclose);
  std::uint16_t port = 0;
  std::int64_t most = 0;
  world.start("hub", [&](const auto&) {
    stpProcess().backlogLimit = kLimit;
    Hublink hub(database, 0, nullptr, log.get());
    hub.startListening(true, nullptr);
    port = hub.getPort();
    for (;;) {
      hub.servicePass(500);
      for (const auto& [serial, transport] : stpProcess().transportsBySerial)
        most = std::max(most, transport->writeCount());
      if (platform::stopRequested()) return 0;
    }
  });
  world.settle();

  int received = 0;
  std::shared_ptr<HublinkLink> kept;
  const auto provider = [&](const char* service, bool isDeaf) {
    return [&, service, isDeaf](const auto&) {
      HublinkPlugin plugin;
      std::string error;
      plugin.connect(port, error);
      plugin.registerService(service, [&](const std::shared_ptr<HublinkLink>& link) {
        link->onPacket([&received, isDeaf, raw = link.get()](const unsigned char* bytes,
                                                             std::size_t size) {
          if (isDeaf)
            received += size == kPacket && bytes[0] == static_cast<unsigned char>(received) ? 1 : 0;
          else
            raw->send(bytes, size);
        });
        if (isDeaf) kept = link;
      });
      if (isDeaf) {
        plugin.serveUntil([&kept] { return kept != nullptr; }, -1);
        platform::sleepMilliseconds(10000);
      }
      plugin.run();
      kept.reset();
      return 0;
    };
  };
  world.start("deaf", provider("Deaf", true));
  world.start("echo", provider("Echo", false));
  world.settle();

  bool unsent = false;
  world.start("sender", [&](const auto&) {
    HublinkPlugin plugin;
    std::string error;
    plugin.connect(port, error);
    const auto link = plugin.requestService(queryFor("Deaf")).link;
    std::string packet(kPacket, 'x');
    for (int i = 0; link && i < kPackets; ++i) {
      packet[0] = static_cast<char>(i);
      link->send(packet.data(), packet.size());
    }
    plugin.serveUntil([] { return false; }, 5000);
    unsent = plugin.wantsWrite();
    plugin.run();
    return 0;
  });
  world.pass(6000);
  EXPECT_GE(most, kLimit);
  EXPECT_LT(most, 3 * kLimit);
  EXPECT_TRUE(unsent) << "the wait travels back to the sender";

  int echoes = 0;
  world.start("asker", [&](const auto&) {
    HublinkPlugin plugin;
    std::string error;
    plugin.connect(port, error);
    const auto link = plugin.requestService(queryFor("Echo")).link;
    HublinkLink::Packet packet;
    while (link && echoes < 100 && link->send("hello", 5) && link->receive(packet, 1000)) ++echoes;
    return 0;
  });
  world.pass(1000);
  EXPECT_EQ(echoes, 100);
  EXPECT_EQ(received, 0);
  world.pass(10000);
  EXPECT_EQ(received, kPackets);

  std::string lines(4096, '\0');
  std::rewind(log.get());
  lines.resize(std::fread(lines.data(), 1, lines.size(), log.get()));
  const auto count = [&lines](const char* text) {
    int found = 0;
    for (std::size_t at = 0; (at = lines.find(text, at)) != std::string::npos; ++at) ++found;
    return found;
  };
  const int begun = count("Plugin ID 1 doesn't read");
  EXPECT_GE(begun, 1);
  EXPECT_LT(begun, kPackets / 4);
  EXPECT_EQ(count("Plugin ID 1 no longer holds others up"), begun);
  world.endAll();
  EXPECT_EQ(world.fault(), "");
}

}  // namespace
