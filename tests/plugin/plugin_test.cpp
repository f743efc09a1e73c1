// The library for plugin authors against a real hub: two plugins in this process, each served while
// the other waits.
#include "hublink_plugin/hublink_plugin.h"

#include <gtest/gtest.h>

#include <thread>

#include "adder_client_impl.h"
#include "adder_server_impl.h"
#include "platform/clock.h"
#include "platform/readiness.h"
#include "support/hub_test.h"

namespace {

using Outcome = ServiceReply::Outcome;

class AdderServer : public Adder_server_Impl {
 public:
  std::function<void()> before;

 protected:
  void Add(std::int32_t a, std::int32_t b, std::int32_t& sum) override {
    if (before) before();
    sum = a + b;
    Total(sum);
  }
};

class AdderClient : public Adder_client_Impl {
 public:
  std::vector<std::int32_t> totals;

 protected:
  void Total(std::int32_t sum) override { totals.push_back(sum); }
};

// Serves two plugins while one of them waits.
struct ServeBoth : RetryHandler {
  ServeBoth(HublinkPlugin& first, HublinkPlugin& second)
      : RetryHandler(1000000 + kPatience), a(first), b(second) {}
  bool shouldRetry() override { return RetryHandler::shouldRetry() && a.isConnected(); }
  void wait() override {
    a.serve(1);
    b.serve(1);
  }
  HublinkPlugin &a, &b;
};

class PluginTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    std::string error;
    ASSERT_TRUE(provider.connect(port, error, "127.0.0.1", kPatience)) << error;
    ASSERT_TRUE(requester.connect(port, error, "127.0.0.1", kPatience)) << error;
  }
  void serveBoth(const std::function<bool()>& done) {
    EXPECT_TRUE(await([&] {
      provider.serve(1);
      requester.serve(1);
      return done();
    }));
  }
  ServiceReply request(const ServiceQuery& query, HublinkPlugin* asker = nullptr) {
    std::optional<ServiceReply> reply;
    (asker ? asker : &requester)->requestService(query, [&](const auto& answer) {
      reply = answer;
    });
    serveBoth([&] { return reply.has_value(); });
    return reply.value_or(ServiceReply());
  }
  ServiceReply request(const char* name, HublinkPlugin* asker = nullptr) {
    ServiceQuery query;
    query.serviceName = name;
    return request(query, asker);
  }

  HublinkPlugin provider;
  HublinkPlugin requester;
  std::shared_ptr<HublinkLink> provided;
};

TEST_F(PluginTest, LinksCarryPacketsAndEndOnBothSides) {
  std::vector<std::string> pairs;
  const std::int32_t rn = provider.registerService(
      "Echo", [&](const auto& link) { provided = link; },
      [&](const ConnectionRequest& asked) {
        pairs = asked.nameValuePairs;
        return asked.nameValuePairs.size() != 1;
      });
  ASSERT_GE(rn, 10);
  EXPECT_EQ(request("Nobody").outcome, Outcome::notFound);
  ServiceQuery query;
  query.serviceName = "Echo";
  query.nameValuePairs = {"alone"};
  EXPECT_EQ(request(query).outcome, Outcome::refused);
  query.nameValuePairs = {"name", "value"};
  const ServiceReply reply = request(query);
  ASSERT_EQ(reply.outcome, Outcome::accepted);
  EXPECT_EQ(pairs, query.nameValuePairs);
  EXPECT_EQ(reply.pluginID, provider.pluginID());
  EXPECT_EQ(reply.link->remoteRN(), rn);
  EXPECT_EQ(provided->remoteRN(), reply.link->localRN());

  // The first packets come before anybody listens for them.
  for (const std::size_t size : {0u, 1u, 3u, 4u, 70000u})
    EXPECT_TRUE(reply.link->send(std::string(size, 'z').data(), size));
  std::vector<std::size_t> sizes;
  reply.link->flush();
  HublinkLink::Packet packet;
  ASSERT_TRUE(provided->receive(packet, kPatience));
  EXPECT_TRUE(packet.empty());
  provided->onPacket([&](const unsigned char*, std::size_t size) { sizes.push_back(size); });
  serveBoth([&] { return sizes.size() == 4; });
  EXPECT_EQ(sizes, (std::vector<std::size_t>{1, 3, 4, 70000}));

  int ends = 0;
  provided->onEnd([&] { ++ends; });
  reply.link->close();
  EXPECT_FALSE(reply.link->send("x", 1));
  serveBoth([&] { return ends == 1; });
  EXPECT_FALSE(provided->isUp());
  EXPECT_FALSE(provided->receive(packet, 0));
}

