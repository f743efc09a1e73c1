// Interfaces as authors of plugins have them, on links through a real hub. Both plugins stand in
// this process, and each serves the other while it waits.
#include "hublink_plugin/interface_side.h"

#include <gtest/gtest.h>

#include <limits>

#include "desk.h"
#include "desk_client_impl.h"
#include "desk_server_impl.h"
#include "desktwo.h"
#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"
#include "support/hub_test.h"

namespace {

using hublink::Failure;
using hublink::Result;

/// What the provider's objects tell the test.
struct Watch {
  std::vector<desk::Server*> servers;
  int ends = 0;
  std::string log;
  std::vector<desk::Sheet> sheets;
  std::function<void(desk::Server&)> onSum = [](desk::Server&) {};
};

class Server : public desk::Server {
 public:
  explicit Server(Watch* watch) : watch_(*watch) { watch_.servers.push_back(this); }
  ~Server() override { std::erase(watch_.servers, this); }

 protected:
  void onSheet(const desk::Sheet& sheet) override { watch_.sheets.push_back(sheet); }
  Result<desk::SumReply> onSum(const desk::Sum& call) override {
    watch_.onSum(*this);
    if (call.a < 0) return hublink::refuse("below 0");
    return desk::SumReply{.sum = call.a + call.b,
                          .fits = true,
                          .small = UINT16_MAX,
                          .large = UINT64_MAX,
                          .quotient = 0.1,
                          .share = 0.5F,
                          .said = "ä",
                          .why = call.b == 0 ? std::nullopt : std::optional<std::string>("")};
  }
  Result<desk::BounceReply> onBounce(const desk::Bounce& call) override {
    if (call.times == 0) return desk::BounceReply{};
    const auto back = this->back({.left = call.times - 1}, kPatience);
    if (!back) return back.error();
    return desk::BounceReply{.turns = back->turned + 1};
  }
  Result<desk::LinkReply> onLink(const desk::Link&) override {
    return hublink::refuse(std::string(2 << 20, 'x'));
  }
  void onEnd() override {
    ++watch_.ends;
    watch_.log += '.';
  }

 private:
  Watch& watch_;
};

class Client : public desk::Client {
 public:
  std::string notes;
  std::function<void()> onEachNote = [] {};

 protected:
  Result<desk::BackReply> onBack(const desk::Back& call) override {
    const auto there = bounce({.times = call.left}, kPatience);
    if (!there) return there.error();
    return desk::BackReply{.turned = there->turns + 1};
  }
  void onNote(const desk::Note& note) override {
    notes += note.text;
    onEachNote();
  }
  void onLater(const desk::Later& later) override { notes += later.text; }
  using desk::Client::onEnd;
  void onEnd() override { notes += '.'; }
};

class InterfaceTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    std::string error;
    ASSERT_TRUE(provider.connect(port, error, "127.0.0.1", kPatience)) << error;
    ASSERT_TRUE(requester.connect(port, error, "127.0.0.1", kPatience)) << error;
    serveOther(provider, requester);
    serveOther(requester, provider);
  }
  // Whenever the one waits, be it within a call of the other.
  void serveOther(HublinkPlugin& plugin, HublinkPlugin& other) {
    plugin.callLater(1, [&plugin, &other, this] {
      serveOther(plugin, other);
      if (areServed) other.serve(0);
    });
  }
  template <class Handler>
  void provide(Handler&& handler) {
    ASSERT_NE(provider.registerService("Desk", std::forward<Handler>(handler), {}, kPatience), -1);
  }
  std::shared_ptr<HublinkLink> newLink() {
    const auto link = hublink::findLink(requester, "Desk", kPatience);
    EXPECT_TRUE(link) << link.text();
    return *link;
  }
  std::unique_ptr<Client> newClient() {
    auto client = std::make_unique<Client>();
    client->attach(newLink());
    return client;
  }
  void serveUntil(const std::function<bool()>& done) {
    EXPECT_TRUE(requester.serveUntil(done, kPatience));
  }

  Watch watch;
  bool areServed = true;
  HublinkPlugin provider;
  HublinkPlugin requester;
};

