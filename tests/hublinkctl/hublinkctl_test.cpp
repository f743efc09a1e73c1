// The command line as its user meets it: by its executable, with what it prints and its exit code,
// against hubs in every state.
#include <gmock/gmock.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

#include "forms_teller_impl.h"
#include "hublink_plugin/hublink_plugin.h"
#include "indgen/text.h"
#include "platform/clock.h"
#include "platform/credentials.h"
#include "support/hub_test.h"
#include "tools/hublinkctl/exit_code.h"

using hublinkctl::ExitCode;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace {

// Every subcommand, as it stands when all is well with the hub of HublinkctlTest.
const char* const kOnHub[] = {"status",         "provider Echo",       "wait Echo",  "launch sh",
                              "value 2 colour", "connect localhost 1", "setenv A b", "debug x",
                              "log text",       "ping Echo",           "metrics",    "serve"};

class HublinkctlTest : public HubTest {
 protected:
  // An installation of its own, whose hub leaves a record.
  void SetUp() override {
    executable = directory / "hublink";
    std::filesystem::copy_file(HubProcess::builtExecutable(), executable);
    std::filesystem::create_directories(directory / "defaults/services");
    describe("OnDemand", LAUNCHED_PLUGIN, "{ Arg = \"provide\" } { Arg = \"OnDemand\" }");
    describe("Ends", LAUNCHED_PLUGIN, "{ Arg = \"exit\" }");
    describe("Misnamed", LAUNCHED_PLUGIN, "{ Arg = \"provide\" } { Arg = \"Other\" }");
    describe("Lost", "missing_program", "");
    isShared = true;
  }
  void TearDown() override {
    for (const platform::ProcessId process : started) {
      platform::killProcess(process);
      while (platform::processExists(process)) platform::sleepMilliseconds(1);
    }
    HubTest::TearDown();
  }

  void describe(const std::string& service, const std::string& program,
                const std::string& arguments) const {
    directory.write("defaults/services/" + service + ".kvs",
                    "Services { ExecName = \"" + program + "\" Arguments { " + arguments +
                        " } ServicesProvided { { ServiceName = \"" + service + "\" } } }");
  }

  void startHubWithProvider() {
    startHub({"-log", directory / "log"});
    std::string error;
    ASSERT_TRUE(provider.connect(port, error, "127.0.0.1", kPatience)) << error;
    provider.registerService("Echo", [](const auto& link) {
      link->onPacket(
          [echo = link.get()](const auto* bytes, auto size) { echo->send(bytes, size); });
    });
    provider.registerService("Garbler", [](const auto& link) {
      link->onPacket([echo = link.get()](const auto*, auto) { echo->send("?", 1); });
    });
    provider.registerService("Closer", [](const auto& link) {
      link->onPacket([echo = link.get()](const auto*, auto) { echo->close(); });
    });
    provider.registerService("Mute", {});
    provider.registerService("Refuser", {}, [](const auto&) { return false; });
    provider.onValueRequest([](const std::string& name) {
      return name == "colour" ? std::optional<std::string>("red \xFF") : std::nullopt;
    });
  }

  std::unique_ptr<HubProcess> begin(const std::string& line) const {
    std::istringstream words(line.find("--hub") == line.npos ? "--hub " + executable + " " + line
                                                             : line);
    std::vector<std::string> arguments;
    for (std::string word; words >> word;) arguments.push_back(word);
    return std::make_unique<HubProcess>(arguments, directory, 0, HUBLINKCTL);
  }
  // Serves the provider meanwhile.
  ExitCode endOf(HubProcess& process) {
    int status = -1;
    EXPECT_TRUE(await([&] {
      if (provider.isConnected()) provider.serve(1);
      return (status = process.waitForEnd(1)) != -1;
    }));
    return static_cast<ExitCode>(status);
  }
  struct Outcome {
    ExitCode code;
    std::string printed;
  };
  Outcome run(const std::string& line) {
    const auto process = begin(line);
    const ExitCode code = endOf(*process);
    return {code, process->printed()};
  }
  json facts(const std::string& line) {
    const Outcome outcome = run(line + " --json");
    EXPECT_EQ(outcome.code, ExitCode::fine) << line << ": " << outcome.printed;
    return json::parse(outcome.printed, nullptr, false);
  }
  struct Case {
    std::string line;
    ExitCode code;
    std::string printed;
  };
  void check(const std::vector<Case>& cases) {
    for (const Case& each : cases) {
      const Outcome outcome = run(each.line);
      EXPECT_EQ(outcome.code, each.code) << each.line << ": " << outcome.printed;
      EXPECT_THAT(outcome.printed, HasSubstr(each.printed)) << each.line;
    }
  }
  // All that need a hub say the same.
  void checkAll(ExitCode code, const std::string& text, const std::string& options = "") {
    for (const char* const line : kOnHub) {
      const Outcome outcome = run(options + line);
      EXPECT_EQ(outcome.code, code) << line;
      EXPECT_EQ(outcome.printed, "hublinkctl: " + text) << line;
    }
  }

  HublinkPlugin provider;
  std::vector<platform::ProcessId> started;  // by start
};

// Root's files are in the way of another user's tools, who have to agree all the same.
TEST_F(HublinkctlTest, NeedsNoFileThatAnotherUserHas) {
  if (platform::currentUser() != platform::kRoot)
    GTEST_SKIP() << "becoming another user takes root";
  namespace fs = std::filesystem;
  fs::permissions(directory.path(), fs::perms::all | fs::perms::sticky_bit);
  const std::string foreign = "Port = 7\nPid = " + std::to_string(platform::currentProcess());
  const std::string record = directory.write("svc_z", foreign);
  fs::last_write_time(directory.write("svc_z.lock", ""),
                      fs::file_time_type::clock::now() - std::chrono::hours(1));
  const std::string own = directory / "hublink_65534";
  const auto beginAsStranger = [&](const std::vector<std::string>& command) {
    std::vector<std::string> line = {"--reuid=65534", "--regid=65534", "--clear-groups", HUBLINKCTL,
                                     "--hub",         executable,      "--zone",         "z"};
    line.insert(line.end(), command.begin(), command.end());
    return std::make_unique<HubProcess>(line, directory, 0, "setpriv");
  };
  const auto isTold = [&](const std::string& command, ExitCode code, const std::string& text) {
    const auto tool = beginAsStranger({command});
    EXPECT_EQ(endOf(*tool), code) << command;
    EXPECT_THAT(tool->printed(), HasSubstr(text)) << command;
  };
  isTold("status", ExitCode::noHub,
         "hublinkctl: there is no hub in the zone z: no record " + own + "/svc_z\n");
  const auto stay = beginAsStranger({"start", "--stay"});
  ASSERT_TRUE(await([&] { return stay->printed().find("process: ") != std::string::npos; }));
  EXPECT_THAT(stay->printed(), StartsWith("started: yes\n")) << "and no word about the lock";
  isTold("start", ExitCode::fine, "started: no\n");
  isTold("find", ExitCode::fine, "record: " + own + "/svc_z\n");
  const std::string written = contents(own + "/svc_z");
  started.push_back(std::stoi(written.substr(written.find("Pid = ") + 6)));
  EXPECT_EQ(contents(record), foreign);
  const std::string status = "--port " + written.substr(7, written.find('\n') - 7) + " status";
  check({{status, ExitCode::noHub, " runs as another user (65534)\n"},
         {status + " --any-user", ExitCode::fine, "\nplugins: 1\n"}});
  fs::rename(own, directory / "moved");
  fs::create_directory(own);
  for (const char* const command : {"find", "status", "start"})
    isTold(command, ExitCode::noHub,
           "hublinkctl: there is no hub in the zone z: " + record +
               " belongs to another user, and " + own +
               " isn't a directory of this user's alone\n");
}

TEST_F(HublinkctlTest, TellsWhatAHubKnows) {
  startHubWithProvider();
  const std::string id = std::to_string(provider.pluginID());
  check({{"find", ExitCode::fine, "found: yes\nhost: "},
         {"status", ExitCode::fine, "\nplugins: 2\npersistent plugins: 2\nanswer milliseconds: "},
         {"provider Echo", ExitCode::fine, id + "\n"},
         {"provider Nobody", ExitCode::no, "hublinkctl: nobody provides Nobody\n"},
         {"provider Echo --directory /nowhere", ExitCode::no, "nobody provides Echo"},
         {"wait Echo", ExitCode::fine, id + "\n"},
         {"wait Nobody --timeout 1", ExitCode::no, "nobody provides Nobody"},
         {"value " + id + " colour", ExitCode::fine, "red \\xff\n"},
         {"value " + id + " size", ExitCode::no, "plugin " + id + " has no value size\n"},
         {"value " + id + " \x9B", ExitCode::no, "has no value \\x9b\n"},
         {"value 999 colour", ExitCode::no, "plugin 999 has no value colour\n"},
         {"ping Echo --count 5 --size 70000", ExitCode::fine, "packets: 5\nbytes: 70000\nmin "},
         {"ping Echo --size 0", ExitCode::fine, "packets: 10\nbytes: 0\n"},
         {"ping Garbler", ExitCode::no,
          "a packet came back changed: plugin " + id + " doesn't send back what it gets\n"},
         {"ping Closer", ExitCode::no, "the provider has ended the link\n"},
         {"ping Refuser", ExitCode::no, "Refuser: refused\n"},
         {"ping Nobody", ExitCode::no, "Nobody: not found: no description file "},
         {"ping Mute --timeout 1", ExitCode::noAnswer,
          "no answer in time: plugin " + id + " doesn't send back what it gets\n"},
         {"provider Nobody --json", ExitCode::no,
          "{\n  \"error\": \"nobody provides Nobody\"\n}\n"}});
  const json found = facts("find");
  EXPECT_EQ(found["found"], true);
  EXPECT_EQ(found["port"], port);
  const json status = facts("--port " + std::to_string(port) + " status");
  EXPECT_EQ(status["port"], port);
  EXPECT_EQ(status["plugins"], 2);
  EXPECT_EQ(status["process"], nullptr);
  EXPECT_EQ(facts("status")["process"], found["process"]);
  EXPECT_EQ(facts("provider Echo"), json({{"plugin", provider.pluginID()}}));
  EXPECT_EQ(facts("value " + id + " colour"), json({{"value", "red \uFFFD"}}));
  const json times = facts("ping Echo --count 20");
  EXPECT_EQ(times["packets"], 20);
  EXPECT_GT(times["min_microseconds"], 0);
  EXPECT_LE(times["min_microseconds"], times["median_microseconds"]);
  EXPECT_LE(times["median_microseconds"], times["p99_microseconds"]);
  EXPECT_LE(times["p99_microseconds"], times["max_microseconds"]);
  awaitCounts("2/2");
}

// The samples of a text for Prometheus by their names with labels.
std::map<std::string, double> samplesIn(const std::string& text) {
  const std::string label = R"([a-z_]+="([^"\\]|\\[\\"n])*")";
  std::map<std::string, double> samples;
  std::string family, type;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string sign, word;
    words >> sign >> word;
    if (word == "HELP") {
      words >> family;
      EXPECT_THAT(line, MatchesRegex("# HELP hublink_[a-z_]+ [A-Z].*\\."));
    } else if (word == "TYPE") {
      words >> word >> type;
      EXPECT_EQ(word, family);
      EXPECT_EQ(type, family.ends_with("_total") ? "counter" : "gauge");
    } else {
      EXPECT_THAT(line, MatchesRegex(family + "([{]" + label + "(," + label + ")*[}])? [0-9.]+"));
      const std::size_t place = line.rfind(' ');
      EXPECT_TRUE(samples.try_emplace(line.substr(0, place), std::stod(line.substr(place))).second)
          << line;
    }
  }
  return samples;
}

