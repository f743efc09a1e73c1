// Providers on demand: a hub with description files beside it, and children that behave in every
// way.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "indgen/spawn.h"
#include "platform/clock.h"
#include "support/hub_test.h"

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

using Lines = std::vector<std::string>;

// A section that starts the tests' plugin, under one of its names, with these words.
std::string section(const std::string& program, const Lines& words, const std::string& service,
                    const std::string& more = "") {
  std::ostringstream text;
  text << "  { ExecName = \"" << program << "\" " << more << " Arguments { ";
  for (const std::string& word : words) text << "{ Arg = \"" << word << "\" } ";
  text << "} ServicesProvided { { ServiceName = \"" << service << "\" } } }\n";
  return text.str();
}

class LaunchTest : public HubTest {
 protected:
  void SetUp() override {
    namespace fs = std::filesystem;
    executable = directory / "hublink";
    fs::copy_file(HubProcess::builtExecutable(), executable);
    fs::create_directories(directory / "defaults/services");
    fs::create_directories(directory / "elsewhere");
    fs::copy_file(LAUNCHED_PLUGIN, directory / "launched_plugin");
    fs::copy_file(LAUNCHED_PLUGIN, directory / "elsewhere/far_plugin");
    path_ = platform::environmentVariable("PATH");
    platform::setEnvironmentVariable("PATH", ((directory / "elsewhere") + ":" + path_).c_str());
    writeDescriptions();
    startHub({"-hl_log_internal", directory / "log"});
  }
  void TearDown() override {
    platform::setEnvironmentVariable("PATH", path_.c_str());
    HubTest::TearDown();
  }

  void writeDescriptions() {
    std::ofstream file(directory / "defaults/services/test.kvs");
    const auto plain = [&](const Lines& words, const std::string& service) {
      file << section("launched_plugin", words, service);
    };
    file << "Services {\n";
    plain({"provide", "Beside"}, "Beside");
    file << section("far_plugin", {"provide", "OnPath"}, "OnPath");
    file << section("no_such_program", {}, "Missing");
    plain({"exit"}, "DiesAtOnce");
    plain({"await", directory / ".", "exit"}, "DiesBeforeConnecting");
    plain({"vanish"}, "Vanishes");
    plain({"idle"}, "NeverRegisters");
    plain({"provide", "AnotherName"}, "Misnamed");
    plain({"await", directory / "go", "provide", "Slow"}, "Slow");
    plain({"complain", "first line\\n\\033[2J", "await", directory / "goComplains", "exit"},
          "Complains");
    plain({"complain", "last words", "await", directory / "goKilled", "die"}, "Killed");
    file << section("launched_plugin",
                    {"complain", "I wait", "await", directory / "goHangs", "exit"}, "Hangs",
                    "LaunchTimeout = 1");
    plain({"once", directory / "tried", "vanish", "provide", "SecondTry"}, "SecondTry");
    file << section("thing.so", {}, "Library", "SharedObject = yes AdaExecName = \"ada.so\"");
    file << section(
        "launched_plugin",
        {"record", directory / "seen", "provide", "Seen", "", "two words", "quo\\\"te", "back\\\\"},
        "Seen", "Environment { LIBPATH = \"/lib/./x//\" OTHER = \"no\" }");
    file << "}\n";
  }
  void touch(const std::string& name) { std::ofstream(directory / name) << "x"; }
  bool logHas(const std::string& text) {
    return contents(directory / "log").find(text) != std::string::npos;
  }

 private:
  std::string path_;
};

