// A requester and its provider that die at the same moment, so that the hub sees both deaths in one
// pass, in each state of the request.
#include <gtest/gtest.h>

#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"
#include "platform/sim/world.h"
#include "services/hublink/hublink.h"

namespace {

using Outcome = ServiceReply::Outcome;
using platform::sim::Process;

enum State { requestWaits, answerIsOwed, linkIsUp };

class TogetherTest : public testing::TestWithParam<std::tuple<State, bool, bool>> {
 protected:
  Process& start(const std::function<void(HublinkPlugin&)>& body) {
    Process& process = world.start("it", [this, body](const auto&) {
      HublinkPlugin plugin;
      std::string error;
      if (!plugin.connect(port, error)) return 1;
      body(plugin);
      plugin.run();
      return 0;
    });
    world.settle();
    return process;
  }
  Process& startProvider(State state) {
    return start([state](HublinkPlugin& plugin) {
      std::vector<std::shared_ptr<HublinkLink>> links;
      const auto keep = [&](const std::shared_ptr<HublinkLink>& link) { links.push_back(link); };
      const auto accept = [state](const auto&) {
        if (state == answerIsOwed) platform::sleepMilliseconds(1000000);
        return true;
      };
      if (state != requestWaits) plugin.registerService("svc", keep, accept);
      plugin.run();
    });
  }
  // Asks the plugin of that number as soon as it may.
  Process& startRequester(std::int32_t provider) {
    return start([this, provider](HublinkPlugin& plugin) {
      plugin.serveUntil([this] { return mayAsk; }, -1);
      std::shared_ptr<HublinkLink> link;
      ServiceQuery query;
      query.serviceName = "svc";
      query.providingPluginID = provider;
      plugin.requestService(query, [&](const ServiceReply& reply) {
        if (plugin.isConnected()) outcomes.push_back(reply.outcome);
        link = reply.link;
        if (link) link->onEnd([&] { endedLinks += plugin.isConnected(); });
      });
      plugin.run();
    });
  }

  platform::sim::World world;
  const ServiceDatabase database{};
  std::uint16_t port = 0;
  std::vector<std::int32_t> plugins;  // after each of the hub's passes
  bool mayAsk = false;
  // Of those that live.
  std::vector<Outcome> outcomes;
  int endedLinks = 0;
};

TEST_P(TogetherTest, LeaveNothingBehind) {
  const auto [state, requesterComesFirst, requesterDiesFirst] = GetParam();
  world.start("hub", [this](const auto&) {
    Hublink hub(database, 0, nullptr, nullptr);
    hub.startListening(true, nullptr);
    port = hub.getPort();
    while (!platform::stopRequested()) {
      hub.servicePass(500);
      plugins.push_back(hub.numPlugins());
    }
    return 0;
  });
  world.settle();
  const std::int32_t providerID = requesterComesFirst ? 3 : 2;
  Process& witness = startRequester(providerID);
  Process& early = requesterComesFirst ? startRequester(providerID) : startProvider(state);
  Process& late = requesterComesFirst ? startProvider(state) : startRequester(providerID);
  mayAsk = true;
  for (Process* requester : {&witness, &early, &late}) world.wake(*requester);
  world.settle();
  const std::vector<Outcome> accepted(state == linkIsUp ? 2 : 0, Outcome::accepted);
  EXPECT_EQ(outcomes, accepted);

  ASSERT_EQ(plugins.back(), 3);
  plugins.clear();
  const bool earlyDiesFirst = requesterComesFirst == requesterDiesFirst;
  world.kill(earlyDiesFirst ? early : late);
  world.kill(earlyDiesFirst ? late : early);
  world.settle();
  EXPECT_EQ(plugins.front(), 1) << "one pass saw both";
  EXPECT_EQ(plugins.back(), 1);
  // The witness is told of the provider, and only of that.
  EXPECT_EQ(endedLinks, state == linkIsUp ? 1 : 0);
  const Outcome gone[] = {Outcome::notFound, Outcome::lostProvider, Outcome::accepted};
  EXPECT_EQ(outcomes.size(), state == linkIsUp ? 2u : 1u);
  EXPECT_EQ(outcomes.back(), gone[state]);

  // Nothing of them is found any more.
  outcomes.clear();
  startRequester(providerID);
  startRequester(-1);
  EXPECT_EQ(outcomes, std::vector(2, Outcome::notFound));
  startProvider(linkIsUp);
  startRequester(-1);
  EXPECT_EQ(outcomes.back(), Outcome::accepted);
  world.endAll();
  EXPECT_EQ(world.fault(), "");
}

INSTANTIATE_TEST_SUITE_P(Each, TogetherTest,
                         testing::Combine(testing::Values(requestWaits, answerIsOwed, linkIsUp),
                                          testing::Bool(), testing::Bool()));

}  // namespace