TEST_F(HublinkctlTest, GivesItsFiguresToPrometheus) {
  startHubWithProvider();
  const std::string service = "a \"b\" \\ \x1B[31m\n,c=\"";
  provider.registerService(service, {});
  HublinkPlugin requester;
  std::string error;
  ASSERT_TRUE(requester.connect(port, error, "127.0.0.1", kPatience)) << error;
  std::vector<std::shared_ptr<HublinkLink>> links;
  for (const std::string& name : {service, std::string("Echo")}) {
    ServiceQuery query;
    query.serviceName = name;
    requester.requestService(query,
                             [&](const ServiceReply& reply) { links.push_back(reply.link); });
  }
  int answers = 0;
  EXPECT_TRUE(await([&] { return provider.serve(1) && requester.serve(1) && links.size() == 2; }));
  links[1]->onPacket([&](const auto*, auto) { ++answers; });
  for (int i = 0; i < 3; ++i) links[1]->send("12345", 5);
  EXPECT_TRUE(await([&] { return provider.serve(1) && requester.serve(1) && answers == 3; }));
  links[0]->send("1", 1);
  requester.countPlugins();

  const auto samples = samplesIn(run("metrics").printed);
  const auto value = [&samples](const std::string& name) {
    const auto place = samples.find(name);
    return place == samples.end() ? -1 : place->second;
  };
  EXPECT_EQ(value("hublink_packets_total"), 7);
  EXPECT_EQ(value("hublink_links"), 2);
  EXPECT_EQ(value("hublink_launches"), 0);
  int known = 0;
  for (const json& plugin : facts("list plugins")) {
    const int id = plugin["plugin_id"];
    if (id != provider.pluginID() && id != requester.pluginID()) continue;
    const std::string labels = "{plugin=\"" + std::to_string(id) + "\",program=\"" +
                               plugin["program"].get<std::string>() + "\"}";
    for (const std::string field :
         {"sent_packets", "sent_bytes", "received_packets", "received_bytes"})
      EXPECT_EQ(value("hublink_plugin_" + field + "_total" + labels), plugin[field]) << field;
    for (const std::string field : {"services", "links", "queued_bytes", "stalled"})
      EXPECT_EQ(value("hublink_plugin_" + field + labels), plugin[field]) << field;
    EXPECT_EQ(value("hublink_plugin_start_time_seconds" + labels),
              plugin["since"].get<double>() / 1000);
    EXPECT_EQ(value("hublink_plugin_slow_since_seconds" + labels), 0);
    ++known;
  }
  EXPECT_EQ(known, 2);
  for (const json& link : facts("list links")) {
    std::string labels = link["service"] == "Echo" ? "{service=\"Echo\""
                                                   : R"({service="a \"b\" \\ \\x1b[31m\\n,c=\"")";
    for (const char* end : {"requester_id", "requester_rn", "provider_id", "provider_rn"})
      labels += std::string(",") + end + "=\"" + link[end].dump() + '"';
    EXPECT_EQ(value("hublink_link_requester_bytes_total" + labels + "}"), link["requester_bytes"]);
    EXPECT_EQ(value("hublink_link_provider_packets_total" + labels + "}"),
              link["service"] == "Echo" ? 3 : 0);
  }
  check({{"serve --http 0.0.0.0:0", ExitCode::usage, "takes --any-address\n"},
         {"serve --http example.org:1", ExitCode::usage, "is no IPv4 address with a port"}});
}

