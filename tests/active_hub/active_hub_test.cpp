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
#include "platform/credentials.h"
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

  static std::string process() { return std::to_string(platform::currentProcess()); }
  std::string own() const { return scratch / "hublink_" + std::to_string(platform::currentUser()); }
  static void giveAway(const std::string& path) {
    EXPECT_EQ(std::system(("chown 65534 '" + path + "'").c_str()), 0);
  }

  static constexpr fs::perms kReadAndWritten = fs::perms::owner_read | fs::perms::owner_write;
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
    EXPECT_EQ(contents(scratch / file), "Port = 65535\nPid = " + process() + "\n");
    EXPECT_TRUE(lockActiveHub(zone, nullptr, nullptr));
    EXPECT_EQ(fs::file_size(scratch / lock), 0u);
    for (const char* const made : {file, lock})
      EXPECT_EQ(fs::status(scratch / made).permissions(), kReadAndWritten) << made;
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
  for (const std::string& text :
       {"Port = 7001\nPid = " + process(), std::string("Port = 7000\nPid = 1")}) {
    scratch.write("svc_x", text);
    EXPECT_FALSE(record.remove());
    EXPECT_EQ(contents(scratch / "svc_x"), text);
  }
}

TEST_F(ActiveHubTest, LinksAreNoRecords) {
  const std::string victim = scratch.write("victim", "");
  { ActiveHubRecord record(7000, "real", nullptr, nullptr); }
  fs::create_symlink(scratch / "svc_real", scratch / "svc_x");
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 0);
  fs::remove(scratch / "svc_x");
  fs::create_symlink(victim, scratch / "svc_x");
  { ActiveHubRecord record(7000, "x", nullptr, nullptr); }
  EXPECT_EQ(contents(victim), "");
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 7000);
}

// What can't be replaced stands for what another user has put there.
TEST_F(ActiveHubTest, RecordGoesToAPlaceOfTheUsersOwn) {
  fs::create_directory(scratch / "svc_x");
  ActiveHubRecord record(7000, "x", nullptr, nullptr);
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 7000);
  EXPECT_EQ(activeHubPlace("x", nullptr, nullptr).get(), own() + "/svc_x");
  EXPECT_EQ(fs::status(own()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(own() + "/svc_x").permissions(), kReadAndWritten);
  // A place that others can enter may hold anything.
  fs::permissions(own(), fs::perms::others_exec, fs::perm_options::add);
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 0);
  fs::permissions(own(), fs::perms::owner_all);
  // One in the usual place comes first.
  fs::remove(scratch / "svc_x");
  { ActiveHubRecord later(7001, "x", nullptr, nullptr); }
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 7001);
  removeActiveHub("x", nullptr, nullptr);
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 7000);
  EXPECT_TRUE(record.remove());
  EXPECT_FALSE(fs::exists(own() + "/svc_x"));
}

TEST_F(ActiveHubTest, WhatOthersPutThereIsNoRecordAndNoLock) {
  if (platform::currentUser() != platform::kRoot)
    GTEST_SKIP() << "giving files to another user takes root";
  const std::string record = scratch.write("svc_x", "Port = 7\nPid = " + process());
  const std::string lock = scratch.write("svc_x.lock", "");
  fs::last_write_time(lock, fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 7);
  giveAway(record);
  giveAway(lock);
  EXPECT_EQ(findActiveHub("x", nullptr, nullptr), 0);
  removeActiveHub("x", nullptr, nullptr);
  EXPECT_TRUE(fs::exists(record));
  const auto lockIt = [&] { return lockFile(record.c_str(), 0, 60); };
  EXPECT_TRUE(lockIt());
  EXPECT_FALSE(lockIt()) << "the lock in the user's own place counts";
  fs::remove(lock);
  EXPECT_FALSE(lockIt()) << "also when that other user's has gone";
  EXPECT_FALSE(fs::exists(lock));
  unlockFile(record.c_str());
  EXPECT_TRUE(lockIt());
  EXPECT_TRUE(fs::exists(lock));
  EXPECT_FALSE(lockIt());
  unlockFile(record.c_str());
  EXPECT_TRUE(fs::is_empty(own()));
  EXPECT_EQ(whyNoActiveHub("x", nullptr, nullptr), "");
  giveAway(own());
  EXPECT_EQ(whyNoActiveHub("x", nullptr, nullptr), record + " belongs to another user, and " +
                                                       own() +
                                                       " isn't a directory of this user's alone");
}

TEST_F(ActiveHubTest, OnlyAHubThatLivesIsFound) {
  const auto found = [] { return findActiveHub(nullptr, "+", nullptr); };
  const std::string path = recordPath(recordName(nullptr, "+", nullptr)).get();
  EXPECT_EQ(found(), 0);
  // The directory is made with the record, which outlives its owner's object.
  fs::remove_all(scratch.path());
  { ActiveHubRecord record(7000, nullptr, "+", nullptr); }
  EXPECT_EQ(found(), 7000);
  const std::string own = "Pid = " + process() + "\n";
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