template <class Reply>
std::string outcome(const Result<Reply>& result) {
  return result ? "good" : hublink::failureText(result.failure());
}

TEST_F(InterfaceTest, CarriesEveryKindOfFieldAndItsLimits) {
  provide(hublink::serveWith<Server>(&watch));
  const auto client = newClient();
  const std::string text(70000, 'x');
  const desk::Sheet full{
      .flag = true,
      .half = UINT16_MAX,
      .number = INT32_MIN,
      .wide = UINT64_MAX,
      .single = std::numeric_limits<float>::lowest(),
      .real = std::numeric_limits<double>::denorm_min(),
      .text = text,
      .remark = "",
      .file = "/a/b",
      .corner = {.x = -0.5, .inner = {.y = INT32_MAX, .label = "l"}, .marks = {0, 1, UINT16_MAX}},
      .names = {"", "b", text},
      .notes = {std::nullopt, "", "n"},
      .files = {"/x", ""},
      .between = 7,
      .loose = {1, UINT64_MAX},
      .bytes = {0, 255, 1},
      .reals = {1.5, std::numeric_limits<double>::infinity()},
      .flags = {0, 1, 255},
      .floats = {0.25F}};
  EXPECT_TRUE(client->sheet(full));
  EXPECT_TRUE(client->sheet({}));
  EXPECT_TRUE(client->sheet({.file = "relative"}));
  serveUntil([&] { return watch.sheets.size() == 3; });
  EXPECT_EQ(watch.sheets[0], full);
  EXPECT_EQ(watch.sheets[1], desk::Sheet{});
  EXPECT_TRUE(watch.sheets[2].file.starts_with('/') && watch.sheets[2].file.ends_with("/relative"));

  const auto sum = client->sum({.a = 40, .b = 2});
  ASSERT_TRUE(sum) << sum.text();
  EXPECT_EQ(*sum, (desk::SumReply{.sum = 42,
                                  .fits = true,
                                  .small = UINT16_MAX,
                                  .large = UINT64_MAX,
                                  .quotient = 0.1,
                                  .share = 0.5F,
                                  .said = "ä",
                                  .why = ""}));
  EXPECT_EQ(client->sum({.a = 1})->why, std::nullopt);

  EXPECT_EQ(client->sheet({.text = std::string("a\0b", 3)}).failure(), Failure::badValue);
  EXPECT_EQ(client->sheet({.text = std::string(256 << 20, 'y')}).failure(), Failure::tooLarge);
  EXPECT_TRUE(client->sum({}));
  EXPECT_EQ(watch.sheets.size(), 3u);
}

TEST_F(InterfaceTest, CallsGoBothWaysAndRefusalsAreTold) {
  provide(hublink::serveWith<Server>(&watch));
  const auto client = newClient();
  EXPECT_EQ(client->bounce({.times = 5})->turns, 5 + 5);
  const auto refused = client->sum({.a = -1});
  EXPECT_EQ(outcome(refused), "refused");
  EXPECT_EQ(refused.text(), "below 0");
  EXPECT_EQ(refused->sum, 0);
  // A text of any length says why, if not all of it.
  EXPECT_EQ(client->Client::link({}).text().substr(0, 3), "xxx");
  // What may only come in the chain of the call, but comes from outside, waits for its end.
  watch.onSum = [](desk::Server& server) { EXPECT_TRUE(server.note({.text = "in "})); };
  requester.callLater(0, [&] { EXPECT_TRUE(watch.servers.front()->later({.text = "behind"})); });
  EXPECT_TRUE(client->sum({}));
  EXPECT_EQ(client->notes, "in ");
  serveUntil([&] { return client->notes == "in behind"; });
  EXPECT_TRUE(client->knows("Sum"));
  EXPECT_FALSE(client->knows("Nothing"));
  EXPECT_TRUE(client->knowsField("corner"));
  EXPECT_FALSE(client->knowsField("nothing"));
  EXPECT_EQ(client->peerPluginID(), provider.pluginID());
}

