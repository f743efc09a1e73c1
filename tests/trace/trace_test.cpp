// The chart of a hub's internal log: of a recorded one, of broken ones, and while it grows.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/clock.h"
#include "support/hub_test.h"
#include "tools/hublinkctl/trace/html_page.h"
#include "tools/hublinkctl/trace/text_chart.h"
#include "tools/hublinkctl/trace/trace_reader.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

const std::string kStamp = "13440040483.211: ";
const std::string kKnown = kStamp + "Plugin 1:\t SEND: PluginId: plugin_id:0x1\n";

// Each event as one line: its kind, whose it is, and what it says.
std::vector<std::string> read(const std::string& log, std::size_t piece = std::string::npos) {
  std::vector<std::string> events;
  trace::Reader reader([&](const trace::Event& event) {
    std::string line = std::to_string(static_cast<int>(event.kind)) + " " +
                       trace::pluginLabel(event.pluginID.value_or(0), event.pluginName) + " " +
                       event.message;
    for (const trace::Field& field : event.fields) {
      line += " " + field.name + "=" + field.value;
      for (const std::string& item : field.items) line += "[" + item + "]";
    }
    events.push_back(line + (event.text.empty() ? "" : " ?" + event.text));
  });
  for (std::size_t at = 0; at < log.size(); at += std::min(piece, log.size()))
    reader.feed(std::string_view(log).substr(at, piece));
  reader.finish();
  return events;
}

std::string chartOf(const std::string& log) {
  std::ostringstream out;
  trace::TextChart chart(out, 0);
  trace::Reader reader([&](const trace::Event& event) { chart.add(event); });
  reader.feed(log);
  reader.finish();
  chart.finish();
  return out.str();
}

const std::string kFirst = "1 1 PluginId plugin_id=1";

}  // namespace

class TraceTest : public HubTest {
 protected:
  std::unique_ptr<HubProcess> run(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"trace"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return std::make_unique<HubProcess>(all, directory, 0, HUBLINKCTL);
  }
  static bool awaitPrinted(const HubProcess& process, const std::string& text) {
    return await([&] { return process.printed().find(text) != std::string::npos; });
  }
};

TEST_F(TraceTest, RecordedSession) {
  const auto chart = run({TRACE_DIRECTORY "/session.log"});
  EXPECT_EQ(chart->waitForEnd(), 0);
  EXPECT_EQ(chart->printed(), contents(TRACE_DIRECTORY "/session.chart"));
  const auto missing = run({directory / "missing"});
  EXPECT_EQ(missing->waitForEnd(), 2);
  EXPECT_THAT(missing->printed(), HasSubstr("can't open"));
  const auto other = run({TRACE_DIRECTORY "/trace_test.cpp"});
  EXPECT_EQ(other->waitForEnd(), 2);
  EXPECT_THAT(other->printed(), EndsWith("trace_test.cpp is no internal log of a hub\n"));
  const auto nowhere = run({TRACE_DIRECTORY "/session.log", "--html", directory / "missing/page"});
  EXPECT_EQ(nowhere->waitForEnd(), 2);
  EXPECT_THAT(nowhere->printed(), HasSubstr("can't write"));
}

TEST_F(TraceTest, ChosenRequests) {
  const auto requestsOf = [&](std::vector<std::string> options) {
    options.insert(options.begin(), TRACE_DIRECTORY "/session.log");
    const auto chart = run(options);
    EXPECT_EQ(chart->waitForEnd(), 0);
    std::string text = chart->printed();
    return std::pair(text.substr(0, text.find("\nRequests:\n")),
                     text.substr(std::min(text.find("\nRequests:\n"), text.size())));
  };
  const auto [lines, render] = requestsOf({"--service", "Render", "--plugin", "1"});
  EXPECT_THAT(lines, HasSubstr("renderer(4): ConnectionAcceptedEvent"));
  EXPECT_THAT(lines, Not(HasSubstr("Vault")));
  EXPECT_THAT(render,
              testing::ContainsRegex("^\nRequests:\n#[0-9]+ plugin 1: "
                                     "RequestServiceConnection Render: accepted by plugin 4"));
  EXPECT_EQ(std::count(render.begin(), render.end(), '\n'), 3);
  const auto [broken, failed] = requestsOf({"--failed"});
  EXPECT_THAT(failed, HasSubstr("Vault: refused by plugin 3"));
  EXPECT_THAT(failed, Not(HasSubstr("accepted")));
}