TEST_F(HublinkctlTest, HasTheHubDoThings) {
  expectedPrint = "Unable to startup service: " LAUNCHED_PLUGIN ".\n";  // of Ends
  startHubWithProvider();
  const std::string seen = directory / "seen";
  const std::string launch = "launch " LAUNCHED_PLUGIN " ";
  check(
      {{"provider OnDemand", ExitCode::no, "nobody provides OnDemand"},
       {"provider OnDemand --start", ExitCode::fine, "\n"},
       {"setenv HUB_TEST_VALUE status", ExitCode::fine, ""},
       {"debug " LAUNCHED_PLUGIN " --debugger gdb --options -q", ExitCode::fine, ""},
       {launch + "record " + seen + " provide Late --json -x", ExitCode::fine, "\n"},
       {"wait Late", ExitCode::fine, "\n"},
       {launch + "exit", ExitCode::no,
        "hublinkctl: Failed to launch plugin: " LAUNCHED_PLUGIN ": exited with status 3\n"},
       {"launch " + directory.write("none", ""), ExitCode::no, "/none: Permission denied\n"},
       {"provider Ends --start", ExitCode::no,
        "nobody provides Ends: " LAUNCHED_PLUGIN ": exited with status 3\n"},
       {"ping Lost", ExitCode::no, "Lost: not found: missing_program: No such file or directory\n"},
       {"provider Nobody --start", ExitCode::no,
        "nobody provides Nobody: no description file that the hub has read offers it\n"},
       {"provider Misnamed --start --timeout 1", ExitCode::noAnswer,
        "no answer within 1 s: " LAUNCHED_PLUGIN " has connected as plugin "},
       {"connect 127.0.0.1 " + std::to_string(freePort()), ExitCode::no, "unable to connect"},
       {"log status", ExitCode::fine, ""},
       {"log -- --two", ExitCode::fine, ""}});
  EXPECT_THAT(contents(seen), HasSubstr("provide\nLate\n--json\n-x\n-hl_debug_startup\n"
                                        "-hl_debug_debugger\ngdb\n-hl_debug_debugger_opts\n-q\n"));
  EXPECT_THAT(contents(seen), HasSubstr("\nstatus\n"));
  EXPECT_EQ(contents(directory / "log"), "status\n--two\n");
  check({{"setenv HUB_TEST_VALUE", ExitCode::fine, ""},
         {"debug " LAUNCHED_PLUGIN " --off", ExitCode::fine, ""},
         {launch + "record " + seen + " idle", ExitCode::fine, "\n"}});
  EXPECT_THAT(contents(seen), MatchesRegex("[^\n]*\nrecord\n[^\n]*\nidle\n[^\n]*\n\n"));

  std::unique_ptr<HubProcess> command;
  const auto link = awaitClient([&](std::uint16_t listening) {
    command = begin("connect --json 127.0.0.1 " + std::to_string(listening));
  });
  const auto listener = makeCounted<TestPlugin>(link.get());
  EXPECT_EQ(endOf(*command), ExitCode::fine);
  EXPECT_TRUE(listener->nextIs("StartLogging") || listener->nextIs("PluginId"));
  EXPECT_GT(json::parse(command->printed())["plugin"], provider.pluginID());
}