TEST_F(InterfaceTest, HandlersGetTheAnswersOfCallsThatNobodyWaitsFor) {
  provide(hublink::serveWith<Server>(&watch));
  const auto client = newClient();
  std::string log;
  const auto logged = [&](const Result<desk::SumReply>& reply) {
    log += (reply ? std::to_string(reply->sum) : reply.text()) + ",";
  };
  // Before the provider's record has come, and behind.
  client->sum({.a = 1, .b = 2}, logged);
  client->sum({.a = -1}, logged);
  client->sum({.a = 2}, nullptr);
  EXPECT_EQ(log, "");
  serveUntil([&] { return log == "3,below 0,"; });
  client->sum({.a = 4}, logged);
  EXPECT_EQ(client->sum({.a = 5})->sum, 5) << "the answer to a call that is waited for";
  EXPECT_EQ(log, "3,below 0,4,");

  // The server doesn't answer in time; its answer, which comes then, is nobody's.
  watch.onSum = [&](desk::Server&) {
    provider.serveUntil([&] { return log.ends_with("!"); }, kPatience);
  };
  client->sum(
      {}, [&](const auto& reply) { log += outcome(reply) + "!"; }, 50);
  serveUntil([&] { return log.ends_with("timed out!"); });
  watch.onSum = [](desk::Server&) {};
  EXPECT_EQ(client->sum({.a = 6})->sum, 6);

  // The link goes with calls open. Handlers are told, in their order.
  log.clear();
  watch.onSum = [&](desk::Server& server) { server.link()->close(); };
  client->sum({}, [&](const auto& reply) { log += outcome(reply) + ","; });
  client->sum({}, [&](const auto& reply) { log += outcome(reply) + ","; });
  serveUntil([&] { return !client->isUp(); });
  EXPECT_EQ(log, "the link has ended,the link has ended,");
  client->sum({}, [&](const auto& reply) { log = outcome(reply); });
  EXPECT_EQ(log, "the link has ended");
  EXPECT_EQ(client->notes, ".");
}

// A limit holds for all of a call: the wait for the provider's record, and that for the answer.
TEST_F(InterfaceTest, LimitsAreKept) {
  std::shared_ptr<HublinkLink> silent;
  const auto elapsed = [](auto&& call) {
    const std::uint64_t start = platform::monotonicMilliseconds();
    call();
    return platform::monotonicMilliseconds() - start;
  };
  provide([&](const auto& link) { silent = link; });
  const auto client = newClient();
  std::string log;
  client->sum(
      {}, [&](const auto& reply) { log = outcome(reply); }, 100);
  EXPECT_GE(elapsed([&] { EXPECT_EQ(outcome(client->sum({}, 150)), "timed out"); }), 149u);
  EXPECT_EQ(log, "timed out") << "meanwhile";
  EXPECT_EQ(outcome(client->find({.what = "x"}, 0)), "timed out");
  EXPECT_FALSE(client->knows("Sum", 10));

  // The record comes late, and the answer not at all.
  Server late(&watch);
  requester.callLater(150, [&] {
    late.attach(silent);
    provider.flush();
    areServed = false;
  });
  const std::uint64_t waited = elapsed([&] {
    const auto sum = client->sum({}, 300);
    EXPECT_EQ(sum.text(),
              "Sum: no answer of plugin " + std::to_string(provider.pluginID()) + " within 300 ms");
  });
  EXPECT_GE(waited, 299u);
  EXPECT_LT(waited, 5000u);
  areServed = true;
  EXPECT_EQ(client->sum({.a = 1})->sum, 1);

  const auto nobody = hublink::find<Client>(requester, "Nobody", 60);
  EXPECT_EQ(nobody.failure(), Failure::notFound);
  EXPECT_EQ(nobody.text(), "Nobody: not found");
}

