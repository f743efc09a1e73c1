// The two sides of the hub's own interface: numbers, bytes and traces that other programs rely on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "generated/hublink_plugin_impl.h"
#include "generated/hublink_router_impl.h"
#include "stpc/in_process.h"

namespace {

using Text = const char*;
using Number = std::int32_t;

class Router : public Hublink_router_Impl {
 public:
  void DebugPlugin(Text, bool, Text, Text) override {}
  void RequestLocation() override {}
  void RequestPluginLaunch(StringArray, Number, bool, Text) override {}
  void RequestPluginConnect(Text, Number, Number) override {}
  void RequestPluginIdForService(Number, Text, Text, bool) override {}
  void RequestHublinkDisconnect() override {}
  void RequestServiceConnection(Text, Number, StringArray, Text, bool, Number, bool,
                                bool) override {}
  void DropServiceConnection(Number, Number) override {}
  void ConnectionAcceptedEvent(Number, Number, bool) override {}
  void StartPluginEvent(Number, bool, Text) override {}
  void SetWorkingDir(Text) override {}
  void ReserveRNBlock(Number) override {}
  void ReleaseRN(Number) override {}
  void UnregisterService(Number) override {}
  void RegisterServiceList(StringArray) override {}
  void RequestValueOfNameOnPlugin(Number, Text) override {}
  void ValueOfNameOnPluginResponseEvent(Number, Number, Text, Text) override {}
  void PersistentService(bool) override {}
  void NumPersistentServices(Number& persistent, Number& total) override {
    persistent = 2;
    total = 3;
  }
  void LogMessageEvent(Text) override {}
  void SetEnvironmentVariable(Text, Text) override {}
  void SetPreferAda(bool) override {}
};

class Plugin : public Hublink_plugin_Impl {
 public:
  void LocationEvent(Text, Number) override {}
  void PluginId(Number) override {}
  void ConnectionRequestedEvent(Number, Number, Number, StringArray) override {}
  void ConnectionDroppedEvent(Number, Number) override {}
  void ConnectionReplyEvent(Text, Number, bool, bool, bool, Number, Number, Text, Number) override {
  }
  void PluginIdForServiceReplyEvent(Number, Text, Number, bool) override {}
  void RNBlockReservedEvent(RNArray) override {}
  void PluginConnectedEvent(Number, Number, Text) override {}
  void ForwardedRequestValueOfNameOnPlugin(Number, Number, Text) override {}
  void ValueOfNameOnPluginEvent(Number, Text, Text) override {}
  void StartPlugin(StringArray, Number, Text) override {}
  void StartLogging() override {}
};

class HublinkTest : public ::testing::Test {
 protected:
  HublinkTest() { pair.join(*router, *plugin); }
  ~HublinkTest() override {
    router->setLogs(nullptr);
    plugin->setLogs(nullptr);
  }

  // The last `size` bytes that the router has queued.
  std::vector<unsigned char> tailOf(STPTransport& transport, std::int64_t size) {
    std::int64_t* offset = nullptr;
    std::int64_t* count = nullptr;
    std::int64_t* capacity = nullptr;
    unsigned char** bytes = nullptr;
    transport.inProcessEndpoints(&offset, &count, &capacity, &bytes);
    const unsigned char* end = *bytes + *offset + *count;
    return {end - size, end};
  }

