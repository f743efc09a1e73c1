// What the hub tells of itself, to a viewer on the link of a plugin that does nothing else.
#include <gmock/gmock.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "generated/hubstatus_viewer_impl.h"
#include "support/hub_test.h"

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::Le;
using ::testing::StartsWith;

namespace {

using Number = std::int32_t;
using Large = std::uint64_t;
using Text = const char*;

std::string shown(Text text) {
  return text ? text : "-";
}

// Keeps what comes as lines, with those fields that tests look at.
class Viewer : public HubStatus_viewer_Impl {
 public:
  std::vector<std::string> items, events;
  std::string next;
  bool isComplete = false;
  Number lost = 0;

 protected:
  template <class... Fields>
  static std::string line(const Fields&... fields) {
    std::ostringstream text;
    ((text << fields << ' '), ...);
    return text.str();
  }
  void HubDescription(Number, Text version, Text, Number port, Number process, Number, Large, Text,
                      Text, Text, bool, Text log, Number open, Number, Number ids, Number,
                      Large rns, Large, Number plugins, Number negotiating, Number persistent,
                      Number services, Number links, Number launches, Number waiting, Large packets,
                      Large, bool whenIdle) override {
    EXPECT_GT(open, 3);
    EXPECT_NE(version, nullptr);
    items.push_back(line(port, process, shown(log), ids, rns, plugins, negotiating, persistent,
                         services, links, launches, waiting, packets, whenIdle));
    isComplete = true;
  }
  void PluginDescription(Number, Number id, Text program, Number, Number, bool launched, Text road,
                         Text, Large, bool isThere, bool persistent, Text directory, Text,
                         Number services, Number links, Number waiting, Large queued, Large slow,
                         Number waitsFor, Number stalled, Large sent, Large, Large received, Large,
                         Text, Number) override {
    items.push_back(line(id, shown(program), launched, road, isThere, persistent, shown(directory),
                         services, links, waiting, sent, received));
    if (slow != 0) events.push_back(line("slow", id, queued > 0, waitsFor, stalled));
  }
  void ServiceDescription(Number, Text name, Text state, Number rn, Number plugin, Number waiting,
                          Text program, Text, Number) override {
    items.push_back(line(name, state, rn, plugin, waiting, shown(program)));
  }
  void LinkDescription(Number, Text service, Number requester, Number requesterRN, Number provider,
                       Number providerRN, Large since, Large to, Large toBytes, Large from,
                       Large fromBytes) override {
    EXPECT_GT(since, 0u);
    items.push_back(
        line(service, requester, requesterRN, provider, providerRN, to, toBytes, from, fromBytes));
  }
  void LaunchDescription(Number, Text program, Text service, Number process, Large since,
                         Large until, Number waiting) override {
    EXPECT_GT(process, 0);
    items.push_back(line(program, shown(service), until - since, waiting));
  }
  void ListEnd(Number, Text following) override {
    next = following ? following : "";
    isComplete = true;
  }
  void HubEvent(Large, Text kind, Number plugin, Number other, Text text, Text detail,
                Number left) override {
    events.push_back(line(kind, plugin, other, shown(text), shown(detail)));
    lost += left;
  }
};

class StatusTest : public HubTest {
 protected:
  using Ask = void (HubStatus_viewer_Impl::*)(Number, Text, Number, bool, RetryHandler*,
                                              STPStatus*);