TEST_F(InterfaceTest, ObjectsLiveAsLongAsTheirLinksAndMayGoAtAnyTime) {
  provide(hublink::serveWith<Server>(&watch));
  auto client = newClient();
  EXPECT_TRUE(client->sum({}));
  EXPECT_EQ(watch.servers.size(), 1u);
  client.reset();
  serveUntil([&] { return watch.servers.empty() && watch.ends == 1; });

  // In a handler, while a call of its own waits below it.
  client = newClient();
  Client* only = client.get();
  only->onEachNote = [&] { client.reset(); };
  watch.onSum = [&](desk::Server& server) {
    server.note({.text = "go"});
    provider.serveUntil([&] { return !client; }, kPatience);
  };
  EXPECT_EQ(outcome(only->sum({})), "the link has ended");
  EXPECT_FALSE(client);
  // In the handler of an answer, with another call open, which isn't told.
  watch.onSum = [](desk::Server&) {};
  client = newClient();
  int answers = 0;
  for (int i = 0; i < 2; ++i)
    client->sum({}, [&](const auto&) {
      ++answers;
      client.reset();
    });
  serveUntil([&] { return !client && watch.servers.empty(); });
  EXPECT_EQ(answers, 1);

  // The provider goes in a call, with a message on its way that waits for the end of the call.
  client = newClient();
  EXPECT_TRUE(client->sum({}));
  areServed = false;
  requester.callLater(0, [&] {
    EXPECT_TRUE(watch.servers.front()->later({.text = "last"}));
    provider.disconnect();
    areServed = true;
  });
  const std::uint64_t start = platform::monotonicMilliseconds();
  EXPECT_EQ(outcome(client->sum({})), "the link has ended");
  EXPECT_LT(platform::monotonicMilliseconds() - start, 5000u);
  EXPECT_EQ(client->notes, "last.");
  EXPECT_EQ(client->sum({}).text(),
            "Sum: the link to plugin " + std::to_string(client->peerPluginID()) + " has ended");
  serveUntil([&] { return watch.servers.empty(); });
}

class SecondServer : public desktwo::Server {
 public:
  explicit SecondServer(std::string* texts) : texts_(*texts) {}

 protected:
  void onSheet(const desktwo::Sheet& sheet) override {
    texts_ += sheet.text + std::to_string(sheet.added) + std::to_string(sheet.corner.x);
    for (const std::string& name : sheet.names.data) texts_ += name;
    note({.text = knows("News") ? "?" : "old", .from = 2});
  }
  Result<desktwo::SumReply> onSum(const desktwo::Sum& call) override {
    if (call.a < 0) return hublink::refuse("below 0");
    return desktwo::SumReply{.product = call.a * call.b, .sum = call.a + call.b + call.c};
  }
  Result<desktwo::ExtraReply> onExtra(const desktwo::Extra&) override {
    return desktwo::ExtraReply{.extra = 1};
  }

 private:
  std::string& texts_;
};

TEST_F(InterfaceTest, VersionsMeetByName) {
  std::string texts;
  provide(hublink::serveWith<SecondServer>(&texts));
  const auto client = newClient();
  EXPECT_EQ(client->sum({.a = 2, .b = 3})->sum, 5);
  EXPECT_EQ(client->sum({.a = -1}).text(), "below 0");
  EXPECT_EQ(client->bounce({.times = 1}).failure(), Failure::notSupported);
  EXPECT_EQ(client->find({}).text(),
            "plugin " + std::to_string(provider.pluginID()) + " doesn't take Find");
  EXPECT_TRUE(client->sheet({.number = 9, .text = "t", .corner = {.x = 1}, .names = {"n", "m"}}));
  serveUntil([&] { return client->notes == "old"; });
  EXPECT_EQ(texts, "t01.000000nm");
  EXPECT_FALSE(client->knowsField("number"));

  provider.disconnect();
  std::string error;
  ASSERT_TRUE(provider.connect(port, error, "127.0.0.1", kPatience)) << error;
  provide(hublink::serveWith<Server>(&watch));
  desktwo::Client second(newLink());
  const auto sum = second.sum({.a = 40, .b = 2, .c = 100});
  EXPECT_EQ(*sum, (desktwo::SumReply{.product = 0, .sum = 42, .said = "ä"}));
  EXPECT_EQ(second.extra({}).failure(), Failure::notSupported);
  EXPECT_TRUE(second.sheet({.added = 1, .text = "new", .names = {.data = {"x"}}}));
  serveUntil([&] { return watch.sheets.size() == 1; });
  EXPECT_EQ(watch.sheets[0], (desk::Sheet{.text = "new", .names = {"x"}}));
}