TEST_F(PluginTest, AnInterfaceOfOnesOwnWorksOnALinkAndACallEndsWithIt) {
  const auto server = makeCounted<AdderServer>();
  const auto client = makeCounted<AdderClient>();
  ASSERT_NE(provider.registerService("Adder",
                                     [&](const auto& link) {
                                       provided = link;
                                       link->attach(server.get());
                                       server->sendNegotiate(false, nullptr, nullptr);
                                     }),
            -1);
  const ServiceReply reply = request("Adder");
  ASSERT_TRUE(reply.link);
  // The provider's record comes before the requester has an interface for it.
  ASSERT_TRUE(provider.countPlugins(kPatience) && requester.countPlugins(kPatience));
  reply.link->attach(client.get());
  EXPECT_TRUE(client->isNegotiated());
  ServeBoth both(requester, provider);
  STPStatus status;
  client->negotiate(&both, &status);
  ASSERT_TRUE(status.good()) << status.message;
  std::int32_t sum = 0;
  EXPECT_TRUE(client->Add(40, 2, &sum, &both, &status)) << status.message;
  EXPECT_EQ(sum, 42);
  serveBoth([&] { return client->totals.size() == 1; });
  EXPECT_EQ(client->totals, std::vector<std::int32_t>{42});

  server->before = [&] { provider.disconnect(); };
  const std::uint64_t start = platform::monotonicMilliseconds();
  EXPECT_FALSE(client->Add(1, 1, &sum, &both, &status));
  EXPECT_FALSE(status.good());
  EXPECT_LT(platform::monotonicMilliseconds() - start, 5000u) << "the call has waited for time";
  EXPECT_FALSE(reply.link->isUp());
}

// The answer to a call, a packet behind it, which is put off until the call has returned, and the
// end of the link come at once.
TEST_F(PluginTest, AllThatCameBeforeTheEndOfALinkIsHandedOver) {
  const auto server = makeCounted<AdderServer>();
  const auto client = makeCounted<AdderClient>();
  provider.registerService("Adder", [&](const auto& link) {
    provided = link;
    link->attach(server.get());
    server->sendNegotiate(false, nullptr, nullptr);
  });
  const ServiceReply reply = request("Adder");
  ASSERT_TRUE(reply.link);
  reply.link->attach(client.get());
  ServeBoth both(requester, provider);
  STPStatus status;
  client->negotiate(&both, &status);
  ASSERT_TRUE(status.good()) << status.message;
  bool isAsked = false;
  server->before = [&] { isAsked = true; };
  std::string heard;
  reply.link->onPacket([&](const unsigned char* bytes, std::size_t size) {
    heard.append(reinterpret_cast<const char*>(bytes), size);
  });
  reply.link->onEnd([&] { heard += '.'; });
  struct LastWords : RetryHandler {
    explicit LastWords(std::function<void()> body)
        : RetryHandler(1000000 + kPatience), once(std::move(body)) {}
    void wait() override {
      if (once) std::exchange(once, nullptr)();
    }
    std::function<void()> once;
  } lastWords([&] {
    await([&] { return provider.serve(1), isAsked; });
    provided->send("last", 4);
    provided->close();
    EXPECT_TRUE(provider.countPlugins(kPatience));
    requester.serve(kPatience);
  });
  std::int32_t sum = 0;
  client->Add(40, 2, &sum, &lastWords, &status);
  requester.serveUntil([&] { return !reply.link->isUp(); }, kPatience);
  EXPECT_EQ(heard, "last.");
}

