// A plugin that doesn't read: the hub holds a bounded backlog for it, those who add to it wait, and
// all others go on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>

#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"
#include "platform/sim/world.h"
#include "service_database/service_database.h"
#include "services/hublink/hublink.h"
#include "stp_transport/transport/stp_byte_block.h"
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

class Backlog : public testing::Test {
 protected:
  using Body = std::function<void(HublinkPlugin&)>;

  ~Backlog() override {
    world.endAll();
    EXPECT_EQ(world.fault(), "");
  }
  void startHub(std::int64_t limit) {
    hub = &world.start("hub", [this, limit](const auto&) {
      stpProcess().backlogLimit = limit;
      platform::installStopSignals();
      Hublink running(database, 0, nullptr, log.get());
      running.startListening(true, nullptr);
      port = static_cast<std::uint16_t>(running.entrance().port());
      while (!platform::stopRequested()) {
        running.servicePass(500);
        ++passes;
        most = std::max(most, mostWaiting());
      }
      running.shutdownPlugins(false, 0);
      return 0;
    });
    world.settle();
  }
  // Of the process that calls.
  static std::int64_t mostWaiting() {
    std::int64_t waiting = 0;
    for (const auto& [serial, transport] : stpProcess().transportsBySerial)
      waiting = std::max(waiting, transport->writeCount());
    return waiting;
  }
  platform::sim::Process& startPlugin(const Body& body) {
    auto& process = world.start("plugin", [this, body](const auto&) {
      HublinkPlugin plugin;
      std::string error;
      if (plugin.connect(port, error)) body(plugin);
      return 0;
    });
    world.settle();
    return process;
  }
  // Sends back what it gets.
  static void echo(HublinkPlugin& plugin) {
    plugin.registerService("Echo", [](const std::shared_ptr<HublinkLink>& link) {
      link->onPacket([raw = link.get()](const unsigned char* bytes, std::size_t size) {
        raw->send(bytes, size);
      });
    });
    plugin.run();
  }
  // Reads nothing between its first link and `milliseconds` later, then counts what it gets.
  Body deafFor(std::uint32_t milliseconds) {
    return [this, milliseconds](HublinkPlugin& plugin) {
      std::shared_ptr<HublinkLink> kept;
      plugin.registerService("Deaf", [&](const std::shared_ptr<HublinkLink>& link) {
        link->onPacket([this](const unsigned char* bytes, std::size_t size) {
          received += size == kPacket && bytes[0] == static_cast<unsigned char>(received) ? 1 : 0;
        });
        kept = link;
      });
      deaf = plugin.pluginID();
      plugin.serveUntil([&kept] { return kept != nullptr; }, -1);
      platform::sleepMilliseconds(milliseconds);
      kept->send("unread", 6);
      plugin.run();
    };
  }
  void send(HublinkPlugin& plugin) {
    const auto link = plugin.requestService(queryFor("Deaf")).link;
    std::string packet(kPacket, 'x');
    for (int i = 0; link && i < kPackets; ++i) {
      packet[0] = static_cast<char>(i);
      link->send(packet.data(), packet.size());
    }
    plugin.serveUntil([] { return false; }, 5000);
    unsent = plugin.wantsWrite();
    plugin.run();
  }
  // All others go on.
  void expectEchoes() {
    int echoes = 0;
    startPlugin([&](HublinkPlugin& plugin) {
      const auto link = plugin.requestService(queryFor("Echo")).link;
      HublinkLink::Packet packet;
      while (link && echoes < 100 && link->send("hello", 5) && link->receive(packet, 1000))
        ++echoes;
    });
    world.pass(1000);
    EXPECT_EQ(echoes, 100);
  }

  platform::sim::World world;
  const ServiceDatabase database{};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log{std::tmpfile(), std::fclose};
  platform::sim::Process* hub = nullptr;
  std::uint16_t port = 0;
  std::int64_t most = 0;  // bytes that have waited for one receiver
  std::int32_t deaf = 0;  // the plugin's ID
  int received = 0, passes = 0;
  bool unsent = false;  // the wait has travelled back to the sender
};

TEST_F(Backlog, StopsTheSenderAndNobodyElse) {
  startHub(kLimit);
  startPlugin(deafFor(10000));
  startPlugin(echo);
  startPlugin([this](HublinkPlugin& plugin) { send(plugin); });
  world.pass(6000);
  EXPECT_GE(most, kLimit);
  EXPECT_LT(most, 3 * kLimit);
  EXPECT_TRUE(unsent);
  expectEchoes();
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
}

