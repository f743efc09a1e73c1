#include "support/hub_test.h"

#include "platform/clock.h"
#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/transport/stp_socket.h"

CountedPtr<STPTransport> awaitClient(const std::function<void(std::uint16_t)>& ready) {
  auto transport = makeCounted<STPTransport>();
  std::uint16_t listening = 0;
  const int socket = getFreeListenSocket(&listening, nullptr, true);
  ready(listening);
  TimeoutSTPRetryHandler retry(transport.get(), kPatience);
  transport->listenOnFD(socket, true, &retry);
  EXPECT_TRUE(transport->isConnected()) << transport->status().message;
  return transport;
}

std::uint16_t freePort() {
  std::uint16_t port = 0;
  closeListenSocket(getFreeListenSocket(&port, nullptr, true), nullptr);
  return port;
}

std::string failureReply(const std::string& service, int cookie) {
  return "ConnectionReplyEvent '" + service + "' -1 0 0 0 0 -1 null " + std::to_string(cookie);
}

void HubTest::SetUpTestSuite() {
  platform::raiseDescriptorLimit();
  platform::ignoreBrokenPipe();
}

void HubTest::TearDown() {
  TestPlugin::hubProcess = 0;
  if (!hub) return;
  hub->terminate();
  EXPECT_EQ(hub->waitForEnd(), 0);
  EXPECT_EQ(hub->printed(), expectedPrint);
}

void HubTest::startHub(std::vector<std::string> options, int softLimit) {
  const auto link = awaitClient([&](std::uint16_t listening) {
    std::vector<std::string> arguments{"-connect_hublink", std::to_string(listening)};
    if (!isShared) arguments.emplace_back("-not_shared");
    arguments.insert(arguments.end(), options.begin(), options.end());
    hub = std::make_unique<HubProcess>(arguments, directory, softLimit, executable);
  });
  ASSERT_TRUE(link->isConnected());
  TestPlugin::hubProcess = hub->id();
  first = makeCounted<TestPlugin>(link.get());
  std::string line;
  do line = first->next();
  while (line == "StartLogging");
  ASSERT_EQ(line, "PluginId 1");
  first->RequestLocation();
  line = first->next();
  ASSERT_EQ(line.rfind("LocationEvent ", 0), 0u) << line;
  port = static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(' '))));
}

Plugin HubTest::connectPlugin() {
  auto link = makeCounted<STPTransport>();
  link->connect("127.0.0.1", port);
  EXPECT_TRUE(link->isConnected());
  return makeCounted<TestPlugin>(link.get());
}

Plugin HubTest::join() {
  Plugin plugin = connectPlugin();
  EXPECT_GT(plugin->nextNumber("PluginId"), 1);
  return plugin;
}

RawPeer HubTest::joinRaw(bool byLocalRoad) {
  RawPeer peer(port, byLocalRoad);
  EXPECT_GT(peer.negotiate(), 1u);
  return peer;
}

std::int32_t HubTest::reserveRN(RawPeer& peer) {
  peer.send(hubMessageBytes("ReserveRNBlock", Numbers{{"count", 1}}));
  auto message = peer.next().read();
  STPReceivedMessage::Range saved;
  message.enterStruct(tag("rn_list"), saved);
  std::int32_t countAndRN[2]{};
  message.getArray(tag("data"), countAndRN, 2, 4);
  return countAndRN[1];
}

RawEnds HubTest::joinTwo(bool byLocalRoad) {
  const auto join = [this, byLocalRoad] {
    RawPeer peer = joinRaw(byLocalRoad);
    const auto rn = static_cast<std::uint32_t>(reserveRN(peer));
    return RawEnd{std::move(peer), rn};
  };
  RawEnd one = join();
  return {std::move(one), join()};
}

// The sanitizers' allocator keeps what is freed.
void HubTest::awaitMemory([[maybe_unused]] std::int64_t bytes) const {
#ifndef HUBLINK_SANITIZE
  const std::int64_t most = bytes + 12 * kMiB;
  std::int64_t now = 0;
  await([&] { return (now = hub->residentBytes()) <= most; });
  EXPECT_LE(now, most);
#endif
}

bool HubTest::await(const std::function<bool()>& done) {
  const std::uint64_t end = platform::monotonicMilliseconds() + kPatience;
  while (!done()) {
    if (platform::monotonicMilliseconds() > end) return false;
    TestPlugin::serveAll(0);
  }
  return true;
}

void HubTest::awaitCounts(const std::string& counts, const Plugin& asker) {
  std::string seen;
  await([&] { return (seen = (asker ? asker : first)->counts()) == counts; });
  EXPECT_EQ(seen, counts);
}
