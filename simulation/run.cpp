#include "simulation/run.h"

#include "active_hub/plugin_options.h"
#include "services/hublink/hublink.h"
#include "services/hublink/main_loop.h"
#include "simulation/byte_actor.h"
#include "simulation/hub_inspector.h"
#include "simulation/library_actor.h"
#include "simulation/stranger.h"
#include "stp_transport/transport/stp_process_state.h"

namespace {

constexpr std::uint32_t kThisMachine = 0x0A000001, kOtherMachine = 0x0A000002;
// A launch gives up after half a minute.
constexpr std::uint64_t kLaunchPatience = 31000;
constexpr std::size_t kMostActors = 24;
// Bytes; small enough that a plugin which falls silent holds others up.
constexpr std::int64_t kSmallBacklog = 20000;
// And so small that a plugin which is slow for a moment does.
constexpr std::int64_t kSmallHold = 5000;
// What may come on top of that: an answer, and one turn of each of those who send.
constexpr std::int64_t kBacklogSlack = 600000;

}  // namespace

Run::Run(const Scenario& scenario, const ServiceDatabase& database,
         std::function<void(const std::string& line)> say)
    : scenario_(scenario), database_(database), ledger_(world_), stage_{world_, ledger_,       0,
                                                                        0,      false,         {},
                                                                        {},     std::move(say)} {
  stage_.startPlugin = [this](std::uint16_t port, std::int32_t cookie) {
    cast<ByteActor>({.name = "started" + std::to_string(actors_.size()),
                     .seed = scenario_.seed + actors_.size(),
                     .port = port,
                     .startCookie = cookie},
                    kThisMachine);
  };
  stage_.startListener = [this] {
    if (world_.chance(200)) return startSquatter(world_, kThisMachine);
    const std::uint16_t port = world_.freePort();
    cast<ByteActor>({.name = "listener" + std::to_string(actors_.size()),
                     .seed = scenario_.seed + actors_.size(),
                     .port = port,
                     .listens = true},
                    kThisMachine);
    return port;
  };
}

// The processes still use what this object holds.
Run::~Run() {
  world_.endAll();
}

// A process of its own for a new actor.
template <class Kind>
Actor& Run::cast(ActorRole role, std::uint32_t address) {
  actors_.push_back(std::make_unique<Kind>(stage_, std::move(role)));
  Actor& actor = *actors_.back();
  actor.process = &world_.start(
      actor.name(), [&actor](const auto&) { return actor.run(); }, address);
  return actor;
}

void Run::arrive(std::uint64_t choice) {
  if (actors_.size() >= kMostActors) return;
  ActorRole role{
      .name = "plugin" + std::to_string(actors_.size()), .seed = choice, .port = stage_.hubPort};
  if (choice % 3 == 0) role.service = serviceName(choice >> 8);
  role.negotiates = choice % 11 != 0;
  const std::uint32_t address = choice % 5 == 0 ? kOtherMachine : kThisMachine;
  if (choice % 2 == 0 && role.negotiates)
    cast<LibraryActor>(std::move(role), address);
  else
    cast<ByteActor>(std::move(role), address);
}

// What the hub starts: programs that do their work, or hang, or die at several moments.
void Run::installPrograms() {
  const auto child = [this](const char* program, bool isLibrary, bool negotiates, int life) {
    world_.install(program, [=, this](const std::vector<std::string>& arguments) {
      ActorRole role{.name = program + std::to_string(actors_.size()),
                     .seed = scenario_.seed + actors_.size(),
                     .negotiates = negotiates,
                     .life = life};
      for (const Provision& provision : provisions())
        if (std::string(program) == provision.program) role.service = provision.service;
      return runChild(std::move(role), isLibrary, arguments);
    });
  };
  child("byte_child", false, true, -1);
  child("library_child", true, true, -1);
  child("mute_child", false, false, -1);
  child("leaving_child", false, true, 1);
  world_.install("dying_child", [](const auto&) { return 3; });
  world_.install(kBooty, [this](const auto&) {
    world_.report("a stranger has a program started");
    return 0;
  });
  world_.install("hanging_child", [](const auto&) {
    bool failed = false;
    while (!failed) platform::readiness().wait(-1, failed);
    return 0;
  });
}