// Every outcome of a launch for a service, with what the requester hears and the log says.
TEST_F(LaunchTest, EveryOutcomeForAService) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"Beside", "ConnectionReplyEvent 'Beside' 11 1 0 1 10 2 null 7", "Launching plugin launched"},
      {"OnPath", "ConnectionReplyEvent 'OnPath' 13 1 0 1 12 3 null 7", "Launching plugin far_plug"},
      {"Missing", failureReply("Missing", 7),
       "Warning: Failed to launch plugin: no_such_program to handle service Missing.\n"},
      {"DiesAtOnce", failureReply("DiesAtOnce", 7), "to handle service DiesAtOnce.\n"},
      {"DiesBeforeConnecting", failureReply("DiesBeforeConnecting", 7),
       "to handle service DiesBeforeConnecting.\n"},
      {"Vanishes", failureReply("Vanishes", 7), "ID 4 down in negotiation stage 2.\n"},
      {"Library",
       "ConnectionReplyEvent 'Library' -1 1 1 0 -1 -1 '" + directory / "thing.so" + "' 7", ""},
      {"Unheard", failureReply("Unheard", 7),
       "Service Unheard requested, but it is not in the service database.\n"},
  };
  for (const auto& [service, reply, log] : cases) {
    const std::uint64_t start = platform::monotonicMilliseconds();
    first->ask(service.c_str(), 7);
    EXPECT_EQ(first->next(), reply);
    EXPECT_TRUE(logHas(log)) << log;
    EXPECT_LT(platform::monotonicMilliseconds() - start, 3000u)
        << service << ": a death is noticed when it happens";
  }
  first->SetPreferAda(true);
  first->ask("Library", 8);
  EXPECT_EQ(first->next(),
            "ConnectionReplyEvent 'Library' -1 1 1 0 -1 -1 '" + directory / "ada.so" + "' 8");
}

TEST_F(LaunchTest, RequestsShareOneProviderUnlessTheyWantTheirOwn) {
  first->ask("Beside", 1);
  first->ask("Beside", 2);
  first->ask("Beside", 3, -1, true);
  // The first and the third each wait for their own plugin, the second for whoever comes first.
  int provider[4]{};
  for (int i = 0; i < 3; ++i) {
    int plugin = 0, cookie = 0;
    const std::string line = first->next();
    EXPECT_EQ(std::sscanf(line.c_str(), "ConnectionReplyEvent 'Beside' %*d 1 0 1 %*d %d null %d",
                          &plugin, &cookie),
              2);
    provider[cookie & 3] = plugin;
  }
  EXPECT_EQ(std::minmax({provider[1], provider[3]}), std::minmax({2, 3})) << "in whichever order";
  EXPECT_TRUE(provider[2] == 2 || provider[2] == 3) << provider[2];
  // One that works elsewhere is started for whoever wants that, and found there by the next.
  for (const int cookie : {4, 5}) {
    first->RequestServiceConnection("Beside", -1, {}, (directory / "elsewhere").c_str(), true,
                                    cookie, false, false);
    EXPECT_THAT(first->next(), HasSubstr(" 4 null " + std::to_string(cookie)));
  }
  awaitCounts("4/4");
}

TEST_F(LaunchTest, ARequestWaitsForAPluginThatDoesNotRegister) {
  first->ask("NeverRegisters", 1);
  awaitCounts("2/2");
  first->ask("Misnamed", 2);
  EXPECT_TRUE(await([&] {
    first->query("AnotherName", 8, false);
    return first->next() == "PluginIdForServiceReplyEvent 8 'AnotherName' 3 1";
  }));
  first->ask("AnotherName", 3);
  EXPECT_EQ(first->next(), "ConnectionReplyEvent 'AnotherName' 11 1 0 1 10 3 null 3");
}

// Those that joined a launch wait on when it fails, but nobody else does: the next request starts
// the provider anew, for all of them.
TEST_F(LaunchTest, AProviderThatHasNotComeIsStartedAgain) {
  first->ask("SecondTry", 1);
  first->ask("SecondTry", 2);
  first->query("SecondTry", 3);
  EXPECT_EQ(first->next(), failureReply("SecondTry", 1));
  first->query("SecondTry", 4);
  first->ask("SecondTry", 5);  // joins
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 3 'SecondTry' 3 0");
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 4 'SecondTry' 3 0");
  EXPECT_EQ(first->next(), "ConnectionReplyEvent 'SecondTry' 11 1 0 1 10 3 null 2");
  EXPECT_EQ(first->next(), "ConnectionReplyEvent 'SecondTry' 12 1 0 1 10 3 null 5");
  // While a client has a start in hand others wait for it; once it has failed, or the client has
  // gone, they don't.
  const Plugin other = join();  // plugin 4
  for (const bool isTold : {true, false}) {
    SCOPED_TRACE(isTold);
    const char* service = isTold ? "Beside" : "OnPath";
    const Plugin starter = join();
    starter->RequestServiceConnection(service, -1, {}, nullptr, false, 6, false, true);
    EXPECT_TRUE(starter->nextIs("StartPlugin"));
    first->ask(service, 7);
    EXPECT_EQ(first->counts(), isTold ? "4/4" : "5/5") << "nothing is launched";
    if (isTold) starter->StartPluginEvent(1, false, "");
    starter->vanish();
    awaitCounts(isTold ? "3/3" : "4/4");
    other->ask(service, 8);
    EXPECT_EQ(first->nextNumber("ConnectionReplyEvent"), 7);
    EXPECT_EQ(other->nextNumber("ConnectionReplyEvent"), 8);
  }
}

