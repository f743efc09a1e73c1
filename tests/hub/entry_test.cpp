// The command line, the ways in which the hub refuses to start, and those in which it ends.
#include <gmock/gmock.h>

#include <sstream>

#include "platform/clock.h"
#include "stp_transport/transport/stp_socket.h"
#include "support/hub_test.h"

using ::testing::HasSubstr;
using EntryTest = HubTest;

namespace {

std::string inBase(std::ios_base& (*base)(std::ios_base&), std::uint16_t number) {
  std::ostringstream text;
  text << std::showbase << base << number;
  return text.str();
}

}  // namespace

TEST_F(EntryTest, RefusesToStart) {
  std::uint16_t taken = 0;
  const int listener = getFreeListenSocket(&taken, nullptr, true);
  const std::string takenPort = std::to_string(taken);
  const std::string nobody = std::to_string(freePort());
  const std::string usage =
      "Usage: hublink [-port <port>|-connect_hublink <port>] [-log <log file>] [-hl_log_internal "
      "<log file> [-not_shared]\n";
  const std::string noPort =
      "Error: Must specify a port that the hublink listens on or connects to.\n";
  const std::string inUse =
      "Unable to setup transport layer, specified port may already be in use.\n";
  const std::string noPeer = "Unable to setup transport layer.\n";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, usage},
      {{"-port"}, "Error: Option -port needs a value.\n"},
      {{"-port", takenPort, "-LOG"}, "Error: Option -LOG needs a value.\n"},
      {{"-connect_hublink", nobody, "-hl_zone"}, "Error: Option -hl_zone needs a value.\n"},
      {{"-port", "0"}, noPort},
      {{"-port", "abc"}, noPort},
      {{"-not_shared"}, noPort},
      {{"port", takenPort, "--port", takenPort, "-por", takenPort}, noPort},
      {{"-log", "-port", takenPort}, noPort},
      {{"-port", takenPort}, inUse},
      {{"-PORT", inBase(std::hex, taken), "-unknown"}, inUse},
      {{"-port", inBase(std::oct, taken)}, inUse},
      {{"-port", " +" + takenPort + "x"}, inUse},
      {{"-connect_hublink", nobody}, noPeer},
      {{"-port", takenPort, "-connect_hublink", nobody, "-not_shared"}, noPeer},
      {{"-connect_hublink", takenPort, "-port", nobody}, noPeer},
  };
  for (const auto& [arguments, printed] : cases) {
    HubProcess refused(arguments, directory);
    EXPECT_EQ(refused.waitForEnd(), 1) << printed;
    EXPECT_EQ(refused.printed(), printed);
  }
  closeListenSocket(listener, nullptr);
}

TEST_F(EntryTest, ListeningHubWithoutRecordStopsAfterOnePass) {
  HubProcess listening({"-port", std::to_string(freePort()), "-not_shared"}, directory);
  EXPECT_EQ(listening.waitForEnd(), 0);
  EXPECT_EQ(listening.printed(), "");
}

TEST_F(EntryTest, HubWithoutRecordGoesWithItsLastPersistentPlugin) {
  startHub();
  const Plugin second = join();
  first->vanish();
  awaitCounts("1/1", second);
  second->PersistentService(true);  // no change, counted once
  EXPECT_EQ(second->counts(), "1/1");
  second->PersistentService(false);
  EXPECT_EQ(second->next(), "closed");
  EXPECT_EQ(hub->waitForEnd(), 0);
}

TEST_F(EntryTest, StopsInOrderWhenAsked) {
  startHub({"-hl_log_internal", directory / "internal"});
  const Plugin second = join();
  hub->terminate();
  EXPECT_EQ(hub->waitForEnd(), 0);
  EXPECT_EQ(first->next(), "closed");
  EXPECT_EQ(second->next(), "closed");
  EXPECT_THAT(contents(directory / "internal"), HasSubstr(": Shutting down Hublink.\n"));
}

TEST_F(EntryTest, SharedHubOutlivesItsLastPersistentPluginByFourSeconds) {
  port = freePort();
  hub = std::make_unique<HubProcess>(
      std::vector<std::string>{"-port", std::to_string(port), "-hl_zone", "zone",
                               "-hl_log_internal", directory / "internal"},
      directory);
  auto link = makeCounted<STPTransport>();
  // Nothing announces a port of another process.
  await([&] { return link->connect("127.0.0.1", port), link->isConnected(); });
  first = makeCounted<TestPlugin>(link.get());
  ASSERT_EQ(first->next(), "PluginId 1");
  first->RequestLocation();
  EXPECT_EQ(first->nextNumber("LocationEvent"), port);
  const std::uint64_t start = platform::monotonicMilliseconds();
  first->PersistentService(false);
  EXPECT_EQ(first->next(), "closed");
  const std::uint64_t passed = platform::monotonicMilliseconds() - start;
  EXPECT_GE(passed, 4000u);
  EXPECT_LT(passed, 8000u);
  EXPECT_EQ(hub->waitForEnd(), 0);
  EXPECT_THAT(contents(directory / "internal"), HasSubstr(": Removed active hublink file.\n"));
}
