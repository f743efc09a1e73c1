// The record of a shared hub as tools see it: its name, its file, and what they find in it. How
// locks age and wait is tested where the clock stands still.
#include "active_hub/active_hub_record.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "active_hub/lock_file.h"
#include "active_hub/md5_text.h"
#include "indgen/host.h"
#include "indgen/program.h"
#include "indgen/scratch.h"
#include "platform/host.h"
#include "platform/process.h"

namespace {

namespace fs = std::filesystem;

class ActiveHubTest : public testing::Test {
 protected:
  ActiveHubTest() { useTemporary(scratch.path().c_str()); }
  ~ActiveHubTest() override { useTemporary("/tmp"); }
  static void useTemporary(const char* directory) {
    platform::setEnvironmentVariable("TMP", directory);
    gen_temporary_directory(directory);
  }

  const Scratch scratch;
};

TEST(Md5Text, DigestsWithTheLowHalfOfEachByteFirst) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "4dd1c89df8002b409e089089ce8f24e7"},
      {"abc", "09100589c32df40b6d69f3d7821ef727"},
      {std::string(55, 'a'), "fe71276bfd9f1a2253582559a40dfd56"},
      {std::string(56, 'a'), "b3c0a87c308f820bc4c69107601d2781"},
      {std::string(64, 'a'), "1084244d085b1794a5a4303697f33776"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "75de4f2ab23e9c55ca94ade212706ba7"}};
  for (const auto& [text, digest] : cases) EXPECT_STREQ(md5Text(text.c_str()), digest) << text;
  EXPECT_STREQ(md5Text(nullptr), cases[0].second);
}

TEST_F(ActiveHubTest, NameTellsInstallationsApart) {
  EXPECT_STREQ(recordName("a zone", "suffix", "/bin"), "a zone");
  EXPECT_STREQ(recordName("", "suffix", "/bin"), "");
  const std::string place = scratch / "bin", rest = platform::userName() + gen_host_name().get();
  const auto named = [&](const std::string& key) {
    return std::string(md5Text((key + rest).c_str()));
  };
  fs::create_directory(place);
  EXPECT_EQ(named(place), recordName(nullptr, nullptr, (place + "/../bin").c_str()).get());
  EXPECT_EQ(named(place + "+1"), recordName(nullptr, "+1", place.c_str()).get());
  const std::string hub = scratch.write("bin/hublink", "");
  for (const int built : {1700000000, 1700000001}) {
    fs::last_write_time(
        hub, std::chrono::file_clock::from_sys(std::chrono::sys_time<std::chrono::milliseconds>(
                 std::chrono::milliseconds(built * 1000LL + 900))));
    EXPECT_EQ(named(std::to_string(built) + place), recordName(nullptr, "", place.c_str()).get());
  }
  EXPECT_STREQ(recordName(nullptr, nullptr, nullptr), recordName(nullptr, "", gen_program_dir()));
}

TEST_F(ActiveHubTest, RecordAndItsLockStandInTheTemporaryDirectory) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"x", "svc_x", "svc_x.lock"}, {"", "svc", "svc.lock"}, {"a.b", "svc_a.b", "svc_a.lock"}};
  for (const auto& [zone, file, lock] : cases) {
    EXPECT_EQ(recordPath(zone).get(), scratch / file);
    ActiveHubRecord record(65535, zone, nullptr, nullptr);
    EXPECT_EQ(contents(scratch / file),
              "Port = 65535\nPid = " + std::to_string(platform::currentProcess()) + "\n");
    EXPECT_TRUE(lockActiveHub(zone, nullptr, nullptr));
    EXPECT_EQ(fs::file_size(scratch / lock), 0u);
    EXPECT_FALSE(record.lock());
    unlockActiveHub(zone, nullptr, nullptr);
    EXPECT_TRUE(record.lock());
    record.unlock();
    EXPECT_FALSE(fs::exists(scratch / lock));
    EXPECT_TRUE(record.remove());
    EXPECT_FALSE(record.remove());
    EXPECT_TRUE(fs::is_empty(scratch.path()));
  }
}

TEST_F(ActiveHubTest, RecordOfAnotherHubStays) {
  ActiveHubRecord record(7000, "x", nullptr, nullptr);
  const std::string process = "Pid = " + std::to_string(platform::currentProcess());
  for (const std::string& text : {"Port = 7001\n" + process, std::string("Port = 7000\nPid = 1")}) {
    scratch.write("svc_x", text);
    EXPECT_FALSE(record.remove());
    EXPECT_EQ(contents(scratch / "svc_x"), text);
  }
}

TEST_F(ActiveHubTest, WhatOthersPutThereIsNoRecordAndNoLock) {
  const std::string victim = scratch.write("victim", "");
  { ActiveHubRecord record(7000, "real", nullptr, nullptr); }
  fs::create_symlink(scratch / "svc_real", scratch / "svc_x");
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 0);
  fs::remove(scratch / "svc_x");
  fs::create_symlink(victim, scratch / "svc_x");
  { ActiveHubRecord record(7000, "x", nullptr, nullptr); }
  EXPECT_EQ(contents(victim), "");
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 7000);
  // Only the superuser can play another user.
  const std::string lock = scratch.write("svc_x.lock", "");
  const std::string giveAway = "chown 65534 '" + scratch / "svc_x' '" + lock + "' 2>/dev/null";
  if (std::system(giveAway.c_str()) != 0) GTEST_SKIP();
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 0);
  removeActiveHub("x", nullptr, nullptr);
  EXPECT_TRUE(fs::exists(scratch / "svc_x"));
  fs::last_write_time(lock, fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_TRUE(lockActiveHub("x", nullptr, nullptr));
  unlockActiveHub("x", nullptr, nullptr);
  EXPECT_TRUE(fs::exists(lock));
}

TEST_F(ActiveHubTest, OnlyAHubThatLivesIsFound) {
  const auto found = [] { return findActiveHub(nullptr, "+", nullptr); };
  const std::string path = recordPath(recordName(nullptr, "+", nullptr)).get();
  EXPECT_EQ(found(), 0);
  // The directory is made with the record, which outlives its owner's object.
  fs::remove_all(scratch.path());
  { ActiveHubRecord record(7000, nullptr, "+", nullptr); }
  EXPECT_EQ(found(), 7000);
  const std::string own = "Pid = " + std::to_string(platform::currentProcess()) + "\n";
  for (const std::string& text : {std::string("Port = 7000\n"), own, "Port = 70000\n" + own,
                                  std::string("Port = 7000\nPid = 2147483647\n")}) {
    std::ofstream(path) << text;
    EXPECT_EQ(found(), 0) << text;
    EXPECT_EQ(contents(path), text);
  }
  removeActiveHub(nullptr, "+", nullptr);
  EXPECT_FALSE(fs::exists(path));
}

}  // namespace