TEST_F(HublinkctlTest, NoHubADeadOneAndOneThatIsStarted) {
  const auto findsNone = [&] { return run("find").printed.substr(sizeof "hublinkctl: " - 1); };
  checkAll(ExitCode::noHub, findsNone());
  const std::string closed = std::to_string(freePort());
  checkAll(ExitCode::noHub, "there is no hub on port " + closed + "\n", "--port " + closed + " ");
  check({{"find", ExitCode::noHub, "there is no hub: no record "},
         {"find --json", ExitCode::noHub, "\"found\": false"},
         {"start --hub " + (directory / "none"), ExitCode::noHub, "there is no program "}});
  startHub();
  hub.reset();
  checkAll(ExitCode::noHub, findsNone());
  check({{"find", ExitCode::noHub, " has gone and left the record "}});

  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory.path());
  const auto stays = begin("start --stay --json --log texts --internal-log trace");
  std::filesystem::current_path(before);
  json told;
  EXPECT_TRUE(await([&] {
    told = json::parse(stays->printed(), nullptr, false);
    return told.is_object() || stays->waitForEnd(0) != -1;
  }));
  ASSERT_TRUE(told.is_object()) << stays->printed();
  started.push_back(told["process"]);
  EXPECT_EQ(told["started"], true);
  const json again = facts("start");
  EXPECT_EQ(again["started"], false);
  EXPECT_EQ(again["port"], told["port"]);
  EXPECT_EQ(again["process"], told["process"]);
  check({{"start --log other", ExitCode::fine, "the hub was there already"},
         {"status", ExitCode::fine, "\nplugins: 1\npersistent plugins: 1\n"},
         {"log text", ExitCode::fine, ""}});
  EXPECT_EQ(contents(directory / "texts"), "text\n");
  EXPECT_THAT(contents(directory / "trace"), HasSubstr("RECV: LogMessageEvent"));
  stays->terminate();
  EXPECT_EQ(endOf(*stays), ExitCode::fine);
  // Nobody keeps it up.
  EXPECT_TRUE(await([&] { return !platform::processExists(told["process"]); }));
  const json alone = facts("--zone " + directory.path().substr(1 + directory.path().rfind('/')) +
                           " start --no-loopback-only");
  started.push_back(alone["process"]);
  EXPECT_EQ(alone["started"], true);
}

