// Requesters on the hub's machine and on another one: who gets what is local to the hub.
#include <gtest/gtest.h>

#include "hublink_plugin/hublink_plugin.h"
#include "indgen/scratch.h"
#include "platform/sim/world.h"
#include "services/hublink/hublink.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

using Outcome = ServiceReply::Outcome;

constexpr std::uint32_t kHere = 0x7F000001, kElsewhere = 0x0A000002;

TEST(Elsewhere, OnlyRequestersOnTheHubsMachineGetWhatIsLocalToIt) {
  platform::sim::World world;
  const Scratch scratch;
  ServiceDatabase database;
  ASSERT_TRUE(
      database.read_file(scratch
                             .write("a.kvs",
                                    "Services { ExecName = \"a.so\" SharedObject = yes\n"
                                    "  ServicesProvided { { ServiceName = \"Library\" } } }\n")
                             .c_str()));
  std::uint16_t port = 0;
  world.start("hub", [&](const auto&) {
    Hublink hub(database, 0, nullptr, nullptr);
    hub.startListening(true, nullptr);
    port = hub.getPort();
    while (!platform::stopRequested()) hub.servicePass(500);
    return 0;
  });
  world.settle();
  const auto run = [&](std::uint32_t address, const std::function<void(HublinkPlugin&)>& body) {
    world.start(
        "plugin",
        [&port, body](const auto&) {
          HublinkPlugin plugin;
          std::string error;
          if (!plugin.connect(port, error)) return 1;
          body(plugin);
          return 0;
        },
        address);
    world.pass(1000);
  };
  const auto ask = [&](std::uint32_t address, const char* service, bool localOnly) {
    Outcome outcome = Outcome::disconnected;
    run(address, [&](HublinkPlugin& plugin) {
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
  run(kElsewhere, [](HublinkPlugin& plugin) {
    plugin.registerService("Running", [](const auto&) {});
    plugin.run();
  });
  EXPECT_EQ(ask(kElsewhere, "Running", true), Outcome::accepted);
  EXPECT_EQ(ask(kHere, "Running", false), Outcome::accepted);
  EXPECT_EQ(ask(kHere, "Running", true), Outcome::notFound);
  world.endAll();
  EXPECT_EQ(world.fault(), "");
}

TEST(Elsewhere, OtherUsersOfTheHubsMachineAreRefusedAndFillNoLog) {
  platform::sim::World world;
  const Scratch scratch;
  ServiceDatabase database;
  const std::string name = scratch / "log";
  std::uint16_t port = 0;
  world.start("hub", [&](const auto&) {
    std::FILE* log = std::fopen(name.c_str(), "w");
    {
      Hublink hub(database, 0, nullptr, log);
      hub.startListening(true, nullptr);
      port = hub.getPort();
      while (!platform::stopRequested()) hub.servicePass(500);
    }
    std::fclose(log);
    return 0;
  });
  world.settle();
  int ids = 0;
  const auto come = [&](std::uint32_t user, std::uint32_t address) {
    world
        .start(
            "plugin",
            [&](const auto&) {
              HublinkPlugin plugin;
              plugin.setAnyUser(true);
              std::string error;
              if (plugin.connect(port, error)) ids = ids * 10 + plugin.pluginID();
              return 0;
            },
            address)
        .user = user;
    world.settle();
  };
  for (int i = 0; i < 20; ++i) come(65534, kHere);
  for (const std::uint32_t user : {1000u, 0u}) come(user, kHere);
  come(65534, kElsewhere);
  EXPECT_EQ(ids, 123) << "the hub's own user, root, and whoever is elsewhere";
  world.pass(2000);
  // Those to whom the hub is told to connect are no exception.
  std::string answers;
  for (const std::uint32_t user : {65534u, 1000u}) {
    std::uint16_t listening = 0;
    world
        .start("listener",
               [&](const auto&) {
                 const int socket = getFreeListenSocket(&listening, nullptr, true);
                 const auto link = makeCounted<STPTransport>();
                 link->listenOnFD(socket, true, nullptr);
                 std::string error;
                 return HublinkPlugin().attach(link.get(), error) ? 0 : 1;
               })
        .user = user;
    world.settle();
    world.start("asker", [&](const auto&) {
      HublinkPlugin plugin;
      std::string error;
      if (!plugin.connect(port, error)) return 1;
      bool answered = false;
      plugin.requestPluginConnect("localhost", listening, [&](std::int32_t id, const auto& text) {
        answers += std::to_string(id) + text.substr(0, 25) + ";";
        answered = true;
      });
      return plugin.serveUntil([&] { return answered; }, -1) ? 0 : 1;
    });
    world.settle();
  }
  EXPECT_EQ(answers, "-1Hublink unable to connect;6;");
  come(1001, kHere);
  world.endAll();
  EXPECT_EQ(world.fault(), "");
  const std::string log = contents(name);
  const auto lines = [&log](const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++count;
    return count;
  };
  EXPECT_EQ(lines(": user 65534.\n"), 4u);
  EXPECT_EQ(lines("Refused to connect to port "), 1u);
  EXPECT_EQ(lines(": user 1001.\n"), 1u);
}

}  // namespace
