// Options, names and subjects, and what is made of what other machines say: whom a service is taken
// from, and that nothing that they say does any harm.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "services/hublink_bridge/members.h"
#include "services/hublink_bridge/names.h"
#include "services/hublink_bridge/options.h"

namespace bridge {
namespace {

TEST(NamesTest, SubjectsComeBackAsTheyWereMade) {
  const std::string subject = subjectOf("team", "b@two", "a@one", "state");
  EXPECT_EQ(subject, "hublink.team.b@two.a@one.state");
  const auto parts = readSubject("team", subject);
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->to, "b@two");
  EXPECT_EQ(parts->from, "a@one");
  EXPECT_EQ(parts->what, "state");
  EXPECT_TRUE(readSubject("team", "hublink.team.all.a.alive"));
  for (const char* bad :
       {"hublink.other.b.a.state", "hublink.team.b.a", "hublink.team.b.a.", "hublink.team..a.state",
        "hublink.team.b.all.state", "hublink.team.b.a.state.more", "hublink.team.b.a b.state",
        "other.team.b.a.state", ""})
    EXPECT_FALSE(readSubject("team", bad)) << bad;
}

TEST(NamesTest, NamesHaveTheirForm) {
  EXPECT_TRUE(isMachineName(ownMachineName()));
  EXPECT_TRUE(isMachineName(std::string(kMostMachineName, 'a')));
  EXPECT_FALSE(isMachineName(std::string(kMostMachineName + 1, 'a')));
  EXPECT_TRUE(isRealmName(std::string(kMostRealmName, 'a')));
  EXPECT_FALSE(isRealmName(std::string(kMostRealmName + 1, 'a')));
  for (const char* bad : {"", "a.b", "a b", ">", "*", "all", "\xC3\xA4"})
    EXPECT_FALSE(isMachineName(bad)) << bad;
}

TEST(NamesTest, PatternsFit) {
  EXPECT_TRUE(fits("*", ""));
  EXPECT_TRUE(fits("a*c*e", "abcde"));
  EXPECT_TRUE(fits("a?c", "abc"));
  EXPECT_TRUE(fits("**x", "yyyx"));
  EXPECT_FALSE(fits("a?c", "ac"));
  EXPECT_FALSE(fits("a*c", "abcd"));
  EXPECT_FALSE(fits("", "a"));
  // Hopeless cases don't take for ever.
  EXPECT_FALSE(fits("*a*a*a*a*a*a*a*a*a*b", std::string(10000, 'a')));
  EXPECT_TRUE(isNamed({"In*", "Index"}, "Index"));
  EXPECT_FALSE(isNamed({"In*", "*"}, "Index"));
  EXPECT_FALSE(isNamed({"In*"}, "In*"));
}

TEST(OptionsTest, WhatIsWrongIsSaid) {
  const std::string file = ::testing::TempDir() + "bridge.conf";
  const auto exitCode = [&file](const std::string& line, std::string grace) {
    std::ofstream(file) << "nats = [\"nats://127.0.0.1:1\", \"nats://127.0.0.1:2\"]\n" << line;
    std::string words[] = {"it", "--realm", "r", "--grace", std::move(grace), "--config", file};
    char* arguments[std::size(words)];
    for (std::size_t i = 0; i < std::size(words); ++i) arguments[i] = words[i].data();
    Options options;
    int code = 0;
    const bool isRead = readOptions(std::size(words), arguments, options, code);
    EXPECT_EQ(isRead, code == 0 && options.nats.urls.size() == 2);
    return code;
  };
  EXPECT_EQ(exitCode("import = [\"A*\", \"B\"]\n", "3600"), 0);
  EXPECT_EQ(exitCode("improt = [\"A*\"]\n", "10"), 2);
  for (const char* bad : {"nan", "-1", "3601", "soon"}) EXPECT_EQ(exitCode("", bad), 2) << bad;
  std::remove(file.c_str());
}

class MembersTest : public ::testing::Test, public MembersListener {
 protected:
  void memberCame(const std::string& machine) override { happened += "+" + machine + " "; }
  void memberGone(const std::string& machine, const std::string&) override {
    happened += "-" + machine + " ";
  }
  // What a machine exports, on one page.
  void tell(const std::string& machine, const std::vector<ExportedService>& services,
            std::uint64_t state = 1, const std::string& incarnation = "1", std::int64_t since = 5) {
    const std::string json = servicesToJson(services.data(), services.size());
    members.stateArrived(machine, {incarnation, "0.1", since, state, 1, 1, json}, now);
  }
  static ExportedService running(const std::string& name) { return {name, true, 7, "prog"}; }
  static ExportedService startable(const std::string& name) { return {name, false, -1, "prog"}; }

