// A bridge's connections to a real hub: packets that pass a stand-in unread, and the list of what
// is exported, which follows the hub.
#include <array>
#include <cstring>

#include "services/hublink_bridge/exports.h"
#include "services/hublink_bridge/stand_in.h"
#include "stp_transport/wire/stp_wire.h"
#include "support/hub_test.h"

namespace bridge {
namespace {

class HubSideTest : public HubTest, public StandInListener {
 protected:
  void SetUp() override { startHub(); }
  void packetsArrived(StandIn& from, std::int32_t localRN, const unsigned char* packets,
                      std::int64_t size) override {
    EXPECT_EQ(localRN, standInRN);
    arrived.insert(arrived.end(), packets, packets + size);
    if (holdsAfter >= 0 && static_cast<std::int64_t>(arrived.size()) > holdsAfter)
      from.setHeld(localRN, true);
  }
  void valueAsked(StandIn&, std::int32_t, const std::string& name,
                  HublinkPlugin::ValueAnswer answer) override {
    asked = name;
    answerLater = std::move(answer);
  }
  void connectAll() {
    std::string error;
    ASSERT_TRUE(standIn.connect(port, error)) << error;
    ASSERT_TRUE(user.connect(port, error)) << error;
    ASSERT_TRUE(standIn.plugin().registerService("Abroad", [this](const auto& link) {
      standInLink = link;
      standInRN = link->localRN();
    }));
    ServiceQuery query;
    query.serviceName = "Abroad";
    user.requestService(query, [this](const ServiceReply& reply) { userLink = reply.link; });
    ASSERT_TRUE(both([&] { return userLink && standInLink; }));
  }
  bool both(const std::function<bool()>& done) {
    return user.serveUntil(
        [&] {
          do standIn.plugin().serve(0);
          while (standIn.plugin().nextTimeout() == 0);
          return done();
        },
        kPatience);
  }

  StandIn standIn{*this};
  HublinkPlugin user;
  std::shared_ptr<HublinkLink> userLink, standInLink;
  std::int32_t standInRN = -1;
  std::vector<unsigned char> arrived;
  std::int64_t holdsAfter = -1;
  std::string asked;
  HublinkPlugin::ValueAnswer answerLater;
};

TEST_F(HubSideTest, PacketsPassUnread) {
  connectAll();
  std::vector<unsigned char> answers;
  userLink->onPacket([&](const unsigned char* packet, std::size_t length) {
    answers.insert(answers.end(), packet, packet + length);
  });
  for (const std::size_t size : {1U, 2U, 100U, 70000U}) {
    const std::vector<unsigned char> bytes(size, 0xAB);
    ASSERT_TRUE(userLink->send(bytes.data(), size));
    user.flush();
    const std::size_t before = arrived.size();
    ASSERT_TRUE(both([&] { return arrived.size() >= before + size; }));
    // The same comes back, with the RNs of the other way.
    std::vector<unsigned char> back(arrived.begin() + static_cast<std::ptrdiff_t>(before),
                                    arrived.end());
    ASSERT_EQ(back.size() % 4, 0U);
    const std::uint32_t own = stpReadWord(back.data() + STP_DESTINATION_OFFSET);
    std::memcpy(back.data() + STP_DESTINATION_OFFSET, back.data() + STP_SOURCE_OFFSET, 4);
    std::memcpy(back.data() + STP_SOURCE_OFFSET, &own, 4);
    const std::uint64_t place = standIn.send(back.data(), back.size());
    standIn.plugin().flush();
    ASSERT_TRUE(both([&] { return standIn.written() >= place && !answers.empty(); }));
    EXPECT_EQ(std::exchange(answers, {}), bytes);
  }
}

TEST_F(HubSideTest, AHeldOneIsNotReadAndItsEndIsSeen) {
  connectAll();
  holdsAfter = 0;
  const std::vector<unsigned char> bytes(1000, 1);
  int sent = 0;
  user.setSendLimit(0);
  for (; sent < 64; ++sent) ASSERT_TRUE(userLink->send(bytes.data(), bytes.size()));
  user.flush();
  ASSERT_TRUE(both([&] { return !arrived.empty(); }));
  // A question that is answered shows that the hub has gone on, and nothing has come meanwhile.
  const std::size_t before = arrived.size();
  ASSERT_TRUE(user.countPlugins());
  standIn.plugin().serve(0);
  EXPECT_EQ(arrived.size(), before);
  holdsAfter = -1;
  standIn.setHeld(standInRN, false);
  ASSERT_TRUE(both([&] { return arrived.size() >= bytes.size() * 64; }));
  standIn.setHeld(standInRN, true);
  bool hasEnded = false;
  standInLink->onEnd([&] { hasEnded = true; });
  hub.reset();
  EXPECT_TRUE(both([&] { return hasEnded || !user.isConnected(); }));
  while (!hasEnded && standIn.plugin().serve(kPatience)) continue;
  EXPECT_TRUE(hasEnded);
  startHub();
}

TEST_F(HubSideTest, AValueIsAnsweredWheneverItIsThere) {
  connectAll();
  std::optional<std::string> value;
  bool isAnswered = false;
  user.requestValue(standIn.plugin().pluginID(), "color", [&](const auto& answer) {
    value = answer;
    isAnswered = true;
  });
  ASSERT_TRUE(both([&] { return !asked.empty(); }));
  ASSERT_TRUE(user.countPlugins());
  EXPECT_FALSE(isAnswered);
  answerLater("blue");
  ASSERT_TRUE(both([&] { return isAnswered; }));
  EXPECT_EQ(asked, "color");
  EXPECT_EQ(value, "blue");
}

TEST_F(HubSideTest, ExportsFollowTheHub) {
  int changes = 0;
  HublinkPlugin watching;
  Exports exports({"Abr*", "hublink.*", "Named"}, {"col*"}, [&] { ++changes; });
  std::string error;
  ASSERT_TRUE(watching.connect(port, error)) << error;
  ASSERT_TRUE(exports.watch(watching, error)) << error;
  connectAll();
  const std::int32_t other = user.registerService("Other", [](const auto&) {});
  ASSERT_NE(other, -1);
  ASSERT_TRUE(watching.serveUntil([&] { return exports.services().size() == 1; }, kPatience));
  EXPECT_EQ(exports.services()[0].name, "Abroad");
  EXPECT_EQ(exports.services()[0].pluginID, standIn.plugin().pluginID());
  EXPECT_TRUE(exports.isProvider(standIn.plugin().pluginID(), "Abroad"));
  EXPECT_FALSE(exports.isProvider(standIn.plugin().pluginID(), "Abracadabra"));
  EXPECT_FALSE(exports.isProvider(user.pluginID(), "Abroad"));
  EXPECT_FALSE(exports.isExported("hublink.status"));
  EXPECT_FALSE(exports.mayBeStarted("Abroad"));
  EXPECT_TRUE(exports.mayBeStarted("Named"));
  EXPECT_TRUE(exports.isValueExported("color"));
  EXPECT_FALSE(exports.isValueExported("name"));
  standIn.plugin().disconnect();
  ASSERT_TRUE(watching.serveUntil([&] { return exports.services().empty(); }, kPatience));
  EXPECT_EQ(changes, 2);
}

}  // namespace
}  // namespace bridge