// Whether a process has made a connection and sleeps.
bool waitsOnSocket(platform::ProcessId process) {
  const std::string place = "/proc/" + std::to_string(process);
  std::error_code failure;
  bool hasSocket = false;
  for (const auto& entry : std::filesystem::directory_iterator(place + "/fd", failure))
    hasSocket =
        hasSocket ||
        std::filesystem::read_symlink(entry.path(), failure).string().starts_with("socket:");
  return hasSocket && contents(place + "/stat").find(") S ") != std::string::npos;
}

TEST_F(HublinkctlTest, AHubThatIsStoppedOrGoesMeanwhile) {
  startHub();
  check({{"log text", ExitCode::no, "the hub keeps no plugins' log"}});
  const platform::ProcessId process = facts("find")["process"];
  const auto waits = begin("wait Nobody --timeout 60");
  const auto late = begin("wait Nobody --timeout 3");
  awaitCounts("1/3");
  ASSERT_EQ(kill(process, SIGSTOP), 0);
  EXPECT_EQ(endOf(*late), ExitCode::noAnswer);
  EXPECT_EQ(late->printed(), "hublinkctl: no answer within 3 s\n");
  const std::uint64_t start = platform::monotonicMilliseconds();
  checkAll(ExitCode::noAnswer, "the hub on port " + std::to_string(port) + " doesn't answer\n",
           "--timeout 0.2 ");
  check({{"--timeout 0.2 start", ExitCode::noAnswer, "doesn't answer"},
         {"find", ExitCode::fine, "found: yes"}});
  EXPECT_LT(platform::monotonicMilliseconds() - start, 30000u) << "12 times 0.2 s and the starts";
  const auto joins = begin("status --timeout 60");
  ASSERT_TRUE(await([&] { return waitsOnSocket(joins->id()); }));
  hub.reset();
  EXPECT_EQ(endOf(*joins), ExitCode::hubGone) << joins->printed();
  EXPECT_EQ(endOf(*waits), ExitCode::hubGone);
  EXPECT_EQ(waits->printed(), "hublinkctl: the hub has gone\n");
}

