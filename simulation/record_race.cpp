#include "simulation/record_race.h"

#include <ctime>

#include "indgen/access.h"
#include "platform/file.h"
#include "platform/process.h"
#include "services/hublink/hublink.h"
#include "services/hublink/main_loop.h"
#include "simulation/stranger.h"

namespace {

constexpr const char* kZone = "race";
constexpr std::uint32_t kMachine = 0x7F000001;
// Milliseconds. No lock may seem old, since files have the system's time and not this machine's.
constexpr std::uint64_t kLongestRace = 20000;
constexpr std::uint64_t kLongestStep = 1200;
constexpr int kForEver = 60000;
// Longer than an idle hub stays.
constexpr std::uint64_t kIdleTime = 6000;

}  // namespace

RecordRace::RecordRace(const Scenario& scenario, const ServiceDatabase& database,
                       const std::string& program, std::function<void(const std::string& line)> say)
    : scenario_(scenario), database_(database), say_(std::move(say)) {
  choice_.zone = kZone;
  choice_.program = program;
  choice_.tcpOnly = scenario.seed / 10 % 5 == 0;
  world_.guarded = world_.self().user;
  world_.wallStart = std::int64_t{std::time(nullptr)} * 1000;
  world_.install("hublink", [this](const auto& arguments) { return runHub(arguments); });
}

RecordRace::~RecordRace() {
  world_.endAll();
  removeActiveHub(kZone, nullptr, nullptr);
  unlockActiveHub(kZone, nullptr, nullptr);
}

// As the hub's entry does it.
int RecordRace::runHub(const std::vector<std::string>& arguments) {
  hubs_.push_back(&world_.self());
  platform::installStopSignals();
  Hublink hub(database_, 0, nullptr, nullptr);
  hub.entrance().setTcpOnly(choice_.tcpOnly);
  if (arguments.size() > 2 && arguments[1] == "-connect_hublink" &&
      !hub.connectToPeer("localhost", static_cast<std::uint32_t>(std::stoul(arguments[2]))))
    return 1;
  if (!hub.startListening(false, kZone, true)) return 1;
  say_("process " + std::to_string(world_.self().id) + " is a hub on " +
       std::to_string(static_cast<std::uint16_t>(hub.entrance().port())));
  runMainLoop(hub);
  hub.shutdownPlugins(hub.hasNoActiveRecord(), 1000);
  say_("the hub on " + std::to_string(static_cast<std::uint16_t>(hub.entrance().port())) + " ends");
  return 0;
}

void RecordRace::startHub() {
  say_("a hub is started by hand");
  world_.start("hub", [this](const auto& arguments) { return runHub(arguments); });
}

std::uint16_t& RecordRace::startTool(int stay) {
  const std::string name = "tool" + std::to_string(tools_.size());
  std::uint16_t& port = found_.emplace_back(std::uint16_t{0});
  tools_.push_back(&world_.start(
      name, [this, name, stay, &port](const auto&) { return runTool(name, stay, port); }));
  return port;
}

// Tells the port of the hub that it has found.
int RecordRace::runTool(const std::string& name, int stay, std::uint16_t& port) {
  HublinkPlugin plugin;
  std::string error;
  const int before = disturbances_;
  const HubSearch outcome = joinOrStartHub(plugin, choice_, error);
  if (outcome != HubSearch::joined && outcome != HubSearch::started) {
    say_(name + " finds no hub: " + error);
    if (before == disturbances_ && !lockLost_ && !world_.self().killed)
      world_.report(name + " finds no hub: " + error);
    return 1;
  }
  plugin.requestLocation([&port](const std::string&, std::int32_t at) {
    if (at > 0) port = static_cast<std::uint16_t>(at);
  });
  plugin.serveUntil([&port] { return port != 0; }, 1000);
  say_(name + (outcome == HubSearch::started ? " starts" : " joins") + " the hub on " +
       std::to_string(port));
  plugin.serveUntil([this] { return isOver_; }, stay);
  say_(name + " leaves");
  return 0;
}

platform::sim::Process* RecordRace::living(const Processes& processes, std::uint64_t who) const {
  Processes alive;
  for (platform::sim::Process* process : processes)
    if (!process->killed) alive.push_back(process);
  return alive.empty() ? nullptr : alive[who % alive.size()];
}

void RecordRace::take(const Step& step) {
  const std::uint64_t choice = step.order.choice;
  world_.reseed(step.seed);
  say_("step " + std::to_string(step.number));
  const std::uint64_t kind = choice % 20;
  if (kind < 11) {
    startTool(static_cast<int>(choice / 20 % 4000));
  } else if (kind < 14) {
    startHub();
  } else if (platform::sim::Process* hub = living(hubs_, step.who); hub && kind < 17) {
    ++disturbances_;
    say_(std::string("a hub ") + (kind == 14 ? "is told to stop" : "dies"));
    kind == 14 ? static_cast<void>(platform::terminateProcess(hub->id)) : world_.kill(*hub);
  } else if (platform::sim::Process* tool = living(tools_, step.who); tool && kind == 17) {
    lockLost_ = true;
    ++disturbances_;
    say_(tool->name + " dies");
    world_.kill(*tool);
  } else if (kind == 18) {
    startIntruder(world_, kMachine, choice / 200);
  } else if (kind == 19) {
    startSquatter(world_, kMachine);
  }
  // Some meet each other within their steps.
  if (choice / 100 % 2 == 0)
    world_.pass(choice / 200 % kLongestStep);
  else
    for (std::uint64_t turns = choice / 200 % 60; turns > 0 && world_.step(); --turns) {
    }
}

// Whoever comes now finds one hub, which outlives those that others have left, and its record with
// it.
void RecordRace::checkEnd() {
  // Nobody uses the elder, which gives up when the record is the younger one's already.
  for (int hubs = 0; hubs < 2; ++hubs) {
    startHub();
    world_.pass(400);
  }
  const std::uint16_t& first = startTool(kForEver);
  world_.pass(kIdleTime);
  const std::uint16_t& second = startTool(kForEver);
  world_.pass(1000);
  const std::uint16_t found = findActiveHub(kZone, nullptr, nullptr);
  if (!lockLost_ && (first == 0 || first != second || found != first))
    world_.report("tools find the hubs on " + std::to_string(first) + " and " +
                  std::to_string(second) + ", and the record names " + std::to_string(found));
  isOver_ = true;
  for (platform::sim::Process* tool : tools_) platform::sim::World::wake(*tool);
  world_.pass(2 * kIdleTime);
  for (const platform::sim::Process* hub : hubs_) {
    if (!hub->killed)
      world_.report("the hub of process " + std::to_string(hub->id) + " doesn't end");
    if (hub->killed && hub->end.status() == 0 && hub->descriptorsAtEnd != 0)
      world_.report("a hub has left descriptors open");
  }
  if (!lockLost_ && readActiveHub(kZone, nullptr, nullptr).port != -1)
    world_.report("a record is left behind");
}

std::string RecordRace::go() {
  world_.reseed(scenario_.seed);
  world_.weather.partialTransfer = static_cast<unsigned>(scenario_.seed / 10 % 3 * 100);
  world_.weather.interruption = static_cast<unsigned>(scenario_.seed / 10 % 4 * 100);
  const std::uint64_t start = world_.now();
  for (const Step& step : scenario_.steps) {
    if (world_.now() - start > kLongestRace) break;
    take(step);
    if (!world_.fault().empty()) return world_.fault();
  }
  world_.weather = {};
  world_.pass(kIdleTime);
  if (world_.fault().empty()) checkEnd();
  return world_.fault();
}
