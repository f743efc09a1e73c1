// The command line, the ways in which the hub refuses to start, and those in which it ends.
#include <gmock/gmock.h>

#include <filesystem>

#include "indgen/format.h"
#include "platform/clock.h"
#include "stp_transport/transport/stp_socket.h"
#include "support/hub_test.h"

using ::testing::AnyOf;
using ::testing::StartsWith;
using EntryTest = HubTest;

TEST_F(EntryTest, RefusesToStart) {
  std::uint16_t taken = 0;
  const int listener = getFreeListenSocket(&taken, nullptr, true);
  const std::string takenPort = std::to_string(taken);
  const std::string nobody = std::to_string(freePort());
  const std::string usage =
      "Usage: hublink [-port <port>|-connect_hublink <port>] [-log <log file>] [-hl_log_internal "
      "<log file> [-not_shared]\n       [-hl_zone <zone>] [-loopback_only] [-any_user] [-tcp_only] "
      "[-no_busy_poll]\n       [-launch_timeout <seconds>]\n";
  const std::string noPort =
      "Error: Must specify a port that the hublink listens on or connects to.\n";
  const std::string noSeconds =
      "Error: The launch timeout must be a number of seconds, at most 86400.\n";
  const std::string inUse =
      "Unable to setup transport layer, specified port may already be in use.\n";
  const std::string noPeer = "Unable to setup transport layer.\n";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, usage},
      {{"-port"}, "Error: Option -port needs a value.\n"},
      {{"-port", takenPort, "-LOG"}, "Error: Option -LOG needs a value.\n"},
      {{"-connect_hublink", nobody, "-hl_zone"}, "Error: Option -hl_zone needs a value.\n"},
      {{"-port", "65536"}, "Error: The port must be at most 65535.\n"},
      {{"-connect_hublink", "-1"}, "Error: The port must be at most 65535.\n"},
      {{"-port", takenPort, "-launch_timeout", "soon"}, noSeconds},
      {{"-port", takenPort, "-launch_timeout", "86401"}, noSeconds},
      {{"-port", "0"}, noPort},
      {{"-port", "abc"}, noPort},
      {{"-not_shared"}, noPort},
      {{"port", takenPort, "--port", takenPort, "-por", takenPort}, noPort},
      {{"-log", "-port", takenPort}, noPort},
      {{"-port", takenPort}, inUse},
      {{"-PORT", gen_asprintf("0x%X", taken).get(), "-unknown"}, inUse},
      {{"-port", gen_asprintf("0%o", taken).get()}, inUse},
      {{"-port", " +" + takenPort + "x"}, inUse},
      {{"-port", takenPort, "-log", "/no/log"},
       "Warning: Unable to open log file /no/log: No such file or directory.\n" + inUse},
      {{"--help", "-port", "0"}, noPort},
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

TEST_F(EntryTest, TellsItsOptionsAndItsVersion) {
  for (const auto& [option, told] :
       {std::pair("--help", "Usage: hublink "), {"--version", "hublink 0"}}) {
    HubProcess asked({option}, directory);
    EXPECT_EQ(asked.waitForEnd(), 0);
    EXPECT_THAT(asked.printed(), StartsWith(told));
  }
}

TEST_F(EntryTest, LeavesTheLocalRoadOutWhenToldTo) {
  startHub({"-tcp_only"});
  EXPECT_TRUE(RawPeer(port, true).ends());
  EXPECT_EQ(join()->id, 2) << "the library goes by TCP then";
}

TEST_F(EntryTest, ListeningHubWithoutRecordStopsAfterOnePass) {
  HubProcess listening({"-port", std::to_string(freePort()), "-not_shared"}, directory);
  EXPECT_EQ(listening.waitForEnd(), 0);
  EXPECT_EQ(listening.printed(), "");
}

TEST_F(EntryTest, FullDiskLeavesNoRecordRatherThanAnEmptyOne) {
  executable = directory.write("limited", "#!/bin/sh\ntrap '' XFSZ\nulimit -f 0\nexec '" +
                                              HubProcess::builtExecutable() + "' \"$@\"\n");
  std::filesystem::permissions(executable, std::filesystem::perms(0700));
  isShared = true;
  startHub({"-hl_zone", "zone"});
  EXPECT_EQ(first->counts(), "1/1");
  for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
    EXPECT_THAT(entry.path().filename().string(), AnyOf("limited", StartsWith("printed")));
}

TEST_F(EntryTest, StoppedHubTakesItsPluginsAndItsRecordAlong) {
  isShared = true;
  startHub({"-hl_zone", ""});
  const Plugin second = join();
  const char* child[] = {LAUNCHED_PLUGIN, "idle"};
  first->RequestPluginLaunch({2, child}, 9, false, nullptr);
  EXPECT_EQ(first->next(), "PluginConnectedEvent 9 3 ''");
  EXPECT_TRUE(std::filesystem::exists(directory / "svc"));
  // One more is on its way and doesn't come.
  const std::string begun = directory / "begun", go = directory / "go", done = directory / "done";
  const char* slow[] = {LAUNCHED_PLUGIN, "complain", "a word", "record",     begun.c_str(),
                        "await",         go.c_str(), "record", done.c_str(), "exit"};
  first->RequestPluginLaunch({10, slow}, 10, false, nullptr);
  expectedPrint = "hublink: launched_plugin: a word\n";
  EXPECT_TRUE(await([&] { return std::filesystem::exists(begun); }));
  const std::uint64_t start = platform::monotonicMilliseconds();
  hub->terminate();
  EXPECT_EQ(hub->waitForEnd(), 0);
  EXPECT_GE(platform::monotonicMilliseconds() - start, 1000u) << "it is given time to end";
  directory.write("go", "");
  EXPECT_EQ(first->next(), "PluginConnectedEvent 10 -1 'Failed to launch plugin'");
  EXPECT_EQ(first->next(), "closed");
  EXPECT_EQ(second->next(), "closed");
  EXPECT_FALSE(std::filesystem::exists(directory / "svc"));
  EXPECT_FALSE(std::filesystem::exists(directory / "svc.lock"));
  EXPECT_TRUE(await([&] { return std::filesystem::exists(done); }));
}
