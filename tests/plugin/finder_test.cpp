// "Give me the hub", by processes that start at the same moment and in every state that a hub and
// its record can be in.
#include "hublink_plugin/hub_finder.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <set>

#include "indgen/temporary.h"
#include "platform/clock.h"
#include "platform/credentials.h"
#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/transport/stp_socket.h"
#include "stp_transport/transport/stp_transport.h"
#include "support/hub_process.h"

using ::testing::HasSubstr;

namespace {

class FinderTest : public ::testing::Test {
 protected:
  FinderTest() {
    putTemporaryFilesIn(directory.path());
    choice.zone = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    choice.program = HubProcess::builtExecutable();
  }
  ~FinderTest() override {
    endHub();
    putTemporaryFilesIn(usualDirectory);
  }
  // Those of this process and of its children.
  static void putTemporaryFilesIn(const std::string& path) {
    platform::setEnvironmentVariable("TMP", path.c_str());
    gen_temporary_directory(path.c_str());
  }

  // The process that the zone's record names; 0 without one.
  platform::ProcessId hubProcess() const {
    const std::string record = contents(directory / ("svc_" + *choice.zone));
    const std::size_t place = record.find("Pid = ");
    return place == std::string::npos ? 0 : std::atoi(record.c_str() + place + 6);
  }
  static void signalTo(platform::ProcessId process, const char* signal) {
    const std::string command = "kill -" + std::string(signal) + " " + std::to_string(process);
    EXPECT_EQ(std::system(command.c_str()), 0);
  }
  // Its own child or not, the hub of the zone is gone after this.
  void endHub(const char* signal = "KILL") const {
    const platform::ProcessId process = hubProcess();
    if (process == 0 || !platform::processExists(process)) return;
    signalTo(process, signal);
    while (platform::processExists(process)) platform::sleepMilliseconds(1);
  }

  const std::string usualDirectory = gen_temporary_directory(nullptr);
  const Scratch directory;
  HubChoice choice;
  HublinkPlugin plugin;
  std::string error;
};

TEST_F(FinderTest, TenAtOnceMeetOnOneHub) {
  for (int round = 0; round < 10; ++round) {
    choice.zone = "round" + std::to_string(round);
    std::vector<std::unique_ptr<HubProcess>> ten;
    for (int i = 0; i < 10; ++i)
      ten.push_back(std::make_unique<HubProcess>(
          std::vector<std::string>{"-hl_zone", *choice.zone, "-hl_hub", choice.program}, directory,
          0, ECHO_PROVIDER));
    std::set<int> pluginIDs;
    for (const auto& provider : ten) {
      const char* const words = "connected as plugin ";
      std::string printed;
      do {
        platform::sleepMilliseconds(1);
        printed = provider->printed();
      } while (printed.find('\n') == std::string::npos && provider->waitForEnd(0) == -1);
      ASSERT_THAT(printed, HasSubstr(words));
      pluginIDs.insert(std::atoi(printed.c_str() + printed.find(words) + std::strlen(words)));
    }
    EXPECT_EQ(pluginIDs.size(), 10u) << "two hubs would give one number twice";
    EXPECT_EQ(*pluginIDs.rbegin(), 10);
    endHub("TERM");
    EXPECT_EQ(hubProcess(), 0) << "the record goes with an orderly end";
  }
}

// Hubs on one zone, each with a plugin that keeps it up. Their order and that of the plugins
// differ.
struct Rivals {
  struct Guest {
    HublinkPlugin plugin;
    std::int32_t port = 0;  // its hub's
  };

  // Starts some at once; when this returns all of them have written their record.
  void start(int count, const std::string& zone, const Scratch& directory) {
    std::uint16_t listening = 0;
    const int socket = getFreeListenSocket(&listening, nullptr, true);
    const std::vector<std::string> arguments{"-connect_hublink", std::to_string(listening),
                                             "-hl_zone", zone};
    for (int i = 0; i < count; ++i)
      hubs.push_back(std::make_unique<HubProcess>(arguments, directory));
    for (int i = 0; i < count; ++i) {
      Guest& guest = *guests.emplace_back(std::make_unique<Guest>());
      const auto transport = makeCounted<STPTransport>();
      TimeoutSTPRetryHandler retry(transport.get(), kPatience);
      transport->listenOnFD(socket, false, &retry);
      std::string error;
      ASSERT_TRUE(guest.plugin.attach(transport.get(), error, kPatience)) << error;
      guest.plugin.requestLocation([&](const auto&, std::int32_t port) { guest.port = port; });
      ASSERT_TRUE(guest.plugin.serveUntil([&] { return guest.port > 0; }, kPatience));
    }
    closeListenSocket(socket, nullptr);
  }