TEST_F(HublinkctlTest, AnInternalLogThatIsSwitchedOnAndOff) {
  startHub();
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory.path());
  check({{"log-internal hub.log", ExitCode::fine, ""}});
  std::filesystem::current_path(before);
  check({{"setenv A b", ExitCode::fine, ""},
         {"log-internal --off", ExitCode::fine, ""},
         {"setenv C d", ExitCode::fine, ""},
         {"log-internal " + (directory / "none/log"), ExitCode::no, "No such file"},
         {"log-internal", ExitCode::usage, "hublinkctl: log-internal takes FILE or --off"},
         {"log-internal x --off", ExitCode::usage, "hublinkctl: "}});
  const std::string log = contents(directory / "hub.log");
  EXPECT_THAT(log, HasSubstr("RECV: SetEnvironmentVariable: variable:\"A\""));
  EXPECT_THAT(log, ::testing::Not(HasSubstr("variable:\"C\"")));
}

// Among files that look like records, of which one is a hub's that hangs and one a dead hub's.
TEST_F(HublinkctlTest, AllHubsOfAUser) {
  EXPECT_EQ(facts("hubs"), json::array());
  startHub();
  const std::uint16_t namedPort = freePort(), deadPort = freePort();
  HubProcess named({"-port", std::to_string(namedPort), "-hl_zone", "named"}, directory);
  HubProcess dead({"-port", std::to_string(deadPort), "-hl_zone", "dead"}, directory);
  // A hub that nobody comes to stops.
  HublinkPlugin namedKeeper, deadKeeper;
  std::string error;
  ASSERT_TRUE(namedKeeper.connect(namedPort, error, "localhost", kPatience)) << error;
  ASSERT_TRUE(deadKeeper.connect(deadPort, error, "localhost", kPatience)) << error;
  const auto processOf = [&](const std::string& zone) {
    EXPECT_TRUE(await([&] { return run("find " + zone).code == ExitCode::fine; }));
    return facts("find " + zone)["process"].get<platform::ProcessId>();
  };
  processOf("--zone named");
  kill(processOf("--zone dead"), SIGKILL);
  const platform::ProcessId hanging = processOf("");
  kill(hanging, SIGSTOP);
  directory.write("svc_notes", "Port of call, and a Pid of nobody\n");
  directory.write("svc_large", std::string(1 << 20, '{'));
  std::filesystem::create_symlink(directory / "svc_named", directory / "svc_link");
  const json hubs = facts("hubs");
  kill(hanging, SIGCONT);
  ASSERT_EQ(hubs.size(), 2u) << hubs;
  const json& other = hubs[hubs[0]["zone"] == "named" ? 1 : 0];
  const json& one = hubs[hubs[0]["zone"] == "named" ? 0 : 1];
  EXPECT_EQ(one["zone"], "named");
  EXPECT_EQ(one["plugins"], 1);
  EXPECT_EQ(other["port"], port);
  EXPECT_EQ(other["plugins"], nullptr);
  EXPECT_EQ(other["answers"], false);
  EXPECT_THAT(run("hubs").printed, StartsWith("ZONE "));
}

class Teller : public Forms_teller_Impl {
 protected:
  void peerRecordTaken() override { Greeting("a\xC2\x9B\n"); }
  void Send(bool u1, std::uint16_t u2, std::int32_t u4, std::uint64_t u8, float f4, double f8,
            const char* str, const char* fn, const Send_block& block, StringArray names,
            STPArray<std::uint64_t> longs, STPArray<std::uint16_t> shorts) override {
    Sent(u1, u2, u4, u8, f4, f8, str, fn, {{block.inner.str}, block.floats}, names, longs, shorts);
  }
  void Divide(std::int32_t dividend, std::int32_t divisor, double& quotient,
              gen_text& remark) override {
    quotient = static_cast<double>(dividend) / divisor;
    if (quotient < 0) remark = gen_strdup("below \x9B zero");
  }
};