int Run::runChild(ActorRole role, bool isLibrary, const std::vector<std::string>& arguments) {
  for (std::size_t i = 0; i + 1 < arguments.size(); ++i)
    if (arguments[i] == plugin_options::kHubPort)
      role.port = static_cast<std::uint16_t>(std::stoi(arguments[i + 1]));
  role.arguments = arguments;
  if (isLibrary)
    actors_.push_back(std::make_unique<LibraryActor>(stage_, std::move(role)));
  else
    actors_.push_back(std::make_unique<ByteActor>(stage_, std::move(role)));
  Actor& actor = *actors_.back();
  actor.process = &world_.self();
  return actor.run();
}

int Run::runHub() {
  {
    if (scenario_.seed % 2 == 1) stpProcess().backlogLimit = kSmallBacklog;
    if (scenario_.seed % 4 < 2) stpProcess().holdLimit = kSmallHold;
    Hublink hub(database_, 0, nullptr, nullptr);
    hub.entrance().setTcpOnly(scenario_.seed % 11 == 0);
    HublinkInspector inspector(hub);
    inspector_ = &inspector;
    if (!hub.connectToPeer("localhost", stage_.anchorPort) ||
        !hub.startListening(!isShared_, "simulation"))
      return 2;
    stage_.hubPort = static_cast<std::uint16_t>(hub.entrance().port());
    platform::installStopSignals();
    runMainLoop(hub, [&] {
      ++passes_;
      const std::string fault = inspector.firstFault();
      if (!fault.empty()) world_.report(fault);
      for (const auto& [serial, transport] : stpProcess().transportsBySerial)
        if (transport->writeCount() > stpProcess().backlogLimit + kBacklogSlack)
          world_.report("the hub keeps " + std::to_string(transport->writeCount()) +
                        " bytes for one plugin");
    });
    if (inspector.connections() == 0 && !inspector.isEmpty())
      world_.report("the hub keeps something when all have gone: " + inspector.describe());
    if (inspector.connections() == 0 && !platform::stopRequested() &&
        world_.keepsChild(world_.self()))
      world_.report("the hub keeps a child when all have gone");
    hub.shutdownPlugins(hub.hasNoActiveRecord(), 1000);
    inspector_ = nullptr;
  }
  if (!stpProcess().transportsBySerial.empty()) world_.report("the hub has left transports behind");
  return 0;
}

Actor* Run::livingActor(std::uint64_t who) const {
  std::vector<Actor*> living;
  for (const auto& actor : actors_)
    if (actor->process && !actor->process->killed) living.push_back(actor.get());
  return living.empty() ? nullptr : living[who % living.size()];
}

// With some goes another one at the same moment.
void Run::kill(Actor& actor, std::uint64_t choice) {
  stage_.say(actor.name() + " dies");
  actor.lose();
  world_.kill(*actor.process);
  Actor* const other = choice % 3 == 1 ? livingActor(choice / 3) : nullptr;
  if (other) kill(*other);
}

void Run::take(const Step& step) {
  world_.reseed(step.seed);
  const std::uint64_t choice = step.order.choice;
  Actor* actor = livingActor(step.who);
  stage_.say("step " + std::to_string(step.number) + ": " + actName(step.order.act) +
             (actor ? " " + actor->name() : ""));
  if (step.order.act == Act::arrive)
    arrive(choice);
  else if (step.order.act == Act::intrude)
    startIntruder(world_, kThisMachine, choice >> 16);
  else if (step.order.act == Act::wait)
    world_.pass(choice % 4 == 0 ? choice % 40000 : choice % 700);
  else if (actor && step.order.act == Act::die)
    kill(*actor, choice);
  else if (actor)
    actor->order(step.order);
  // Some steps are seen through to their end, others meet the next ones halfway.
  if (choice % 4 == 0) {
    world_.settle();
    return;
  }
  for (std::uint64_t turns = choice / 4 % 40; turns > 0; --turns)
    if (!world_.step()) return;
}

// Until nobody has anything to do, and no launch holds the hub any more: it has made passes in each
// second of a time that is longer than any launch.
bool Run::comeToRest() {
  constexpr std::uint64_t kSecond = 1000;
  std::uint64_t unheld = 0;
  for (std::uint64_t time = 0; time < 40 * kLaunchPatience; time += kSecond) {
    const std::uint64_t before = passes_;
    if (!world_.pass(kSecond)) return false;
    unheld = passes_ > before ? unheld + kSecond : 0;
    if (unheld >= kLaunchPatience || hub_->killed) return true;
  }
  world_.report("the hub doesn't come out of a launch");
  return false;
}

