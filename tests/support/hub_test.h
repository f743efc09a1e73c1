// The fixture of the tests against the real hub. It starts the hub in connect mode, so that the
// system picks every port: the test listens, the hub connects and becomes known by that link.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/hub_process.h"
#include "support/raw_peer.h"
#include "support/test_plugin.h"

using Plugin = CountedPtr<TestPlugin>;

inline constexpr std::int64_t kMiB = 1 << 20;

/// Waits for one client on a port of this machine that the system picks, told to `ready` before.
CountedPtr<STPTransport> awaitClient(const std::function<void(std::uint16_t)>& ready);
/// A port of this machine where nobody listens.
std::uint16_t freePort();

/// What a plugin hears that has asked for a service which nobody provides.
std::string failureReply(const std::string& service, int cookie);

/// A peer with an RN of its own, to which packets can be sent.
struct RawEnd {
  RawPeer peer;
  std::uint32_t rn;
};
using RawEnds = std::pair<RawEnd, RawEnd>;

class HubTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  /// Ends the hub, which must end well and must not have printed anything.
  void TearDown() override;

  /// Starts the hub with further options; `first` is the plugin that it connects to.
  void startHub(std::vector<std::string> options = {}, int softLimit = 0);
  /// A connected plugin from which nothing has been read yet.
  Plugin connectPlugin();
  /// A plugin that knows its ID.
  Plugin join();
  /// A peer that knows its ID.
  RawPeer joinRaw(bool byLocalRoad = false);
  /// One RN of a peer's own.
  static std::int32_t reserveRN(RawPeer& peer);
  RawEnds joinTwo(bool byLocalRoad = false);
  /// Lets the hub do all that was sent to it before, as far as it has come.
  void settle() { first->counts(); }
  /// Serves the plugins until `done`; false if that takes too long.
  static bool await(const std::function<bool()>& done);
  /// A side of an interface on the link of a service that the hub itself provides, at its own end.
  template <class Side>
  static CountedPtr<Side> openOfHub(const Plugin& plugin, const char* service, int hubEnd) {
    plugin->ask(service, 1);
    const std::string reply = plugin->next(), expected = std::string("'") + service + "' ";
    const std::size_t place = reply.find(expected);
    const int rn = place == reply.npos ? 0 : std::atoi(&reply[place + expected.size()]);
    EXPECT_EQ(reply, "ConnectionReplyEvent " + expected + std::to_string(rn) + " 1 0 1 " +
                         std::to_string(hubEnd) + " 0 null 1");
    const auto side = makeCounted<Side>();
    side->setTransport(plugin->getTransport(), rn, hubEnd);
    plugin->getTransport()->redispatchUnclaimed(hubEnd, rn, STP_NEGOTIATION);
    side->sendNegotiate(false, nullptr, nullptr);
    EXPECT_TRUE(await([&] { return side->isNegotiated(); }));
    plugin->counts();
    return side;
  }
  /// Waits until the hub has no more memory than that, but for what the allocator and the stores of
  /// blocks keep.
  void awaitMemory(std::int64_t bytes) const;
  /// Waits until the hub, asked by `asker` or `first`, counts that many plugins: "persistent/all".
  void awaitCounts(const std::string& counts, const Plugin& asker = Plugin());

  const Scratch directory;
  std::string executable = HubProcess::builtExecutable();
  std::string expectedPrint;  // what the hub may print
  bool isShared = false;      // the hub to be started leaves its record in `directory`
  std::unique_ptr<HubProcess> hub;
  std::uint16_t port = 0;  // the hub's
  Plugin first;
};