TEST_F(HublinkctlTest, SpeaksAnyInterface) {
  startHubWithProvider();
  std::vector<CountedPtr<Teller>> tellers;
  provider.registerService("Forms", [&](const auto& link) {
    tellers.push_back(makeCounted<Teller>());
    link->attach(tellers.back().get());
    tellers.back()->sendNegotiate(false, nullptr, nullptr);
  });
  const std::string id = std::to_string(provider.pluginID());
  check(
      {{"introspect Forms", ExitCode::fine,
        "side: teller\nversion: 3\ntakes:\n  Divide two-way \"dividend:%u4% divisor:%u4% | "},
       {"introspect Forms", ExitCode::fine, "fields of what it sends:\n  text\n"},
       {"introspect Forms --catalogue " FORMS, ExitCode::fine, "  Greeting \"text:%str% \"\n"},
       {"introspect Forms --catalogue " + executable, ExitCode::usage, "hublink:1:1: "},
       {"introspect Mute --timeout 1", ExitCode::noAnswer, "tells of no interface in time"},
       {"introspect hublink.status", ExitCode::fine, "  RequestHub \"cookie:%u4% \"\n"},
       {"introspect 999", ExitCode::no, "there is no plugin 999"},
       {"call Forms Divide dividend=-1 divisor=2", ExitCode::fine,
        "quotient: -0.5\nremark: below \\x9b zero\n"},
       {"call Forms Divide dividend=1 divisor=2 dividend=3", ExitCode::usage, "given twice"},
       {"call Forms Nothing", ExitCode::no, "takes no message Nothing: it takes Divide, Send\n"},
       {"call Forms Send u=1", ExitCode::usage, "no field u: the message has u1, u2, u4, u8, f4, "},
       {"call Forms Send u1=300", ExitCode::usage, "field u1: 300 doesn't fit %u1%\n"},
       {"call Forms Send u4=4294967296", ExitCode::usage, "field u4: 4294967296 doesn't fit %u4%"},
       {"call Forms Send u8=-1", ExitCode::usage, "field u8: -1 doesn't fit %u8%"},
       {"call Forms Send f4=1e39", ExitCode::usage, "field f4: 1e+39 doesn't fit %f4%"},
       {"call Forms Send k=1", ExitCode::usage, "field k is the count of shorts, which tells it"},
       {"call Forms Send block={\"inner\":{\"text\":1}}", ExitCode::usage,
        "no field block.inner.text: block.inner has str\n"},
       {"call Forms Send names=[\"a\",1]", ExitCode::usage,
        "field names.data[1]: 1 doesn't fit %str%"},
       {"call Forms Send names=a", ExitCode::usage, "field names: \"a\" is no object with data\n"},
       {"call Forms Divide --wait Nothing --timeout 1", ExitCode::noAnswer, "hasn't sent Nothing"},
       {"call hublink.status KickPlugin plugin_id=999", ExitCode::fine, "there is no plugin 999\n"},
       {"call hublink.status RequestHub cookie=7 --wait HubDescription", ExitCode::fine,
        "HubDescription  cookie=7  version="},
       {"listen Forms --count 1", ExitCode::fine, "(unlisted)  text=\"a\\xc2\\x9b\\n\"\n"}});

  const json all = {{"u1", true},
                    {"u2", 65535},
                    {"u4", -2},
                    {"u8", 18446744073709551615u},
                    {"f4", 1.5},
                    {"f8", -1e300},
                    {"str", "{\"x"},
                    {"fn", "/a"},
                    {"block", {{"inner", {{"str", "in"}}}, {"floats", {0.5, 2}}}},
                    {"names", {"b", nullptr, ""}},
                    {"longs", {1, 9007199254740993}},
                    {"shorts", {7}}};
  std::string send = "call Forms Send --json --wait Sent";
  for (const auto& [name, value] : all.items())
    send += " " + name + "=" + (value.is_string() ? value.get<std::string>() : value.dump());
  const json byFormat = json::parse(run(send + " --catalogue " FORMS).printed, nullptr, false);
  EXPECT_EQ(byFormat, json({{"message", "Sent"}, {"fields", all}}));
  // By what the fields tell of themselves.
  json bare = all;
  bare["block"]["n"] = 2;
  bare["block"].erase("floats");
  bare["names"] = {{"count", all["names"]}};
  bare["count"] = all["longs"];
  bare.erase("longs");
  bare["k"] = 1;
  json byItself = json::parse(run(send).printed, nullptr, false)["fields"];
  EXPECT_EQ(byItself["block"]["floats"].size(), 2u) << "of an unknown type";
  byItself["block"].erase("floats");
  EXPECT_EQ(byItself, bare);
  EXPECT_EQ(json::parse(run("call Forms Send --json --wait Sent --catalogue " FORMS).printed,
                        nullptr, false)["fields"]["names"],
            json::array());

  // Those of its services that have no interface are told beside it.
  const Outcome plugin = run("introspect --timeout 0.5 " + id);
  EXPECT_EQ(plugin.code, ExitCode::no) << plugin.printed;
  EXPECT_THAT(plugin.printed, HasSubstr("plugin: " + id + "\nversion: 1\n"));
  EXPECT_THAT(plugin.printed, HasSubstr("\nservice: Forms\nplugin: " + id + "\nside: teller\n"));
  EXPECT_THAT(plugin.printed, HasSubstr("the provider of Echo tells of no interface in time\n"));
}