  std::vector<std::unique_ptr<HubProcess>> hubs;
  std::vector<std::unique_ptr<Guest>> guests;
};

int fromEnvironment(const char* name, int otherwise) {
  const char* value = platform::environmentVariable(name);
  return value ? std::atoi(value) : otherwise;
}

// All zones at the same time. More with HUBLINK_RACE_ZONES and HUBLINK_RACE_HUBS.
TEST_F(FinderTest, RecordIsLeftToTheHubThatTookItLast) {
  const int count = fromEnvironment("HUBLINK_RACE_ZONES", 3);
  const int hubs = fromEnvironment("HUBLINK_RACE_HUBS", 6);
  std::vector<Rivals> zones(static_cast<std::size_t>(count));
  const auto inEach = [&](const auto& act) {
    for (int i = 0; i < count; ++i) {
      choice.zone = "race" + std::to_string(i);
      SCOPED_TRACE(*choice.zone);
      act(zones[static_cast<std::size_t>(i)], i % 3);
    }
  };
  inEach([&](Rivals& rivals, int) { rivals.start(hubs / 2, *choice.zone, directory); });
  // The first half goes idle while the second one starts, or a little later.
  inEach([&](Rivals& rivals, int) { rivals.guests.clear(); });
  inEach([&](Rivals& rivals, int) { rivals.start(hubs - hubs / 2, *choice.zone, directory); });
  enum { lives, idles, dies };
  struct Owner {
    platform::ProcessId process;
    std::uint16_t port;
  };
  std::vector<Owner> owners;
  inEach([&](Rivals& rivals, int fate) {
    const Owner& owner = owners.emplace_back(Owner{hubProcess(), findHub(choice)});
    EXPECT_NE(owner.port, 0);
    if (fate == dies) signalTo(owner.process, "KILL");
    std::erase_if(rivals.guests,
                  [&](const auto& guest) { return fate != lives || guest->port != owner.port; });
    if (const auto& some = *rivals.hubs.back(); some.id() != owner.process)
      signalTo(some.id(), "KILL");
  });
  auto owner = owners.begin();
  inEach([&](Rivals& rivals, int fate) {
    const auto [process, port] = *owner++;
    for (const auto& hub : rivals.hubs)
      EXPECT_TRUE((fate == lives && hub->id() == process) || hub->waitForEnd() != -1);
    EXPECT_EQ(findHub(choice), fate == lives ? port : 0);
    EXPECT_EQ(hubProcess() != 0, fate != idles);
    HublinkPlugin tools[3];
    for (HublinkPlugin& tool : tools)
      EXPECT_EQ(joinHub(tool, choice, error), fate == lives ? HubSearch::joined : HubSearch::none);
    EXPECT_EQ(tools[2].pluginID(), fate == lives ? 4 : -1) << "all are on one hub";
  });
}

TEST_F(FinderTest, StartsAHubOnLoopbackAloneUnlessToldOtherwise) {
  STPStatus status;
  for (const bool isAlone : {true, false}) {
    choice.loopbackOnly = isAlone;
    EXPECT_EQ(joinOrStartHub(plugin, choice, error), HubSearch::started) << error;
    const int other = connectToServer("127.0.0.2", findHub(choice), &status, false);
    EXPECT_EQ(status.good(), !isAlone);
    if (other != 0) closeSocket(other);
    endHub();  // its record is still there
  }
}

TEST_F(FinderTest, TellsWhyThereIsNone) {
  choice.program = "no_such_hub";
  EXPECT_EQ(joinOrStartHub(plugin, choice, error), HubSearch::failed);
  EXPECT_EQ(error, "there is no program no_such_hub");
  choice.program = "/bin/false";
  EXPECT_EQ(joinOrStartHub(plugin, choice, error), HubSearch::failed);
  EXPECT_THAT(error, HasSubstr("can't be started: [launch]: Program died"));
  EXPECT_FALSE(std::filesystem::exists(directory / ("svc_" + *choice.zone + ".lock")));
}

// The record is this user's own, but its port is a stranger's by now.
TEST_F(FinderTest, AHubOfAnotherUserIsNone) {
  if (platform::currentUser() != platform::kRoot)
    GTEST_SKIP() << "becoming another user takes root";
  std::uint16_t listening = 0;
  const int socket = getFreeListenSocket(&listening, nullptr, true);
  const HubProcess strange({"--reuid=65534", "--regid=65534", "--clear-groups", choice.program,
                            "-connect_hublink", std::to_string(listening), "-not_shared"},
                           directory, 0, "setpriv");
  const auto link = makeCounted<STPTransport>();
  TimeoutSTPRetryHandler retry(link.get(), kPatience);
  link->listenOnFD(socket, true, &retry);
  HublinkPlugin insider;
  ASSERT_TRUE(insider.attach(link.get(), error, kPatience)) << error << strange.printed();
  std::int32_t port = 0;
  insider.requestLocation([&](const auto&, std::int32_t at) { port = at; });
  ASSERT_TRUE(insider.serveUntil([&] { return port != 0; }, kPatience));

  const auto port16 = static_cast<std::uint16_t>(port);
  const std::string refusal =
      "the hub on port " + std::to_string(port) + " runs as another user (65534)";
  EXPECT_FALSE(plugin.connect(port16, error));
  EXPECT_EQ(error, refusal);
  directory.write("svc_" + *choice.zone, "Port = " + std::to_string(port) +
                                             "\nPid = " + std::to_string(strange.id()) + "\n");
  EXPECT_EQ(joinHub(plugin, choice, error), HubSearch::none);
  EXPECT_EQ(error, refusal);
  choice.anyUser = true;
  EXPECT_EQ(joinHub(plugin, choice, error), HubSearch::joined) << error;
  choice.anyUser = false;
  EXPECT_EQ(joinOrStartHub(plugin, choice, error), HubSearch::started) << error;
}

}  // namespace