// A program with a loop of its own goes by the descriptor and the time.
TEST_F(PluginTest, ServesInSomebodyElsesLoop) {
  ASSERT_NE(provider.registerService("Echo", [&](const auto& link) { provided = link; }), -1);
  const ServiceReply reply = request("Echo");
  ASSERT_TRUE(reply.link);
  const auto serveAll = [](HublinkPlugin& plugin) {
    while (plugin.nextTimeout() == 0) plugin.serve(0);
  };
  serveAll(requester);
  EXPECT_EQ(requester.nextTimeout(), -1);
  reply.link->send("x", 1);
  EXPECT_TRUE(requester.wantsWrite());
  EXPECT_EQ(requester.nextTimeout(), 0);
  serveAll(requester);
  EXPECT_FALSE(requester.wantsWrite());
  HublinkLink::Packet packet;
  EXPECT_TRUE(provided->receive(packet, kPatience));

  // A loop around the loop: the descriptor can be read as long as something is to be served.
  platform::ReadinessSet loop;
  loop.watch(requester.descriptor());
  const auto sleepAndServe = [&](int milliseconds) {
    bool failed = false;
    loop.forgetNews();
    EXPECT_TRUE(loop.wait(milliseconds, failed));
    requester.serve(0);
    return loop.hasNews();
  };
  while (sleepAndServe(0)) continue;
  std::thread([&] { requester.post([&] { reply.link->close(); }); }).join();
  EXPECT_TRUE(sleepAndServe(0));
  EXPECT_FALSE(reply.link->isUp());
  serveAll(requester);
  while (sleepAndServe(0)) continue;
  provider.disconnect();
  requester.callLater(1, [&] { requester.callLater(kPatience, {}); });
  EXPECT_GE(requester.nextTimeout(), 0);
  EXPECT_TRUE(await([&] { return requester.serve(1), requester.nextTimeout() > 1; }));
  bool isAnswered = false;
  requester.requestLocation([&](const auto&, std::int32_t) { isAnswered = true; });
  serveAll(requester);
  while (!isAnswered && sleepAndServe(kPatience)) serveAll(requester);
  EXPECT_TRUE(isAnswered);

  std::string error;
  HublinkPlugin nobody;
  EXPECT_FALSE(nobody.connect(freePort(), error, "127.0.0.1", 0));
  EXPECT_EQ(error, "[ConnectToServer]: connection refused");
  for (const auto& [number, result] : {std::pair("0x100", 256), {"65536", 0}, {"-1", 0}}) {
    const std::string words[] = {"x", "-HL_connect_hublink_port", number};
    char* argv[] = {const_cast<char*>(words[0].c_str()), const_cast<char*>(words[1].c_str()),
                    const_cast<char*>(words[2].c_str())};
    EXPECT_EQ(hublinkPortArgument(3, argv), result) << number;
  }
}

// Handlers may take away what they were called from.
TEST_F(PluginTest, HandlersMayCloseReplaceAndConnectAgain) {
  ASSERT_NE(provider.registerService("Echo", [&](const auto& link) { provided = link; }), -1);
  std::shared_ptr<HublinkLink> link = request("Echo").link;
  ASSERT_TRUE(link);
  provided->send("x", 1);
  provided->send("y", 1);
  provided->flush();
  HublinkLink::Packet packet;
  EXPECT_TRUE(link->receive(packet, kPatience));
  HublinkLink* const only = link.get();
  int packets = 0;
  const auto closing = [&](const unsigned char*, std::size_t) {
    ++packets;
    link->close();
    link.reset();
  };
  only->onPacket(closing);
  serveBoth([&] { return packets == 1 && !provided->isUp(); });

  const auto client = makeCounted<AdderClient>();
  link = request("Echo").link;
  ASSERT_TRUE(link);
  link->attach(client.get());
  provided->close();
  ServeBoth both(requester, provider);
  STPStatus status;
  client->negotiate(&both, &status);
  EXPECT_STREQ(status.message, "[awaitTags]: virtual connection is down");
  const auto late = makeCounted<AdderClient>();
  link->attach(late.get());
  EXPECT_FALSE(late->isVirtualConnectionUp());

  std::string seen;
  provider.onValueRequest([&, text = std::string("first")](const std::string&) {
    provider.onValueRequest({});
    return std::optional<std::string>(text);
  });
  requester.requestValue(provider.pluginID(), "any", [&](const auto& value) { seen = *value; });
  serveBoth([&] { return seen == "first"; });

  // What a handler asks and offers on a new connection isn't taken for the old one's.
  link = request("Echo").link;
  ASSERT_TRUE(link);
  std::int32_t rn = -1;
  int locations = 0;
  link->onEnd([&] {
    std::string error;
    EXPECT_TRUE(requester.connect(port, error, "127.0.0.1", kPatience)) << error;
    rn = requester.registerService("Back", {});
    requester.requestLocation([&](const auto&, std::int32_t at) { locations += at == port; });
  });
  requester.disconnect();
  EXPECT_NE(rn, -1);
  serveBoth([&] { return locations == 1; });
  EXPECT_EQ(request("Back", &provider).outcome, Outcome::accepted);
}