TEST_F(LaunchTest, QueriesStartPluginsAsWell) {
  first->query("Beside", 5);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 5 'Beside' 2 0");
  first->query("Beside", 6);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 6 'Beside' 2 1");
  first->query("OnPath", 7, false);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 7 'OnPath' -1 0");
  first->query("Unheard", 8);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 8 'Unheard' -1 0");
  first->query("Missing", 9);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 9 'Missing' -1 1");
  expectedPrint = "Unable to startup service: no_such_program.\n";
  EXPECT_TRUE(logHas("Unable to launch no_such_program: No such file or directory\n"));
  EXPECT_TRUE(
      logHas("Warning: Failed to launch plugin: no_such_program to handle service Missing.\n"));
  EXPECT_TRUE(logHas("Service Unheard requested, but it is not in the service database.\n"));
  // Who asks again, in whichever way, joins the launch that a question began.
  first->query("NeverRegisters", 10);
  first->ask("NeverRegisters", 11);
  awaitCounts("3/3");
}

TEST_F(LaunchTest, ChildrenSeeTheirArgumentsAndEnvironment) {
  first->SetEnvironmentVariable("HUB_TEST_VALUE", "a value");
  first->SetEnvironmentVariable("HUB_TEST_VALUE", nullptr);
  first->SetEnvironmentVariable("BAD=NAME", "x");
  first->SetEnvironmentVariable(nullptr, "x");
  first->DebugPlugin("launched_plugin", true, "gdb", nullptr);
  const std::string path = platform::environmentVariable("PATH");
  first->ask("Seen", 1);
  EXPECT_EQ(first->next(), "ConnectionReplyEvent 'Seen' 11 1 0 1 10 2 null 1");
  const std::string expected = "-hl_connect_hublink_port\nrecord\n" + directory / "seen" +
                               "\nprovide\nSeen\n\ntwo words\nquo\"te\nback\\\n"
                               "-hl_debug_startup\n-hl_debug_debugger\ngdb\n"
                               "-hl_debug_debugger_opts\n -hl_private -P \n" +
                               path + ":/lib/x/\na value\n";
  EXPECT_EQ(contents(directory / "seen"), expected);
  EXPECT_TRUE(logHas("Ignored the environment variable \"BAD=NAME\".\n"));
}

// A program can be started only if its environment isn't too large.
TEST_F(LaunchTest, NoVariableKeepsLaterChildrenFromStarting) {
  first->SetEnvironmentVariable("HUB_TEST_VALUE", "kept");
  first->SetEnvironmentVariable("HUB_TEST_VALUE", std::string(200000, 'x').c_str());
  for (int i = 0; i < 30; ++i)
    first->SetEnvironmentVariable(("HUB_TEST_" + std::to_string(i)).c_str(),
                                  std::string(120000, 'x').c_str());
  first->query("Seen", 1);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 1 'Seen' 2 0");
  const std::string path = platform::environmentVariable("PATH");
  EXPECT_THAT(contents(directory / "seen"), ::testing::EndsWith(path + ":/lib/x/\nkept\n"));
  for (const char* refused : {"VALUE\" of 200000", "29\" of 120000"})
    EXPECT_TRUE(logHas(std::string("Ignored the environment variable \"HUB_TEST_") + refused +
                       " bytes: Argument list too long.\n"));
}