void Run::checkRest() {
  if (!inspector_) return;
  for (const auto& actor : actors_) {
    if (!actor->isConnected() || actor->pluginID() == -1) continue;
    const int requests =
        ledger_.open(*actor, Question::service) + ledger_.open(*actor, Question::query);
    const int waiting = inspector_->waitingRequests(actor->pluginID());
    if (requests > waiting || waiting > requests + ledger_.givenUp(*actor))
      ledger_.fault(*actor, std::to_string(requests) + " requests are open, and " +
                                std::to_string(waiting) + " wait in the hub");
    const int starts = ledger_.open(*actor, Question::launch);
    if (starts != inspector_->waitingStarts(actor->pluginID()))
      ledger_.fault(*actor, std::to_string(starts) + " starts are open, and " +
                                std::to_string(inspector_->waitingStarts(actor->pluginID())) +
                                " wait in the hub");
    if (ledger_.open(*actor, Question::numbers) + ledger_.open(*actor, Question::location) != 0)
      ledger_.fault(*actor, "is owed numbers or a location");
  }
  ledger_.checkRest();
}

// By a signal, or by the end of all plugins.
bool Run::endHub() {
  const bool bySignal = scenario_.seed % 2 == 0;
  world_.reseed(scenario_.seed);
  if (bySignal) {
    platform::terminateProcess(hub_->id);
  } else {
    for (std::size_t i = 0; i < actors_.size(); ++i) {
      Actor& actor = *actors_[i];
      if (!actor.process || actor.process->killed) continue;
      if (world_.chance(500))
        kill(actor);
      else
        actor.order({Act::leave, 0});
    }
  }
  for (int tries = 0; tries < 60 && !hub_->returned; ++tries) {
    if (!world_.pass(1000)) return false;
    // Whoever never got to know its ID takes no orders.
    if (!bySignal)
      for (const auto& actor : actors_)
        if (actor->process && !actor->process->killed && actor->pluginID() == -1) kill(*actor);
  }
  if (!hub_->returned) world_.report("the hub doesn't end");
  if (hub_->returned && hub_->end.status() != 0)
    world_.report("the hub's exit status is " + std::to_string(hub_->end.status()));
  if (hub_->descriptorsAtEnd != 0)
    world_.report("the hub has left descriptors open: " + std::to_string(hub_->descriptorsAtEnd));
  return world_.pass(10000);
}

void Run::setWeather() {
  world_.weather.partialTransfer = static_cast<unsigned>(scenario_.seed % 4 * 100);
  world_.weather.interruption = static_cast<unsigned>(scenario_.seed % 5 * 60);
  world_.weather.acceptFailure = scenario_.seed % 7 == 0 ? 100 : 0;
  world_.weather.refusal = scenario_.seed % 6 == 0 ? 50 : 0;
  world_.weather.slowAnswer = scenario_.seed % 3 == 0 ? 300 : 0;
  world_.weather.noAnswer = scenario_.seed % 11 == 0 ? 100 : 0;
  world_.weather.streamSize = std::size_t{512} << scenario_.seed % 9;
}

std::string Run::go() {
  world_.reseed(scenario_.seed);
  world_.guarded = world_.self().user;
  isShared_ = scenario_.seed % 3 == 0;
  installPrograms();
  // Who knows where the hub will be.
  if (scenario_.seed % 13 == 0) {
    startSquatter(world_, kThisMachine);
    world_.settle();
  }
  cast<ByteActor>({.name = "anchor", .seed = scenario_.seed, .listens = true}, kThisMachine);
  while (stage_.anchorPort == 0 && world_.step()) {
  }
  hub_ = &world_.start(
      "hublink", [this](const auto&) { return runHub(); }, kThisMachine);
  while (stage_.hubPort == 0 && world_.step()) {
  }
  setWeather();
  for (const Step& step : scenario_.steps) {
    take(step);
    if (!world_.fault().empty()) return world_.fault();
  }
  world_.weather = {};
  stage_.finishing = true;
  for (const auto& actor : actors_)
    if (actor->process && !actor->process->killed) actor->order({Act::answer, 1});
  stage_.say("everybody finishes");
  if (comeToRest()) checkRest();
  if (world_.fault().empty()) endHub();
  return world_.fault();
}