TEST_F(PluginTest, EveryQuestionIsAnsweredOnceAndALateAnswerUndone) {
  std::string answers;
  const auto askAll = [&](HublinkPlugin& plugin) {
    plugin.requestService({}, [&](const auto& reply) {
      if (reply.outcome == Outcome::disconnected) answers += 's';
    });
    plugin.reserveRNs(1, [&](const auto& list) { answers += list.empty() ? "r" : "?"; });
    plugin.requestLocation([&](const auto&, std::int32_t at) { answers += at == -1 ? "l" : "?"; });
    plugin.requestProvider("x", nullptr, false, [&](std::int32_t id) {
      if (id == -1) answers += 'p';
    });
    plugin.requestValue(1, "x", [&](const auto& value) {
      if (!value) answers += 'v';
    });
    plugin.requestPluginConnect("x", 1, [&](std::int32_t id, const auto&) {
      if (id == -1) answers += 'c';
    });
    std::sort(answers.begin(), answers.end());
  };
  HublinkPlugin plugin;
  plugin.setPersistent(false);
  askAll(plugin);
  EXPECT_EQ(answers, "clprsv") << "never connected";

  // A connection that closes outside of the plugin's own steps.
  const auto transport = makeCounted<STPTransport>();
  transport->connect("127.0.0.1", port);
  std::string error;
  ASSERT_TRUE(plugin.attach(transport.get(), error, kPatience)) << error;
  answers.clear();
  askAll(plugin);
  EXPECT_EQ(answers, "");
  transport->disconnect();
  EXPECT_FALSE(plugin.serve(0));
  EXPECT_FALSE(plugin.serve(0));
  std::sort(answers.begin(), answers.end());
  EXPECT_EQ(answers, "clprsv");

  const auto registerInNoTime = [&] { return provider.registerService("Late", {}, {}, 0); };
  for (std::int32_t rn = registerInNoTime(); rn != -1; rn = registerInNoTime())
    provider.unregisterService(rn);  // the hub was quicker
  bool there = false;
  const auto settle = [&] {
    there = false;
    provider.requestLocation([&](const auto&, std::int32_t) { there = true; });
    serveBoth([&] { return there; });
  };
  settle();  // the registration's answer comes before
  settle();  // the hub has taken in its withdrawal
  EXPECT_EQ(request("Late").outcome, Outcome::notFound);
}

TEST_F(PluginTest, ALinkThatNobodyWaitsForAnyMoreEndsAtOnce) {
  std::string heard;
  std::int32_t asked = -1;
  provider.registerService(
      "Slow", [&](const auto& link) { provided = link; },
      [&](const ConnectionRequest& request) {
        if (request.nameValuePairs.empty()) return requester.cancelRequest(asked);
        return requester.serveUntil([&] { return !heard.empty(); }, kPatience);
      });
  ServiceQuery query;
  query.serviceName = "Slow";
  query.nameValuePairs = {"wait"};
  const auto hear = [&](const ServiceReply& reply) { heard += outcomeText(reply.outcome); };
  requester.requestService(query, hear, 1);
  serveBoth([&] { return provided && !provided->isUp(); });
  provided.reset();
  query.nameValuePairs.clear();
  asked = requester.requestService(query, hear);
  serveBoth([&] { return provided && !provided->isUp(); });
  EXPECT_EQ(heard, "timed out");
}

}  // namespace