  InProcessPair pair;
  CountedPtr<Router> router = makeCounted<Router>();
  CountedPtr<Plugin> plugin = makeCounted<Plugin>();
  KeepingLog log;
};

TEST_F(HublinkTest, TablesHaveTheirNumbersAndFlags) {
  EXPECT_EQ(router->messageCount(), 22);
  EXPECT_EQ(plugin->messageCount(), 12);
  EXPECT_EQ(router->messageId("ValueOfNameOnPluginResponseEvent"), 21);
  EXPECT_EQ(plugin->messageId("RNBlockReservedEvent"), 8);
  EXPECT_EQ(router->peerEntry("ConnectionReplyEvent")->flags, 0x12u);
  EXPECT_EQ(router->peerEntry("PluginId")->flags, 0x02u);
  EXPECT_EQ(plugin->peerEntry("NumPersistentServices")->flags, 0x01u);
  EXPECT_STREQ(router->getPeerName(), "plugin");
  EXPECT_STREQ(plugin->getPeerName(), "router");
  // The whole record: 49 field names and 22 messages, in 1611 characters.
  router->sendNegotiate(false, nullptr, nullptr);
  EXPECT_EQ(pair.first->writeCount(), 44 + 1616);
}

TEST_F(HublinkTest, AStubPutsItsFieldsUnderTheirTags) {
  const Text arguments[] = {"a", "bc"};
  router->StartPlugin({2, arguments}, 7, nullptr);
  const std::vector<unsigned char> expected = {
      0x40, 0x01, 0,    0,    0x27, 0, 0,    0,    0x24, 0x06, 0, 0, 0x02, 0,    0,   0, 0x24, 0x16,
      0,    0,    2,    0,    0,    0, 0x10, 0x17, 0,    0,    2, 0, 0,    0,    'a', 0, 0,    0,
      0x10, 0x17, 0,    0,    3,    0, 0,    0,    'b',  'c',  0, 0, 0x24, 0x05, 0,   0, 7,    0,
      0,    0,    0x10, 0x30, 0,    0, 0,    0,    0,    0,    0, 0, 0,    0};
  EXPECT_EQ(tailOf(*pair.first, 68), expected);
  router->ConnectionDroppedEvent(0x1234, 0x5678);
  const std::vector<unsigned char> packet = tailOf(*pair.first, 44 + 20);
  EXPECT_EQ(packet[24], 15);
  EXPECT_EQ(packet[32], 0x22);
  EXPECT_EQ(packet[45], 39);
  EXPECT_EQ(packet[53], 34);
}

TEST_F(HublinkTest, TracesAreLinesOfTheirForm) {
  router->setLogs(&log);
  const Text names[] = {"a", "b"};
  const Number numbers[] = {0x100, 0x101};
  plugin->RequestPluginConnect("abc", 8080, 7);
  plugin->RegisterServiceList({2, names});
  plugin->RequestLocation();
  pair.pump();
  router->RNBlockReservedEvent({2, numbers});
  router->StartLogging();
  router->LocationEvent(nullptr, 1);
  EXPECT_EQ(log.text,
            "RECV: RequestPluginConnect: host:\"abc\", port:0x1f90, cookie:0x7\n"
            "RECV: RegisterServiceList: name_list:{count:0x2 data:\"a\", \"b\", }\n"
            "RECV: RequestLocation: \n"
            "SEND: RNBlockReservedEvent: rn_list:{count:0x2 data:0x100, 0x101, }\n"
            "SEND: StartLogging: \n"
            "SEND: LocationEvent: hostname:\"\", port:0x1\n");
}

TEST_F(HublinkTest, ACallIsAnswered) {
  router->setLogs(&log);
  PumpingHandler patience(pair);
  Number persistent = 0;
  Number total = 0;
  ASSERT_TRUE(plugin->NumPersistentServices(&persistent, &total, &patience));
  EXPECT_EQ(persistent, 2);
  EXPECT_EQ(total, 3);
  EXPECT_EQ(log.text,
            "RECV: NumPersistentServices: \n"
            "REPLY: NumPersistentServices: num_persistent:0x2, num_total:0x3\n");
}

TEST_F(HublinkTest, AFailedTransportShowsInTheTrace) {
  router->setLogs(&log);
  STPStatus status;
  pair.first->connect("localhost", 1, &status);
  ASSERT_FALSE(status.good());
  router->PluginId(1);
  EXPECT_EQ(log.text, "SEND FAILED: PluginId\n");
}

TEST_F(HublinkTest, StubsAreRefusedUntilThePeerIsKnown) {
  CountedPtr<Router> lonely = makeCounted<Router>();
  lonely->setLogs(&log);
  STPStatus status;
  lonely->PluginId(1, false, nullptr, &status);
  EXPECT_EQ(status.code, STP_MISUSE);
  EXPECT_EQ(log.text, "");
}

TEST_F(HublinkTest, HostileMessagesStayWithinTheirBytes) {
  router->setLogs(&log);
  const auto send = [&](std::uint32_t id, auto write) {
    const auto packet = pair.second->newMessage(2, 1, STP_BINARY, id, STP_ONE_WAY);
    write(*packet);
    pair.second->enqueueMessage(*packet);
    pair.pump();
  };
  // An inner count beyond the payload, and a count field beyond what was made.
  send(6, [](STPMessage& packet) {
    const STPStubBlock block(packet, 22);
    packet.putU32(6, 5);
    packet.putU32(STP_TAG_ARRAY_COUNT, 0x7FFFFFFF);
    packet.putString(STP_TAG_ARRAY_ELEMENT, "a");
  });
  send(6, [](STPMessage& packet) {
    const STPStubBlock block(packet, 22);
    packet.putU32(6, 0xFFFFFFFF);
    packet.putU32(STP_TAG_ARRAY_COUNT, 0);
  });
  send(0, [](STPMessage& packet) { packet.putU8(0, 0x80); });
  send(22, [](STPMessage&) {});
  send(0xFFFFFFF0, [](STPMessage&) {});
  EXPECT_EQ(log.text,
            "RECV: RegisterServiceList: name_list:{count:0x2 data:\"a\", \"\", }\n"
            "RECV: RegisterServiceList: name_list:{count:0x0 data:}\n"
            "RECV: ConnectionAcceptedEvent: serviceRN:0x0, remoteRN:0x0, accept:0x1\n");
}

}  // namespace