// Nor does it hold up the other links of the sender for more than a moment: until the limit its
// packets to others get through, and the hub sleeps meanwhile.
TEST_F(Backlog, LetsTheSendersOtherLinksGoOn) {
  startHub(std::int64_t{1} << 30);
  startPlugin(deafFor(10000));
  startPlugin(echo);
  std::uint64_t longest = 0;
  int echoes = 0, passesBefore = 0;
  startPlugin([&](HublinkPlugin& plugin) {
    const auto stuck = plugin.requestService(queryFor("Deaf")).link;
    const auto link = plugin.requestService(queryFor("Echo")).link;
    const std::string packet(kPacket, 'x');
    passesBefore = passes;
    for (HublinkLink::Packet answer; echoes < 200 && stuck && link; ++echoes) {
      const std::uint64_t start = platform::monotonicMilliseconds();
      stuck->send(packet.data(), packet.size());
      if (!link->send("hello", 5) || !link->receive(answer, 5000)) break;
      longest = std::max(longest, platform::monotonicMilliseconds() - start);
    }
  });
  world.pass(2 * STPBacklog::kPatience);
  EXPECT_EQ(echoes, 200);
  EXPECT_EQ(longest, STPBacklog::kPatience) << "the one time that the receiver stops";
  EXPECT_GT(most, 190 * static_cast<std::int64_t>(kPacket));
  EXPECT_LT(passes - passesBefore, 3000);
}

// Who asks and doesn't read the answers is answered no more, and who asks of somebody who doesn't
// read waits as well; each answer comes in the end.
TEST_F(Backlog, StopsThoseWhoAskWithoutEnd) {
  constexpr int kQuestions = 10000, kNoLimit = -1;
  startHub(kLimit);
  startPlugin(echo);
  startPlugin(deafFor(30000));
  int answers = 0, values = 0;
  startPlugin([&](HublinkPlugin& plugin) {
    for (int i = 0; i < kQuestions; ++i)
      plugin.requestLocation([&](const std::string&, std::int32_t) { ++answers; }, kNoLimit);
    for (int i = 0; i < 500; ++i, platform::sleepMilliseconds(10)) plugin.flush();
    unsent = plugin.wantsWrite();
    plugin.run();
  });
  world.pass(4900);
  EXPECT_GE(most, kLimit);
  EXPECT_LT(most, 2 * kLimit);
  expectEchoes();
  EXPECT_TRUE(unsent);
  world.pass(5000);
  EXPECT_EQ(answers, kQuestions);

  most = 0;
  startPlugin([&](HublinkPlugin& plugin) {
    const auto link = plugin.requestService(queryFor("Deaf")).link;
    for (int i = 0; i < kQuestions; ++i)
      plugin.requestValue(
          deaf, "name", [&](const auto&) { ++values; }, kNoLimit);
    plugin.run();
  });
  world.pass(15000);
  EXPECT_GE(most, kLimit);
  EXPECT_LT(most, 2 * kLimit);
  EXPECT_EQ(values, 0);
  expectEchoes();
  world.pass(15000);
  EXPECT_EQ(values, kQuestions);
}

// A sender has no more waiting than it wants to, and learns when it can go on.
TEST_F(Backlog, SendersAreToldOfIt) {
  startHub(kLimit);
  auto& receiver = startPlugin(deafFor(10000));
  int sent = 0, full = 0, rooms = 0;
  std::int64_t waiting = 0, waitingAtRoom = 0;
  SendOutcome last = SendOutcome::sent;
  bool isConnected = false;
  startPlugin([&](HublinkPlugin& plugin) {
    plugin.setSendLimit(kLimit);
    const auto link = plugin.requestService(queryFor("Deaf")).link;
    std::string packet(kPacket, 'x');
    const auto trySend = [&] { return link->trySend(packet.data(), packet.size()); };
    const auto sendAll = [&] {
      for (; sent < kPackets; ++sent) {
        packet[0] = static_cast<char>(sent);
        if (trySend() == SendOutcome::full && trySend() == SendOutcome::full) {
          ++full;
          return;
        }
        waiting = std::max(waiting, mostWaiting());
      }
    };
    link->onRoom([&] {
      ++rooms;
      waitingAtRoom = std::max(waitingAtRoom, mostWaiting());
      sendAll();
    });
    sendAll();
    plugin.serveUntil([&] { return received == kPackets; }, -1);
    while (link->send(packet.data(), packet.size())) waiting = std::max(waiting, mostWaiting());
    last = trySend();
    isConnected = plugin.isConnected();
  });
  world.pass(9000);
  EXPECT_LT(sent, kPackets);
  EXPECT_EQ(rooms, full - 1);
  world.pass(5000);
  EXPECT_EQ(received, kPackets);
  EXPECT_EQ(rooms, full) << "once each";
  EXPECT_GT(waitingAtRoom, 0);
  EXPECT_LE(waitingAtRoom, kLimit / 2);
  EXPECT_EQ(last, SendOutcome::sent);
  world.kill(receiver);
  world.pass(100);
  EXPECT_EQ(last, SendOutcome::failed) << "a link that ends ends the wait";
  EXPECT_TRUE(isConnected);
  EXPECT_LT(waiting, kLimit + 2 * static_cast<std::int64_t>(kPacket));
}