// What a viewer needs: slices that don't overlap on a track, and each flow within slices.
TEST_F(TraceTest, AsAChromeTrace) {
  const std::string file = directory / "out.json";
  EXPECT_EQ(run({TRACE_DIRECTORY "/session.log", "--perfetto", file})->waitForEnd(), 0);
  const auto data = nlohmann::json::parse(contents(file));
  std::map<std::pair<int, int>, double> ends;
  std::map<int, std::string> flows, names;
  std::set<std::tuple<int, int, double>> begins;
  for (const auto& event : data["traceEvents"]) {
    const std::string phase = event["ph"];
    const std::pair track(event["pid"].get<int>(), event["tid"].get<int>());
    if (phase == "M" && event["name"] == "process_name") names[track.first] = event["args"]["name"];
    if (phase == "X") {
      EXPECT_GE(event["ts"].get<double>(), ends[track]) << event;
      EXPECT_GT(event["dur"], 0);
      ends[track] = event["ts"].get<double>() + event["dur"].get<double>();
      begins.insert({track.first, track.second, event["ts"].get<double>()});
    }
    if (phase == "s" || phase == "f") {
      EXPECT_TRUE(begins.contains({track.first, track.second, event["ts"].get<double>()})) << event;
      flows[event["id"]] += phase;
    }
  }
  EXPECT_EQ(names[4], "renderer 4");
  EXPECT_FALSE(flows.empty());
  for (const auto& [id, phases] : flows) EXPECT_THAT(phases, testing::MatchesRegex("sf+")) << id;
}

TEST(TraceReaderTest, BrokenLinesStandAsTheyAreAndSpoilNoNeighbour) {
  const std::string heading = kStamp + "name(x)(7):\t RECV: LogMessageEvent: message:";
  const struct {
    std::string log;
    std::vector<std::string> events;
  } cases[] = {
      {"", {}},
      {"junk\n", {"11 0  ?junk"}},
      {heading + "\"a \"b\", c:d\ne\"\n", {"0 name(x)(7) LogMessageEvent message=a \"b\", c:d\ne"}},
      {heading + "\"a\n\nb\"\n", {"0 name(x)(7) LogMessageEvent message=a\n\nb"}},
      {heading + "\"a\nb\n", {"0 name(x)(7) LogMessageEvent ?message:\"a", "11 0  ?b"}},
      {heading, {"0 name(x)(7) LogMessageEvent ?message:"}},
      // The plugins' log in the same file, with a text that has no line end.
      {"said " + kKnown, {"11 0  ?said ", kFirst}},
      {heading + "\"a\nsaid " + kKnown,
       {"0 name(x)(7) LogMessageEvent ?message:\"a", "11 0  ?said ", kFirst}},
      {kStamp + "Plugin 2:\t SEND FAILED: PluginId\n", {"3 2 PluginId"}},
      {kStamp + "Plugin 2:\t SEND: X: a:0x1, l:{count:0x2 data:\"p\", q\", \"\", }, b:\"\"\n",
       {"1 2 X a=1 l=[p\", q][] b="}},
      {kStamp + "Plugin 2:\t SEND: X: a:0x1, l:{count:0x2 data:0x1, \n",
       {"1 2 X a=1 ?, l:{count:0x2 data:0x1, "}},
      {kStamp + "Plugin 2:\t SOLD: X: \n", {"10 0  ?Plugin 2:\t SOLD: X: "}},
      {kStamp + "Connection to plugin ID 9 down.\n", {"8 9  ?Connection to plugin ID 9 down."}},
      {kStamp + "\n", {"10 0 "}},
      {"13440040483.2: x\n", {"11 0  ?13440040483.2: x"}},
      {std::string("\0\xff\n", 3), {std::string("11 0  ?\0\xff", 9)}},
  };
  for (const auto& entry : cases) {
    std::vector<std::string> expected = entry.events;
    expected.insert(expected.begin(), kFirst);
    const bool closed = entry.log.empty() || entry.log.back() == '\n';
    if (closed) expected.push_back(kFirst);
    for (const std::size_t piece : {std::string::npos, std::size_t{1}})
      EXPECT_EQ(read(kKnown + entry.log + (closed ? kKnown : ""), piece), expected) << entry.log;
  }
}