TEST_F(HublinkctlTest, ALivePictureOfTheTraffic) {
  startHubWithProvider();
  const auto pings = begin("ping Echo --count 10000000 --size 1000");
  awaitCounts("2/3");
  const Outcome two = run("top --frames 2 --interval 0.3 --links");
  EXPECT_EQ(two.code, ExitCode::fine);
  const std::string second = two.printed.substr(two.printed.rfind("\nSERVICE "));
  EXPECT_THAT(two.printed, HasSubstr("BYTES/S"));
  EXPECT_THAT(second, MatchesRegex("\nSERVICE [^\n]*\nEcho +3 +2 +[0-9]+ m?s +[0-9]+ +"
                                   "[0-9.]+ [KM]iB +[^\n]*\n"));
  pings->terminate();

  // On a terminal, by keys, which is given back after a key and after a signal.
  const std::string top = HUBLINKCTL " --port " + std::to_string(port) + " top; stty -a' /dev/null";
  HubProcess terminals({"-c", "(sleep 1; printf 'l\\033[Ar'; sleep 1; printf q) | script -qec '" +
                                  top + "; script -qec 'timeout --foreground 2 " + top},
                       directory, 0, "sh");
  EXPECT_EQ(endOf(terminals), ExitCode::fine);
  const std::string shown = terminals.printed();
  EXPECT_THAT(shown,
              MatchesRegex(".*\x1b\\[\\?1049h.*PROGRAM.*REQUESTER.*links by traffic reversed.*"
                           "\x1b\\[\\?1049l.*isig icanon iexten echo .*"
                           "\x1b\\[\\?1049h.*PROGRAM.*\x1b\\[\\?1049l.*"
                           "isig icanon iexten echo .*"));
}

// The names of services are others' texts, which a shell must not run.
TEST_F(HublinkctlTest, CompletesWhatTheHubHas) {
  startHubWithProvider();
  provider.registerService("E$(touch oops)", {});
  const std::string line =
      std::string("source ") + COMPLETION +
      "; complete() { COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _hublinkctl; "
      "echo \"${COMPREPLY[*]}\"; }; line() { complete " HUBLINKCTL " --port " +
      std::to_string(port) + " \"$@\"; }; ";
  HubProcess shell(
      {"-c", line + "line provider E; line kick ''; line call hublink.status RequestL"}, directory,
      0, "bash");
  EXPECT_EQ(endOf(shell), ExitCode::fine);
  EXPECT_THAT(shell.printed(),
              MatchesRegex("Ends Echo\n1 2 [0-9]+\nRequestLaunches RequestLinks\n|"
                           "Echo Ends\n1 2 [0-9]+\nRequestLaunches RequestLinks\n"));
}

TEST_F(HublinkctlTest, UsageAndHelp) {
  for (const char* const line : {"", "nonsense", "provider", "find x", "--port 0 status",
                                 "--port 1 find", "--timeout 0 status", "setenv A=B c",
                                 "connect localhost 65536", "ping Echo --count 0", "value x y"}) {
    const Outcome outcome = run(line);
    EXPECT_EQ(outcome.code, ExitCode::usage) << line;
    EXPECT_EQ(outcome.printed.rfind("hublinkctl: ", 0), 0u) << outcome.printed;
  }
  check({{"nonsense", ExitCode::usage, "hublinkctl: there is no subcommand nonsense;"},
         {"setenv \x9B=", ExitCode::usage, "\"\\x9b=\""},
         {"--version", ExitCode::fine, "hublinkctl "}});
  for (std::string line : {"find", "start"}) check({{line + " --help", ExitCode::fine, "--json"}});
  for (const std::string line : kOnHub)
    check({{line.substr(0, line.find(' ')) + " --help", ExitCode::fine, "Exit codes:\n  0  fine"}});
}

}  // namespace