// The other side is in the hub's own style, and doesn't know of refusals.
class OldServer : public Desk_server_Impl {
 public:
  std::string seen;

 protected:
  void Sheet(bool, std::uint16_t, std::int32_t, std::uint64_t, float, double, const char* text,
             const char* remark, const char*, const char*, const Sheet_corner& corner,
             StringArray names, StringArray notes, StringArray, std::int32_t,
             STPArray<std::uint64_t>, STPArray<std::uint8_t> bytes, STPArray<double>,
             STPArray<std::uint8_t>, STPArray<float>) override {
    seen = std::string(text) + (remark ? "?" : "-") + corner.inner.label + names.data[0] +
           (notes.data[0] ? "?" : "-") + std::to_string(bytes.count);
  }
  void Sum(std::int32_t a, std::int32_t b, std::int32_t& sum, bool&, std::uint16_t&, std::uint64_t&,
           double&, float&, gen_text&, gen_text&) override {
    sum = a + b;
  }
  void Bounce(std::int32_t, std::int32_t&) override {}
  void Link() override {}
  void Find(const char*) override {}
};
class OldClient : public Desk_client_Impl {
 protected:
  void Back(std::int32_t, std::int32_t&) override {}
  void Note(const char*) override {}
  void Later(const char*) override {}
  void End(const char*) override {}
};

TEST_F(InterfaceTest, TalksToSidesInTheHubsOwnStyle) {
  const auto server = makeCounted<OldServer>();
  provide([&](const auto& link) {
    link->attach(server.get());
    server->sendNegotiate(false, nullptr, nullptr);
  });
  const auto client = newClient();
  const auto sum = client->sum({.a = -1, .b = 3});
  EXPECT_EQ(*sum, (desk::SumReply{.sum = 2}));
  EXPECT_TRUE(client->sheet({.text = "t",
                             .corner = {.inner = {.label = "l"}},
                             .names = {"n"},
                             .notes = {std::nullopt},
                             .bytes = {1, 2}}));
  serveUntil([&] { return server->seen == "t-ln-2"; });

  ASSERT_NE(provider.registerService("Own", hublink::serveWith<Server>(&watch), {}, kPatience), -1);
  const auto link = hublink::findLink(requester, "Own", kPatience);
  ASSERT_TRUE(link) << link.text();
  const auto old = makeCounted<OldClient>();
  (*link)->attach(old.get());
  old->sendNegotiate(false, nullptr, nullptr);
  serveUntil([&] { return old->isNegotiated(); });
  STPRetryHandler retry((*link)->isUp() ? old->getTransport() : nullptr);
  retry.setStep([&] { return requester.serve(1); });
  std::int32_t result = -1;
  bool fits = true;
  std::uint16_t half = 1;
  std::uint64_t large = 1;
  double quotient = 1;
  float share = 1;
  gen_text said, why;
  EXPECT_TRUE(
      old->Sum(-1, 1, &result, &fits, &half, &large, &quotient, &share, &said, &why, &retry));
  EXPECT_EQ(result, 0) << "the refusal reads as a reply of zeros";
}

}  // namespace