  CountedPtr<Viewer> look(const Plugin& plugin) {
    plugin->query("hublink.status", 2, false);
    EXPECT_EQ(plugin->next(), "PluginIdForServiceReplyEvent 2 'hublink.status' 0 1");
    return openOfHub<Viewer>(plugin, "hublink.status", 4);
  }
  /// All items, in pages of so many.
  std::vector<std::string> list(Viewer& viewer, Ask ask, Number most = 0) {
    viewer.items.clear();
    viewer.next.clear();
    do {
      viewer.isComplete = false;
      (viewer.*ask)(7, viewer.next.empty() ? nullptr : viewer.next.c_str(), most, false, nullptr,
                    nullptr);
      EXPECT_TRUE(await([&] { return viewer.isComplete; }));
    } while (!viewer.next.empty());
    return viewer.items;
  }
  std::string describeHub(Viewer& viewer) {
    viewer.items.clear();
    viewer.isComplete = false;
    viewer.RequestHub(7);
    EXPECT_TRUE(await([&] { return viewer.isComplete; }));
    return viewer.items.empty() ? "" : viewer.items[0];
  }
};

TEST_F(StatusTest, TellsWhatItHolds) {
  startHub();
  RawEnds ends = joinTwo(true);
  auto& [a, b] = ends;
  const Plugin provider = join();
  const Plugin requester = join();
  const Number rn = provider->provide("Known");
  requester->ask("Known", 5);
  provider->nextNumber("ConnectionRequestedEvent");
  provider->ConnectionAcceptedEvent(rn, rn + 1, true);
  EXPECT_THAT(requester->next(), StartsWith("ConnectionReplyEvent"));
  requester->ask("Unknown", 6, provider->id);
  requester->SetWorkingDir("/some/where");
  requester->counts();
  const CountedPtr<Viewer> viewer = look(first);
  // Bytes are counted on the link that they belong to, and only for their own sender.
  const auto wire = [](std::uint32_t from, std::uint32_t to) {
    std::string packet = packetBytes({.destination = to}, "8 bytes.");
    const std::string source = wordBytes(from);
    return packet.replace(8, 4, source);
  };
  for (int i = 0; i < 3; ++i) a.peer.send(wire(a.rn, b.rn));
  a.peer.send(wire(static_cast<std::uint32_t>(rn + 1), b.rn));
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(b.peer.next().isEmpty());
  const std::string process = std::to_string(hub->id()), ports = std::to_string(port);
  EXPECT_EQ(describeHub(*viewer), ports + " " + process + " - 5 5 5 0 5 1 1 0 1 4 0 ");
  EXPECT_THAT(list(*viewer, &Viewer::RequestPlugins, 2),
              ElementsAre("1 - 0 tcp 1 1 - 0 0 0 0 0 ", StartsWith("2 "), StartsWith("3 "),
                          "4 hub_tests 0 local 1 1 - 1 1 0 0 0 ",
                          "5 hub_tests 0 local 1 1 /some/where 0 1 1 0 0 "));
  EXPECT_THAT(list(*viewer, &Viewer::RequestServices, 1),
              ElementsAre("Known registered 12 4 0 - ", "Unknown awaited -1 0 1 - "));
  EXPECT_THAT(list(*viewer, &Viewer::RequestLinks), ElementsAre("Known 5 13 4 12 0 0 0 0 "));
  EXPECT_THAT(list(*viewer, &Viewer::RequestLaunches), ElementsAre());
}

// More than one answer holds comes in pages, in which nothing is missing or twice.
TEST_F(StatusTest, ManyItemsComeInPages) {
  startHub();
  const Plugin provider = join();
  std::vector<std::string> names;
  for (int i = 0; i < 500; ++i) names.push_back("service " + std::to_string(i % 400));
  std::vector<Text> pointers;
  for (const std::string& name : names) pointers.push_back(name.c_str());
  provider->RegisterServiceList({500, pointers.data()});
  EXPECT_TRUE(provider->nextIs("RNBlockReservedEvent"));
  const CountedPtr<Viewer> viewer = look(first);
  for (const Number most : {0, 7, 64, 100000}) {
    const auto items = list(*viewer, &Viewer::RequestServices, most);
    EXPECT_EQ(items.size(), 500u);
    EXPECT_EQ(std::set<std::string>(items.begin(), items.end()).size(), 500u);
  }
}

TEST_F(StatusTest, TellsWhatHappens) {
  startHub();
  const CountedPtr<Viewer> viewer = look(first);
  viewer->Subscribe(true);
  settle();
  const Plugin provider = join();
  const Number rn = provider->provide("S");
  const Plugin requester = join();
  requester->ask("S", 1);
  provider->nextNumber("ConnectionRequestedEvent");
  provider->ConnectionAcceptedEvent(rn, rn + 1, true);
  requester->next();
  provider->UnregisterService(rn);
  provider->counts();
  const char* missing[] = {"no_such_program"};
  requester->RequestPluginLaunch({1, missing}, 1, false, nullptr);
  requester->next();
  provider->vanish();
  requester->next();
  awaitCounts("2/2");
  settle();
  EXPECT_THAT(
      viewer->events,
      ElementsAre("plugin came 2 0 - - ", "service registered 2 0 S - ", "plugin came 3 0 - - ",
                  "asked 3 0 S - ", "answered 3 2 S accepted ", "link up 3 2 S - ",
                  "service withdrawn 2 0 S - ", "launch begun 0 0 no_such_program - ",
                  "launch failed 0 0 no_such_program No such file or directory ",
                  "plugin gone 2 0 - - ", StartsWith("link down 2 3 ")));
  viewer->Subscribe(false);
  settle();
  const std::size_t heard = viewer->events.size();
  const Plugin late = join();
  settle();
  EXPECT_EQ(viewer->events.size(), heard);
}

// A viewer that doesn't read loses events and is told how many; nobody else notices.
TEST_F(StatusTest, AViewerThatDoesNotReadHoldsUpNobody) {
  startHub();
  const Plugin deaf = join();
  const CountedPtr<Viewer> viewer = look(deaf);
  viewer->Subscribe(true);
  deaf->counts();
  const std::string name(1000, 'x');
  const char* names[] = {name.c_str()};
  for (int i = 0; i < 4000; ++i) first->RegisterServiceList({1, names});
  settle();  // which serves nobody else
  EXPECT_EQ(deaf->counts(), "2/2");
  first->provide("The last one");
  deaf->counts();
  EXPECT_GT(viewer->lost, 1000);
  // It may have been called slow itself, and recovered.
  EXPECT_THAT(static_cast<std::size_t>(viewer->lost) + viewer->events.size(),
              AllOf(Ge(4001u), Le(4003u)));
}

TEST_F(StatusTest, ItsOwnerMayStepIn) {
  isShared = true;
  startHub({"-hl_zone", ""});
  const Plugin victim = join();
  const CountedPtr<Viewer> viewer = look(first);
  gen_text error;
  EXPECT_TRUE(viewer->KickPlugin(77, &error));
  EXPECT_STREQ(error, "there is no plugin 77");
  EXPECT_TRUE(viewer->KickPlugin(victim->id, &error));
  EXPECT_STREQ(error, nullptr);
  EXPECT_EQ(victim->next(), "closed");
  // A plugin that registers the hub's own name is what others find by it, on its own terms.
  const Plugin usurper = join();
  usurper->provide("hublink.status");
  first->ask("hublink.status", 3);
  EXPECT_TRUE(usurper->nextIs("ConnectionRequestedEvent"));
  const std::string log = directory / "late";
  EXPECT_TRUE(viewer->SetInternalLog(log.c_str(), &error));
  EXPECT_STREQ(error, nullptr);
  settle();
  EXPECT_TRUE(viewer->SetInternalLog((directory / "no/such").c_str(), &error));
  EXPECT_THAT(error.get(), HasSubstr("No such file or directory"));
  EXPECT_TRUE(viewer->SetInternalLog(nullptr, &error));
  EXPECT_THAT(contents(log), HasSubstr("NumPersistentServices"));
  EXPECT_TRUE(std::filesystem::exists(directory / "svc"));
  EXPECT_TRUE(viewer->StopHub(true, &error));
  settle();
  EXPECT_TRUE(await([&] { return !std::filesystem::exists(directory / "svc"); }));
  usurper->vanish();
  EXPECT_FALSE(viewer->KickPlugin(first->id, &error)) << "the answer goes with the link";
  EXPECT_EQ(hub->waitForEnd(), 0);
}

}  // namespace