TEST_F(LaunchTest, PlainLaunches) {
  const auto launch = [&](Lines words, bool clientStart = false) {
    std::vector<const char*> argv;
    for (const std::string& word : words) argv.push_back(word.c_str());
    first->RequestPluginLaunch({static_cast<std::int32_t>(argv.size()), argv.data()}, 9,
                               clientStart, nullptr);
    return first->next();
  };
  EXPECT_EQ(launch({"launched_plugin", "idle"}), "PluginConnectedEvent 9 2 ''");
  const std::string failed = "PluginConnectedEvent 9 -1 'Failed to launch plugin'";
  EXPECT_EQ(launch({"launched_plugin", "vanish"}), failed);
  EXPECT_EQ(launch({"no_such_program"}), failed);
  EXPECT_EQ(launch({}), failed);
  EXPECT_EQ(launch({""}), failed);
  first->DebugPlugin("tool", true, nullptr, "opts");
  EXPECT_THAT(launch({"/dir/tool", "-x"}, true),
              AllOf(StartsWith("StartPlugin ['/dir/tool' '-x' '-hl_debug_startup' "
                               "'-hl_debug_debugger' 'could_not_locate_vestrel_or_adavestrel' "
                               "'-hl_debug_debugger_opts' 'opts' '-hl_client_start_cookie' '1' "
                               "'-hl_connect_hublink_host' '"),
                    HasSubstr("'-hl_connect_hublink_port' '" + std::to_string(port) + "'] 1 ")));
  first->StartPluginEvent(77, true, nullptr);  // nobody has asked for that
  const Plugin started = join();
  const char* withNull[] = {"tool", nullptr, ""};
  started->RequestPluginLaunch({3, withNull}, 10, true, nullptr);
  EXPECT_THAT(started->next(), StartsWith("StartPlugin ['tool' null '' '-hl_debug_startup' "));
  started->StartPluginEvent(1, true, "fine");
  EXPECT_EQ(first->next(), "PluginConnectedEvent 9 " + std::to_string(started->id) + " 'fine'");
  launch({"tool"}, true);
  first->StartPluginEvent(3, false, "no such tool");
  EXPECT_EQ(first->next(), "PluginConnectedEvent 9 -1 'no such tool'");
}

TEST_F(LaunchTest, AClientStartsItsOwnProvider) {
  const auto ask = [](const Plugin& plugin, int cookie) {
    plugin->RequestServiceConnection("Beside", -1, {}, nullptr, false, cookie, false, true);
    EXPECT_THAT(plugin->next(), StartsWith("StartPlugin ['launched_plugin' 'provide' 'Beside' "));
  };
  ask(first, 4);
  const Plugin started = join();
  EXPECT_EQ(started->id, 3) << "the ID between was set aside";
  started->StartPluginEvent(1, true, nullptr);
  const std::int32_t rn = started->provide("Beside");
  EXPECT_THAT(started->next(), StartsWith("ConnectionRequestedEvent 1 "));
  started->ConnectionAcceptedEvent(rn, rn + 1, true);
  EXPECT_EQ(first->next(), "ConnectionReplyEvent 'Beside' 11 1 0 1 10 3 null 4");
  // Somebody may name the ID that is set aside, before or after that; nobody will ever have it.
  const auto await = [&started](std::int32_t provider, int cookie) {
    started->RequestServiceConnection("None", provider, {}, nullptr, false, cookie, false, false);
    started->counts();
  };
  await(1, 6);
  await(4, 7);
  ask(first, 5);
  first->StartPluginEvent(2, false, "could not");
  EXPECT_EQ(first->next(), "ConnectionReplyEvent '' -1 0 0 0 0 -1 null 5");
  EXPECT_EQ(started->next(), failureReply("None", 7));
  first->RequestLocation();
  EXPECT_EQ(first->nextNumber("LocationEvent"), port) << "it is answered once";
  const Plugin leaving = join();
  ask(leaving, 6);
  await(6, 8);
  leaving->vanish();
  EXPECT_EQ(started->next(), failureReply("None", 8));
  awaitCounts("2/2");
  started->StartPluginEvent(3, true, nullptr);  // for a requester that has gone
  EXPECT_EQ(started->counts(), "2/2");
}

