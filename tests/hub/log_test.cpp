// The two logs: what stands in them, line by line, and in which order.
#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "support/hub_test.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class LogTest : public HubTest {
 protected:
  /// The internal log without its stamps, each of which must be well-formed, and without the lines
  /// about the first plugin.
  std::vector<std::string> lines(const std::string& name) const {
    std::vector<std::string> result;
    std::istringstream text(contents(name));
    for (std::string line; std::getline(text, line);) {
      std::string stamp = line.substr(0, 17);
      std::replace_if(
          stamp.begin(), stamp.end(), [](char c) { return c >= '0' && c <= '9'; }, '0');
      EXPECT_EQ(stamp, "00000000000.000: ") << line;
      line.erase(0, stamp.size());
      if (line.rfind("Plugin 1:\t ", 0) != 0) result.push_back(line);
    }
    return result;
  }

  const std::string internal = directory / "internal";
  const std::string plain = directory / "plain";
};

TEST_F(LogTest, TellsOnceThatALogIsFull) {
  startHub({"-hl_log_internal", "/dev/full"});
  const std::string full = "Warning: Unable to write a log: No space left on device.\n";
  EXPECT_EQ(hub->printed(), full);
  settle();
  expectedPrint = full;
}

TEST_F(LogTest, IsNobodyElses) {
  const std::string victim = directory.write("victim", "kept");
  std::filesystem::create_symlink(victim, internal);
  directory.write("plain", "kept");
  if (std::system(("chown -h 65534 '" + internal + "' '" + plain + "' 2>&-").c_str()) != 0)
    GTEST_SKIP() << "giving files to another user takes root";
  startHub({"-hl_log_internal", internal, "-log", plain});
  for (const std::string& name : {plain, internal})
    expectedPrint += "Warning: Unable to open log file " + name + ": it belongs to another user.\n";
  settle();
  EXPECT_EQ(contents(plain) + contents(internal), "keptkept");
}

TEST_F(LogTest, InternalLogHoldsEveryMessageAndTheHubsOwnLines) {
  startHub({"-hl_log_internal", internal, "-log", plain});
  using std::filesystem::perms;
  for (const std::string& name : {internal, plain})
    EXPECT_EQ(std::filesystem::status(name).permissions(), perms::owner_read | perms::owner_write);
  Plugin second = connectPlugin();
  EXPECT_EQ(second->next(), "StartLogging");
  EXPECT_EQ(second->next(), "PluginId 2");
  second->LogMessageEvent("a line");
  second->LogMessageEvent(nullptr);
  second->LogMessageEvent(", and %s");
  EXPECT_EQ(second->provide("svc"), 10);
  second->ask("missing", 7, 99);
  EXPECT_EQ(second->next(), "ConnectionReplyEvent 'missing' -1 0 0 0 0 -1 null 7");
  EXPECT_EQ(second->counts(), "2/2");
  second.reset();
  awaitCounts("1/1");
  RawPeer silent(port);
  awaitCounts("2/1");
  silent.close();
  awaitCounts("1/1");
  hub->terminate();
  EXPECT_EQ(hub->waitForEnd(), 0);
  EXPECT_EQ(contents(plain), "a line, and %s");
  EXPECT_THAT(
      lines(internal),
      ElementsAre(
          "Accepted new connection.",
          "Plugin 2:\t SEND: StartLogging: ", "Plugin 2:\t SEND: PluginId: plugin_id:0x2",
          "Plugin 2:\t RECV: LogMessageEvent: message:\"a line\"",
          "Plugin 2:\t RECV: LogMessageEvent: message:\"\"",
          "Plugin 2:\t RECV: LogMessageEvent: message:\", and %s\"",
          "Plugin 2:\t RECV: RegisterServiceList: name_list:{count:0x1 data:\"svc\", }",
          "Plugin 2:\t SEND: RNBlockReservedEvent: rn_list:{count:0x1 data:0xa, }",
          "Plugin 2:\t RECV: RequestServiceConnection: serviceName:\"missing\", "
          "providingPluginID:0x63, name_value_pairs:{count:0x2 data:\"key\", \"value\", }, "
          "working_dir:\"\", local_only:0x0, client_cookie:0x7, no_reuse:0x0, client_start:0x0",
          "Plugin id 99 for service missing no longer exists.",
          "Plugin 2:\t SEND: ConnectionReplyEvent: serviceName:\"missing\", localRN:0xffffffff, "
          "wasFound:0x0, is_shared_object:0x0, wasAccepted:0x0, serviceRN:0x0, "
          "plugin_id:0xffffffff, shared_object_name:\"\", client_cookie:0x7",
          "Plugin 2:\t RECV: NumPersistentServices: ",
          "Plugin 2:\t REPLY: NumPersistentServices: num_persistent:0x2, num_total:0x2",
          "Connection to plugin ID 2 down.", "Accepted new connection.",
          "Connection to plugin ID 3 down in negotiation stage 2.", "Shutting down Hublink."));
}

TEST_F(LogTest, BothLogsInOneFile) {
  startHub({"-log", internal, "-hl_log_internal", internal});
  first->LogMessageEvent("from a plugin\n");
  settle();
  EXPECT_THAT(contents(internal),
              HasSubstr(": Plugin 1:\t RECV: LogMessageEvent: message:\"from a plugin\n\"\n"
                        "from a plugin\n"));
}

TEST_F(LogTest, HubWithoutLogNeitherAsksForMessagesNorKeepsThem) {
  expectedPrint = "Warning: Unable to open log file " + directory / "missing/plain" +
                  ": No such file or directory.\n";
  startHub({"-log", directory / "missing/plain", "-hl_log_internal", internal});
  const Plugin second = connectPlugin();
  EXPECT_EQ(second->next(), "PluginId 2");
  second->LogMessageEvent("dropped");
  EXPECT_EQ(second->counts(), "2/2");
}
