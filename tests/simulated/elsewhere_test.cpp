// Requesters on the hub's machine and on another one: who gets what is local to the hub.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "hublink_plugin/hublink_plugin.h"
#include "indgen/scratch.h"
#include "platform/sim/world.h"
#include "service_database/service_database.h"
#include "services/hublink/hublink.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

using Outcome = ServiceReply::Outcome;

constexpr std::uint32_t kHere = 0x7F000001, kElsewhere = 0x0A000002;
// Users: the hub's own, root, and anybody else.
constexpr std::uint32_t kOwn = 1000, kRoot = 0, kStranger = 65534;

class Elsewhere : public testing::Test {
 protected:
  ~Elsewhere() override {
    world.endAll();
    EXPECT_EQ(world.fault(), "");
  }
  void startHub() {
    world.start("hub", [this](const auto&) {
      Hublink hub(database, 0, nullptr, log.get());
      hub.startListening(true, nullptr);
      port = static_cast<std::uint16_t>(hub.entrance().port());
      while (!platform::stopRequested()) hub.servicePass(500);
      return 0;
    });
    world.settle();
  }
  void start(std::uint32_t user, std::uint32_t address, const std::function<int()>& body) {
    world
        .start(
            "it", [body](const auto&) { return body(); }, address)
        .user = user;
    world.settle();
  }
  void startPlugin(std::uint32_t user, std::uint32_t address,
                   const std::function<void(HublinkPlugin&)>& body) {
    start(user, address, [this, body] {
      HublinkPlugin plugin;
      plugin.setAnyUser(true);
      std::string error;
      if (plugin.connect(port, error)) body(plugin);
      return 0;
    });
  }

  platform::sim::World world;
  const Scratch scratch;
  ServiceDatabase database;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log{std::tmpfile(), std::fclose};
  std::uint16_t port = 0;
};

TEST_F(Elsewhere, OnlyRequestersOnTheHubsMachineGetWhatIsLocalToIt) {
  ASSERT_TRUE(
      database.read_file(scratch
                             .write("a.kvs",
                                    "Services { ExecName = \"a.so\" SharedObject = yes\n"
                                    "  ServicesProvided { { ServiceName = \"Library\" } } }\n")
                             .c_str()));
  startHub();
  const auto ask = [&](std::uint32_t address, const char* service, bool localOnly) {
    Outcome outcome = Outcome::disconnected;
    startPlugin(kOwn, address, [&](HublinkPlugin& plugin) {
      ServiceQuery query;
      query.serviceName = service;
      query.localOnly = localOnly;
      outcome = plugin.requestService(query).outcome;
    });
    return outcome;
  };
  EXPECT_EQ(ask(kHere, "Library", true), Outcome::sharedObject);
  EXPECT_EQ(ask(kElsewhere, "Library", false), Outcome::sharedObject);
  EXPECT_EQ(ask(kElsewhere, "Library", true), Outcome::notFound);
  // A provider that runs is local to whoever is on its machine.
  startPlugin(kOwn, kElsewhere, [](HublinkPlugin& plugin) {
    plugin.registerService("Running", [](const auto&) {});
    plugin.run();
  });
  EXPECT_EQ(ask(kElsewhere, "Running", true), Outcome::accepted);
  EXPECT_EQ(ask(kHere, "Running", false), Outcome::accepted);
  EXPECT_EQ(ask(kHere, "Running", true), Outcome::notFound);
}

TEST_F(Elsewhere, OtherUsersOfTheHubsMachineAreRefusedAndFillNoLog) {
  startHub();
  int ids = 0;
  const auto come = [&](std::uint32_t user, std::uint32_t address) {
    startPlugin(user, address, [&](HublinkPlugin& plugin) { ids = ids * 10 + plugin.pluginID(); });
  };
  for (int i = 0; i < 20; ++i) come(kStranger, kHere);
  for (const std::uint32_t user : {kOwn, kRoot}) come(user, kHere);
  come(kStranger, kElsewhere);
  EXPECT_EQ(ids, 123) << "the hub's own user, root, and whoever is elsewhere";
  world.pass(2000);
  // Those to whom the hub is told to connect are no exception.
  std::string answers;
  for (const std::uint32_t user : {kStranger, kOwn}) {
    std::uint16_t listening = 0;
    start(user, kHere, [&] {
      const int socket = getFreeListenSocket(&listening, nullptr, true);
      const auto link = makeCounted<STPTransport>();
      link->listenOnFD(socket, true, nullptr);
      std::string error;
      return HublinkPlugin().attach(link.get(), error) ? 0 : 1;
    });
    startPlugin(kOwn, kHere, [&](HublinkPlugin& plugin) {
      bool answered = false;
      plugin.requestPluginConnect("localhost", listening, [&](std::int32_t id, const auto& text) {
        answers += std::to_string(id) + text.substr(0, 25) + ";";
        answered = true;
      });
      plugin.serveUntil([&] { return answered; }, -1);
    });
  }
  EXPECT_EQ(answers, "-1Hublink unable to connect;6;");
  come(1001, kHere);
  std::string text(4096, '\0');
  std::rewind(log.get());
  text.resize(std::fread(text.data(), 1, text.size(), log.get()));
  const auto lines = [&text](const std::string& end) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(end, at)) != std::string::npos; ++at) ++count;
    return count;
  };
  EXPECT_EQ(lines(": user 65534.\n"), 4u);
  EXPECT_EQ(lines("Refused to connect to port "), 1u);
  EXPECT_EQ(lines(": user 1001.\n"), 1u);
}

}  // namespace