// While a program takes its time, everybody else gets all that a hub does.
TEST_F(LaunchTest, ALaunchDelaysNobody) {
  first->ask("Slow", 1);
  first->query("OnPath", 2);
  EXPECT_THAT(first->counts(), AnyOf("1/1", "2/1", "2/2"))
      << "who has asked himself isn't kept waiting either; the quick program may be there";
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 2 'OnPath' 2 0");
  RawEnds raw = joinTwo();
  auto& [a, b] = raw;
  for (std::uint32_t i = 100; i < 200; ++i) {
    a.peer.send(packetBytes({.destination = b.rn, .id = i}, "8 bytes."));
    ASSERT_EQ(b.peer.next().id(), i);
  }
  EXPECT_TRUE(b.peer.isAnswered());
  const Plugin other = join();  // plugin 5
  other->ask("Beside", 3);
  EXPECT_THAT(other->next(), HasSubstr("'Beside'"));
  // Others find the launch, unless they want their own.
  other->ask("Slow", 4);
  other->query("Slow", 5);
  other->ask("Slow", 6, -1, true);
  EXPECT_EQ(other->counts(), "6/6");
  touch("go");
  int provider[7]{};
  for (int i = 0; i < 2; ++i) {
    const std::string line = other->next();
    int plugin = 0, cookie = 0;
    if (std::sscanf(line.c_str(), "ConnectionReplyEvent 'Slow' %*d 1 0 1 %*d %d null %d", &plugin,
                    &cookie) != 2)
      --i;
    else
      provider[cookie] = plugin;
  }
  EXPECT_THAT(first->next(), StartsWith("ConnectionReplyEvent 'Slow' "));
  EXPECT_THAT(provider[4] + provider[6], ::testing::AllOf(::testing::Ge(14), ::testing::Le(16)));
  awaitCounts("8/8");
}

// What becomes of a child is told to those who wait, and in the log with what it has said.
TEST_F(LaunchTest, WhatHasBecomeOfAChild) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"Missing", "no_such_program: No such file or directory\n", ""},
      {"Complains", "launched_plugin: exited with status 3\n", "first line|\\x1b[2J"},
      {"Killed", "launched_plugin: killed by signal 9 (Killed)\n", "last words"},
      {"Hangs", "launched_plugin: it hasn't connected within 1 s\n", "I wait"},
  };
  const Plugin other = join();
  for (const auto& [service, outcome, words] : cases) {
    first->ask(service.c_str(), 1);
    first->RequestLocation();
    const bool isAtOnce = service == "Missing";
    if (isAtOnce) {
      EXPECT_EQ(first->next(), failureReply(service, 1));
    }
    EXPECT_TRUE(first->nextIs("LocationEvent"));
    if (isAtOnce) continue;
    other->ask(service.c_str(), 2);  // joins
    if (service != "Hangs") touch("go" + service);
    EXPECT_EQ(first->next(), failureReply(service, 1));
    EXPECT_EQ(other->next(), failureReply(service, 2));
    EXPECT_TRUE(logHas(outcome)) << outcome;
    std::istringstream lines(words);
    for (std::string line; std::getline(lines, line, '|');)
      EXPECT_TRUE(logHas(": launched_plugin: " + line + "\n")) << line;
  }
  touch("goHangs");
  awaitCounts("2/2");
}

// The provider has come by another road while its launch was in hand, which then fails.
TEST_F(LaunchTest, AFailedLaunchLeavesARegisteredProvider) {
  const Plugin other = join();
  first->ask("Complains", 1);
  first->ask("Complains", 2, -1, true);
  first->query("Complains", 3);
  first->counts();
  const std::int32_t rn = other->provide("Complains");
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 3 'Complains' 2 0");
  touch("goComplains");
  EXPECT_THAT(other->next(), StartsWith("ConnectionRequestedEvent 1 "));
  EXPECT_EQ(first->next(), failureReply("Complains", 2));
  other->ConnectionAcceptedEvent(rn, rn + 1, true);
  EXPECT_EQ(first->nextNumber("ConnectionReplyEvent"), 1);
}

// Its requester goes, in whichever way; the program comes all the same.
TEST_F(LaunchTest, ALaunchOutlivesItsRequester) {
  for (const bool isPolite : {true, false}) {
    const Plugin requester = join();
    requester->ask("Slow", 1, -1, true);
    requester->counts();
    if (isPolite)
      requester->RequestHublinkDisconnect();
    else
      requester->vanish();
  }
  awaitCounts("1/1");
  touch("go");
  awaitCounts("3/3");
}

// A launch in hand keeps the hub, and keeps it no longer than it lasts.
TEST_F(LaunchTest, ALaunchKeepsTheHubUp) {
  first->ask("Hangs", 1);
  first->counts();
  first->vanish();
  EXPECT_EQ(hub->waitForEnd(), 0);
  EXPECT_TRUE(logHas("launched_plugin: it hasn't connected within 1 s\n"));
  touch("goHangs");
}

}  // namespace
