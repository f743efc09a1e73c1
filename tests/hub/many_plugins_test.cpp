// A thousand plugins at once, from a shell whose limit on open files is far below that.
#include <set>

#include "support/hub_test.h"

using ManyPluginsTest = HubTest;

TEST_F(ManyPluginsTest, AThousandAtOnce) {
  startHub({}, 256);
  constexpr std::size_t kPlugins = 1000;
  std::vector<RawPeer> peers;
  for (std::size_t i = 0; i < kPlugins; ++i) {
    peers.emplace_back(port);
    ASSERT_TRUE(peers.back().send(negotiateBytes()));
  }
  std::set<std::uint32_t> ids;
  std::vector<std::uint32_t> rns;
  for (RawPeer& peer : peers) {
    ASSERT_FALSE(peer.next().isEmpty());
    ids.insert(peer.next().read().getU32(tag("plugin_id")));
    rns.push_back(static_cast<std::uint32_t>(reserveRN(peer)));
  }
  EXPECT_EQ(ids.size(), kPlugins);
  EXPECT_EQ(*ids.begin(), 2u);
  EXPECT_EQ(*ids.rbegin(), kPlugins + 1);
  EXPECT_EQ(first->counts(), "1001/1001");
  // Each sends to the next.
  for (std::size_t i = 0; i < kPlugins; ++i)
    peers[i].send(packetBytes({.destination = rns[(i + 1) % kPlugins]}, std::to_string(i)));
  for (std::size_t i = 0; i < kPlugins; ++i)
    ASSERT_EQ(peers[(i + 1) % kPlugins].next().payload(), std::to_string(i));
  peers.clear();
  awaitCounts("1/1");
}