TEST(TraceReaderTest, TextThatNeverEndsIsGivenOut) {
  std::string log = kStamp + "Plugin 1:\t RECV: LogMessageEvent: message:\"\n";
  for (int i = 0; i < 5000; ++i) log += "line\n";
  EXPECT_EQ(read(log + kKnown).size(), 5002u);
}

TEST(TraceChartTest, MoreLanesThanFitAndNothingActsOnTheTerminal) {
  std::string log;
  for (int id = 1; id <= 40; ++id)
    log += kStamp + "Plugin " + std::to_string(id) + ":\t SEND: StartLogging: \n";
  log += "\x1b[2J\n" + kStamp + "Connection to plugin ID 40 down.\n" + kStamp +
         "Connection to plugin ID 2 down.\n" + kStamp + "Plugin 41:\t SEND: StartLogging: \n";
  const std::string chart = chartOf(log);
  EXPECT_THAT(chart, HasSubstr("\\x1b[2J"));
  EXPECT_THAT(chart, HasSubstr("|-------->|    |"));  // the lane of plugin 2 has been free
  EXPECT_THAT(chart, EndsWith("  41: StartLogging\n"));
}

// Questions that look the same but for their order, and those that come to nothing.
TEST(TraceChartTest, WhatBelongsTogether) {
  const auto ask = [](const std::string& plugin, const std::string& service) {
    return kStamp + "Plugin " + plugin + ":\t RECV: RequestServiceConnection: serviceName:\"" +
           service + "\", client_cookie:" + (service == "B" ? "0x2" : "0x1") + "\n";
  };
  const auto line = [](const std::string& text) { return kStamp + text + "\n"; };
  const std::string chart = chartOf(
      ask("1", "A") + line("Launching plugin bin/a.") + ask("1", "B") + ask("1", "A") +
      ask("2", "A") + line("a(3):\t SEND: PluginId: plugin_id:0x3") +
      line("a(3):\t RECV: RegisterServiceList: name_list:{count:0x0 data:}") +
      line("a(3):\t RECV: RegisterServiceList: name_list:{count:0x1 data:\"A\", }") +
      line("a(3):\t SEND: RNBlockReservedEvent: rn_list:{count:0x1 data:0xa, }") +
      line("a(3):\t SEND: ConnectionRequestedEvent: requesting_plugin_id:0x1, serviceRN:0xa, "
           "remoteRN:0xb") +
      line("a(3):\t SEND: ConnectionRequestedEvent: requesting_plugin_id:0x1, serviceRN:0xa, "
           "remoteRN:0xc") +
      line("Connection to plugin ID 2 down.") +
      line("a(3):\t RECV: ConnectionAcceptedEvent: serviceRN:0xa, remoteRN:0xb, accept:0x1") +
      line("Plugin 1:\t SEND: ConnectionReplyEvent: localRN:0xb, wasFound:0x1, wasAccepted:0x1, "
           "plugin_id:0x3, client_cookie:0x1") +
      line("Connection to plugin ID 3 down.") +
      line("Plugin 1:\t SEND: ConnectionReplyEvent: localRN:0xffffffff, wasFound:0x0, "
           "client_cookie:0x1"));
  EXPECT_THAT(chart, HasSubstr("#1 Launching plugin bin/a."));
  EXPECT_THAT(chart, HasSubstr("#1 a(3): PluginId"));
  EXPECT_THAT(chart, HasSubstr("#3 a(3): ConnectionRequestedEvent requesting_plugin_id=1, "
                               "serviceRN=10, remoteRN=12"));
  EXPECT_THAT(chart, HasSubstr("#1 #3 Connection to plugin ID 3 down."));
  EXPECT_THAT(
      chart,
      EndsWith("#1 plugin 1: RequestServiceConnection A: accepted by plugin 3 after 0 ms, ended as "
               "plugin 3 went\n"
               "#2 plugin 1: RequestServiceConnection B: no answer\n"
               "#3 plugin 1: RequestServiceConnection A: the provider has gone after 0 ms\n"
               "#4 plugin 2: RequestServiceConnection A: plugin 2, which asked, went "
               "first after 0 ms\n"
               "#5 plugin 3: RegisterServiceList A: answered after 0 ms\n"));
}