  std::string happened;
  std::int64_t now = 1000;
  Members members{*this, 15000};
};

TEST_F(MembersTest, TakesTheNearestAndRunningOnesFirst) {
  tell("d", {running("Index")});
  tell("c", {running("Index"), running("Other")});
  tell("b", {running("Index")});
  tell("a", {startable("Index")});
  EXPECT_EQ(members.choose("Index"), (std::vector<std::string>{"b", "c", "d", "a"}));
  members.measured("d", 1900);
  members.measured("c", 1100);  // the same to the millisecond
  members.measured("b", 2000);
  members.measured("a", 10);
  EXPECT_EQ(members.choose("Index"), (std::vector<std::string>{"c", "d", "b", "a"}));
  EXPECT_EQ(members.choose("Other"), (std::vector<std::string>{"c"}));
  EXPECT_TRUE(members.choose("None").empty());
  members.setImports({"Oth*"});
  EXPECT_TRUE(members.choose("Index").empty());
  EXPECT_EQ(members.choose("Other").size(), 1U);
  EXPECT_EQ(members.programOf("c", 7), "prog");
}

TEST_F(MembersTest, KnowsWhoComesAndGoes) {
  EXPECT_FALSE(members.alive("a", "1", 5, 3, now));  // it exports something that wasn't heard of
  tell("a", {running("Index")}, 3);
  EXPECT_TRUE(members.alive("a", "1", 5, 3, now));
  EXPECT_FALSE(members.alive("a", "1", 5, 4, now));
  members.bye("a", "2");  // of somebody who isn't it
  EXPECT_EQ(members.step(now + 14999), 1);
  members.heard("a", now + 10000);
  EXPECT_EQ(members.step(now + 15000), 10000);
  EXPECT_EQ(happened, "+a ");
  members.alive("a", "2", 6, 1, now + 20000);  // started anew: what it told before is void
  EXPECT_TRUE(members.choose("Index").empty());
  members.step(now + 35000);
  tell("b", {});
  members.bye("b", "1");
  EXPECT_EQ(happened, "+a -a +a -a +b -b ");
  EXPECT_TRUE(members.all().empty());
}

TEST_F(MembersTest, KeepsTheYoungerBridgeOfAName) {
  tell("a", {running("Index")}, 2, "new", 9);
  tell("a", {}, 1, "new", 9);  // was overtaken
  EXPECT_TRUE(members.alive("a", "new", 9, 1, now));
  tell("a", {}, 3, "old", 8);
  EXPECT_TRUE(members.alive("a", "old", 8, 4, now + 8000));
  members.bye("a", "old");
  EXPECT_EQ(members.choose("Index").size(), 1U);
  EXPECT_EQ(happened, "+a ");
  members.heard("a", now + 8000);  // by either of them
  EXPECT_FALSE(members.alive("a", "old", 8, 4, now + 9000));
  EXPECT_EQ(happened, "+a -a +a ");
}

TEST_F(MembersTest, TakesPagesInTheirOrderOnly) {
  const std::vector<ExportedService> one{running("One")}, two{running("Two")};
  const std::string first = servicesToJson(one.data(), 1), second = servicesToJson(two.data(), 1);
  const auto page = [&](std::uint64_t state, std::size_t number, const std::string& json) {
    members.stateArrived("a", {"1", "", 0, state, number, 2, json}, now);
  };
  page(1, 2, second);
  page(1, 1, first);
  page(2, 2, second);  // of another state
  EXPECT_EQ(members.find("a")->state, 0U);
  page(2, 1, first);
  page(2, 2, second);
  EXPECT_EQ(members.find("a")->services, (std::vector<ExportedService>{one[0], two[0]}));
  // Said to all and to this one, and the earlier of two states last.
  for (const std::size_t number : {1, 1, 2, 2}) page(3, number, first);
  EXPECT_EQ(members.find("a")->state, 3U);
  page(4, 1, second);
  page(3, 1, first);
  page(4, 2, second);
  EXPECT_EQ(members.find("a")->services, (std::vector<ExportedService>{two[0], two[0]}));
}

TEST_F(MembersTest, IsNotImpressedByNonsense) {
  tell("a", {running("Index")});
  const std::string good = servicesToJson(nullptr, 0);
  for (const std::string json :
       {"", "{", "[]", "{}", R"({"services":1})", R"({"services":[1]})",
        R"({"services":[{"name":1,"state":"running"}]})", R"({"services":[{"state":"running"}]})",
        R"({"services":[{"name":"","state":"running"}]})",
        R"({"services":[{"name":"a\u0000b","state":"running"}]})"})
    members.stateArrived("a", {"1", "", 0, 2, 1, 1, json}, now);
  members.stateArrived("a", {"1", "", 0, 2, 0, 1, good}, now);
  members.stateArrived("a", {"1", "", 0, 2, 2, 1, good}, now);
  members.stateArrived("a", {"1", "", 0, 0, 1, 1, good}, now);
  members.stateArrived("b", {"", "", 0, 2, 1, 1, good}, now);
  members.stateArrived("b", {std::string(1000, 'x'), "", 0, 2, 1, 1, good}, now);
  EXPECT_EQ(members.choose("Index"), std::vector<std::string>{"a"});
  EXPECT_FALSE(members.find("b"));

  std::vector<ExportedService> many(Members::kMostServices, running("Index"));
  std::vector<ExportedService> taken;
  EXPECT_TRUE(servicesFromJson(servicesToJson(many.data(), many.size()), many.size(), taken));
  EXPECT_FALSE(servicesFromJson(servicesToJson(many.data(), many.size()), many.size() - 1, taken));
  // Pages hold what the server takes, and all of it: \1 is six bytes in JSON.
  many.assign(300, running(std::string(1000, '\1')));
  taken.clear();
  for (const std::string& page : pagesOf(many, 100000)) {
    EXPECT_LE(page.size(), 100000u);
    EXPECT_TRUE(servicesFromJson(page, many.size(), taken));
  }
  EXPECT_EQ(taken, many);
  EXPECT_EQ(pagesOf({}, 100000).size(), 1u);
  for (std::size_t i = 0; i < 2 * Members::kMostMachines; ++i)
    members.alive("m" + std::to_string(i), "1", 1, 1, now);
  EXPECT_EQ(members.all().size(), Members::kMostMachines);
}

TEST_F(MembersTest, KeepsNoMoreListsThanThereIsRoomFor) {
  const std::string text(1024, 'x');
  const std::vector<ExportedService> large(Members::kMostServices, {text, true, 7, text});
  const std::string json = servicesToJson(large.data(), large.size());
  const auto told = [&](const std::string& machine) {
    members.stateArrived(machine, {"1", "", 5, 1, 1, 1, json}, now);
    return members.find(machine)->state == 1;
  };
  int count = 0;
  while (count < 100 && told("m" + std::to_string(count))) ++count;
  EXPECT_EQ(count, 7);                                // of 8 MiB and some each
  EXPECT_FALSE(members.alive("m7", "1", 5, 1, now));  // it is to be asked again
  tell("m0", {}, 2);
  EXPECT_TRUE(told("m7"));
  members.bye("m1", "1");
  EXPECT_TRUE(told("m8"));
}

}  // namespace
}  // namespace bridge