// A packet handler that waits is neither entered again nor overtaken.
TEST_F(Backlog, SendersWaitInOrder) {
  startHub(kLimit);
  startPlugin(deafFor(10000));
  int depth = 0, deepest = 0, atEnd = -1;
  std::int64_t waiting = 0;
  startPlugin([&](HublinkPlugin& plugin) {
    plugin.setSendLimit(kLimit);
    const auto on = plugin.requestService(queryFor("Deaf")).link;
    plugin.registerService("Relay", [&](const std::shared_ptr<HublinkLink>& link) {
      link->onPacket([&, on](const unsigned char* bytes, std::size_t size) {
        deepest = std::max(deepest, ++depth);
        on->send(bytes, size);
        waiting = std::max(waiting, mostWaiting());
        --depth;
        ++atEnd;
      });
      link->onEnd([&] { unsent = atEnd + 1 < kPackets; });
    });
    plugin.run();
  });
  startPlugin([&](HublinkPlugin& plugin) {
    const auto link = plugin.requestService(queryFor("Relay")).link;
    std::string packet(kPacket, 'x');
    for (int i = 0; i < kPackets; ++i) {
      packet[0] = static_cast<char>(i);
      link->send(packet.data(), packet.size());
    }
    plugin.serveUntil([&plugin] { return !plugin.wantsWrite(); }, -1);
    link->close();
    plugin.run();
  });
  unsent = true;
  world.pass(9000);
  EXPECT_GT(depth, 0);
  EXPECT_EQ(received, 0);
  world.pass(6000);
  EXPECT_EQ(received, kPackets);
  EXPECT_EQ(deepest, 1);
  EXPECT_FALSE(unsent) << "the end comes behind all packets";
  EXPECT_LT(waiting, kLimit + 2 * static_cast<std::int64_t>(kPacket));
}

// At its end the hub waits for those who read, also for those who still send, and not long for
// those who don't.
TEST_F(Backlog, HasAMomentToLeaveAtTheHubsEnd) {
  startHub(kPackets * kPacket * 2);
  startPlugin(deafFor(10400));
  startPlugin([this](HublinkPlugin& plugin) { send(plugin); });
  world.pass(10000);
  EXPECT_FALSE(unsent);
  platform::terminateProcess(hub->id);
  world.pass(399);
  EXPECT_EQ(received, 0);
  EXPECT_FALSE(hub->returned);
  world.pass(50);
  EXPECT_EQ(received, kPackets);
  EXPECT_TRUE(hub->returned);

  received = 0;
  startHub(kPackets * kPacket * 2);
  startPlugin(deafFor(20000));
  startPlugin([this](HublinkPlugin& plugin) { send(plugin); });
  world.pass(10000);
  platform::terminateProcess(hub->id);
  world.pass(499);
  EXPECT_FALSE(hub->returned);
  world.pass(1);
  EXPECT_TRUE(hub->returned);
}

// What bursts take again and again stays in store, and goes when there are no more of them: also in
// a loop that does nothing before it is due.
TEST_F(Backlog, BlocksOfABurstStayForTheNext) {
  std::vector<int> limits, sleeps;
  world.start("it", [&](const auto&) {
    std::vector<unsigned char*> blocks(200);
    for (int i = 0; i < 5; ++i) {
      for (auto& block : blocks) block = STPByteBlock::allocate(STP_SMALL_BLOCK);
      for (auto* block : blocks) STPByteBlock::discard(block, STP_SMALL_BLOCK);
      platform::sleepMilliseconds(600);
      STPByteBlock::freeUnused();
      limits.push_back(STPByteBlock::sleepLimit());
    }
    while (limits.back() > 0) {
      sleeps.push_back(limits.back());
      platform::sleepMilliseconds(limits.back());
      if (STPByteBlock::sleepLimit() == 0) STPByteBlock::freeUnused();
      limits.push_back(STPByteBlock::sleepLimit());
    }
    return 0;
  });
  world.pass(10000);
  ASSERT_GT(limits.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i) EXPECT_GT(limits[i], 0);
  EXPECT_LE(sleeps.size(), 2u);
  EXPECT_EQ(limits.back(), -1);
}

}  // namespace