TEST(TracePageTest, TextsCantBreakOutOfTheData) {
  trace::HtmlPage page;
  trace::Event event;
  event.text = "</script><!--\xff{{data}}";
  page.add(event);
  const std::string text = page.text("<b>");
  const std::string opening = "id=\"data\">";
  const std::size_t begin = text.find(opening) + opening.size();
  const auto data =
      nlohmann::json::parse(text.substr(begin, text.find("</script>", begin) - begin));
  EXPECT_EQ(data["events"][0][6], "</script><!--\xef\xbf\xbd{{data}}");
  EXPECT_EQ(data["title"], "<b>");
}

TEST_F(TraceTest, FollowsAHubToItsEnd) {
  const std::string log = directory / "internal";
  startHub({"-hl_log_internal", log});
  const auto chart = run({"--follow", log});
  EXPECT_TRUE(awaitPrinted(*chart, "LocationEvent"));
  const auto other = run({"--follow", log});
  EXPECT_TRUE(awaitPrinted(*other, "LocationEvent"));
  other->terminate();
  EXPECT_EQ(other->waitForEnd(), 0);
  const Plugin second = join();
  second->LogMessageEvent("two\nlines");
  EXPECT_TRUE(awaitPrinted(*chart, "2: LogMessageEvent message=\"two\\nlines\""));
  // Texts that hold what looks like other lines: in one, and behind what looks like its end.
  const std::string line = kStamp + "Plugin 8:\t SEND: StartLogging: ";
  second->LogMessageEvent(("a\n" + line + "\n>" + line + "\nsaid " + line).c_str());
  second->LogMessageEvent(("x\", b:0x1\nsaid " + line + "\n" + line + "\n").c_str());
  const std::string name = "x(8):\t SEND: StartLogging: \n" + line;
  const char* const argument = name.c_str();
  second->RequestPluginLaunch({1, &argument}, 1, false, nullptr);
  EXPECT_TRUE(awaitPrinted(*chart, "Launching plugin x(8)"));
  hub->terminate();
  EXPECT_EQ(chart->waitForEnd(), 0);
  const std::string printed = chart->printed();
  EXPECT_THAT(printed, HasSubstr("Shutting down Hublink."));
  std::string shown = line;
  shown.replace(shown.find('\t'), 1, "\\t");
  EXPECT_THAT(printed, HasSubstr("2: LogMessageEvent message=\"a\\n" + shown + "\\n>" + shown +
                                 "\\nsaid " + shown + "\""));
  EXPECT_THAT(printed, HasSubstr("Launching plugin x(8):\\t SEND: StartLogging: \\n"));
  EXPECT_THAT(printed, Not(HasSubstr(" 8: StartLogging")));
}

TEST_F(TraceTest, FollowsALogThatBeginsAnew) {
  const std::string log = directory.write("log", kKnown + kKnown);
  const auto chart = run({"--follow", log});
  EXPECT_TRUE(awaitPrinted(*chart, "PluginId"));
  directory.write("log", kStamp + "Shutting down Hublink.\n");
  EXPECT_EQ(chart->waitForEnd(), 0);
  EXPECT_THAT(chart->printed(), HasSubstr("The log begins anew."));
}
