#include "simulation/run.h"

#include <algorithm>
#include <array>
#include <random>

#include "platform/clock.h"
#include "services/hublink/hublink.h"
#include "services/hublink/main_loop.h"
#include "simulation/byte_actor.h"
#include "simulation/hub_inspector.h"
#include "simulation/library_actor.h"
#include "simulation/programs.h"
#include "simulation/stranger.h"
#include "stp_transport/transport/stp_process_state.h"

namespace {

constexpr std::uint32_t kThisMachine = 0x0A000001, kOtherMachine = 0x0A000002;
// Milliseconds in which the hub makes a pass, whatever it has in hand.
constexpr std::uint64_t kPass = 600;
// Milliseconds after which a question has been heard by the hub.
constexpr std::uint64_t kHearing = 300;
// Milliseconds after which it has taken in whoever has come, even if it had no descriptor at first.
constexpr std::uint64_t kTaking = 1200;
// Milliseconds without a launch after which nobody waits of his own accord any more, and those
// after which there must have been as many.
constexpr std::uint64_t kQuiet = 20000;
constexpr std::uint64_t kLongestUnrest = 300000;
constexpr std::size_t kMostActors = 24;
// Two of as many scenarios end without a rest, one of them by a signal.
constexpr std::uint64_t kHasty = 12;
// Bytes; small enough that a plugin which falls silent holds others up.
constexpr std::int64_t kSmallBacklog = 20000;
// And so small that a plugin which is slow for a moment does.
constexpr std::int64_t kSmallHold = 5000;
// What may come on top of that: an answer, and one turn of each of those who send.
constexpr std::int64_t kBacklogSlack = 600000;

}  // namespace

Run::Run(const Scenario& scenario, const ServiceDatabase& database,
         std::function<void(const std::string& line)> say)
    : scenario_(scenario),
      database_(database),
      ledger_(world_),
      stage_{.world = world_, .ledger = ledger_, .seed = scenario.seed, .say = std::move(say)} {
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
  if (choice % 3 == 0) role.service = serviceName(choice >> 8, scenario_.seed);
  role.negotiates = choice % 11 != 0;
  const std::uint32_t address = choice % 5 == 0 ? kOtherMachine : kThisMachine;
  if (choice % 2 == 0 && role.negotiates)
    cast<LibraryActor>(std::move(role), address);
  else
    cast<ByteActor>(std::move(role), address);
}

int Run::runChild(ActorRole role, bool isLibrary) {
  role.name += std::to_string(actors_.size());
  role.seed = scenario_.seed + actors_.size();
  const int moments = role.doom;
  if (isLibrary)
    actors_.push_back(std::make_unique<LibraryActor>(stage_, std::move(role)));
  else
    actors_.push_back(std::make_unique<ByteActor>(stage_, std::move(role)));
  Actor& actor = *actors_.back();
  actor.process = &world_.self();
  if (moments > 0) doom(actor, moments);
  return actor.run();
}

// Has it killed at some time before or after it is a plugin.
void Run::doom(Actor& actor, int moments) {
  const int delay = world_.chance(300) ? static_cast<int>(world_.upTo(4000)) : 0;
  world_.start("killer", [this, &actor, moments, delay](const auto&) {
    platform::sleepMilliseconds(delay);
    for (int moment = 0; moment < moments; ++moment) world_.waitUntil(world_.now(), nullptr);
    if (!actor.process->killed) kill(actor);
    return 0;
  });
}

int Run::runHub() {
  {
    if (scenario_.seed % 2 == 1) stpProcess().backlogLimit = kSmallBacklog;
    if (scenario_.seed % 4 < 2) stpProcess().holdLimit = kSmallHold;
    Hublink hub(database_, 0, nullptr, nullptr);
    hub.entrance().setTcpOnly(scenario_.seed % 11 == 0);
    hub.launcher().setTimeout(static_cast<std::int32_t>(2 + scenario_.seed % 29));
    HublinkInspector inspector(hub);
    inspector_ = &inspector;
    if (!hub.connectToPeer("localhost", stage_.anchorPort) ||
        !hub.startListening(!isShared_, "simulation"))
      return 2;
    stage_.hubPort = static_cast<std::uint16_t>(hub.entrance().port());
    platform::installStopSignals();
    runMainLoop(hub, [&] { lookAtHub(inspector); });
    if (platform::stopRequested()) noteOwed();
    inspector_ = nullptr;
    if (inspector.connections() == 0 && inspector.inHand() == 0 && !inspector.isEmpty())
      world_.report("the hub keeps something when all have gone: " + inspector.describe());
    if (inspector.inHand() != 0 && !platform::stopRequested())
      world_.report("the hub ends before its launches: " + inspector.describe());
    hub.shutdownPlugins(hub.hasNoActiveRecord(), 1000);
  }
  if (!stpProcess().transportsBySerial.empty()) world_.report("the hub has left transports behind");
  return 0;
}

// Between two passes.
void Run::lookAtHub(HublinkInspector& inspector) {
  ++passes_;
  const std::string fault = inspector.firstFault();
  if (!fault.empty()) world_.report(fault);
  if (inspector.children() != world_.keptChildren(world_.self()))
    world_.report("the hub doesn't keep those children that it has");
  if (inspector.idsGiven() > hub_->connections + inspector.clientStarts())
    world_.report("the hub has given plugin IDs to nobody");
  for (const auto& [serial, transport] : stpProcess().transportsBySerial)
    if (transport->writeCount() > stpProcess().backlogLimit + kBacklogSlack)
      world_.report("the hub keeps " + std::to_string(transport->writeCount()) +
                    " bytes for one plugin");
}

// Those who speak bytes can tell a failure from the end of the connection, and those who are awake
// hear of it before.
void Run::noteOwed() {
  for (const auto& actor : actors_) {
    const std::int32_t id = actor->pluginID();
    if (actor->isLibrary() || !actor->isConnected() || !actor->isAwake()) continue;
    for (const std::int32_t cookie : inspector_->ownLaunches(id))
      owed_.emplace_back(actor.get(), cookie);
  }
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

// Several have programs started at once, or provide themselves what is being started, and some
// don't wait for the outcome.
void Run::rush(std::uint64_t choice) {
  constexpr std::array kWays{Act::request, Act::request, Act::query, Act::launch, Act::provide};
  constexpr std::array kEnds{Act::leave, Act::disconnect, Act::die};
  std::mt19937_64 random(choice);
  for (std::uint64_t count = 2 + random() % 6; count > 0; --count) {
    Actor* const actor = livingActor(random());
    if (!actor) return;
    const std::uint64_t what = startingChoice(random());
    actor->order({kWays[random() % kWays.size()], what});
    for (std::uint64_t turns = random() % 30; turns > 0 && world_.step();) --turns;
    if (random() % 4 != 0) continue;
    const Act end = kEnds[random() % kEnds.size()];
    if (end != Act::die)
      actor->order({end, 0});
    else if (!actor->process->killed)
      kill(*actor);
  }
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
  else if (step.order.act == Act::rush)
    rush(choice);
  else if (step.order.act == Act::wait)
    pass(choice % 4 == 0 ? choice / 4 % 40000 : choice / 4 % (choice % 4 == 1 ? 5000 : 700));
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

// Lets time pass. The hub makes its passes meanwhile, and everybody is heard.
bool Run::pass(std::uint64_t milliseconds) {
  for (std::uint64_t left = milliseconds; left > 0;) {
    const std::uint64_t part = std::min(left, kPass), before = passes_;
    const bool isServing = inspector_ != nullptr;
    if (!world_.pass(part)) return false;
    if (part == kPass && isServing && inspector_ && !hub_->killed && passes_ == before)
      world_.report("the hub makes no pass");
    checkHeard(kHearing);
    left -= part;
  }
  return world_.fault().empty();
}

// What was asked long ago hangs on something that the hub knows of, if it hasn't been answered.
void Run::checkHeard(std::uint64_t age) {
  if (!inspector_ || hub_->killed) return;
  for (const auto& actor : actors_) {
    const std::int32_t id = actor->pluginID();
    if (world_.weather.acceptFailure == 0 && actor->waitsForID() > kTaking)
      ledger_.fault(*actor, "isn't taken in");
    if (!actor->isConnected() || id == -1 || !actor->isAwake() || inspector_->isStalled(id))
      continue;
    const auto open = [&](Question question) { return ledger_.open(*actor, question, age); };
    if (open(Question::numbers) + open(Question::location) + open(Question::lookUp) != 0)
      ledger_.fault(*actor, "is owed numbers, a location or a provider's ID");
    const int requests = open(Question::service) + open(Question::query);
    if (requests > inspector_->waitingRequests(id))
      ledger_.fault(*actor, std::to_string(requests) + " requests are open, and " +
                                std::to_string(inspector_->waitingRequests(id)) +
                                " wait in the hub");
    const int starts = open(Question::launch);
    if (starts > inspector_->waitingStarts(id))
      ledger_.fault(*actor, std::to_string(starts) + " starts are open, and " +
                                std::to_string(inspector_->waitingStarts(id)) + " wait in the hub");
  }
}

// Until nobody has anything to do, and no launch has been in hand for longer than anybody waits.
bool Run::comeToRest() {
  world_.weather = {};
  stage_.finishing = true;
  for (const auto& actor : actors_)
    if (actor->process && !actor->process->killed) actor->order({Act::answer, 1});
  stage_.say("everybody finishes");
  std::uint64_t quiet = 0;
  for (std::uint64_t time = 0; time < kLongestUnrest; time += kPass) {
    if (!pass(kPass)) return false;
    quiet = inspector_ && inspector_->inHand() > 0 ? 0 : quiet + kPass;
    if (quiet >= kQuiet || hub_->killed) return true;
  }
  world_.report("the hub doesn't come to the end of its launches");
  return false;
}

void Run::checkRest() {
  if (!inspector_) return;
  checkHeard(0);
  for (const auto& actor : actors_) {
    if (!actor->isConnected() || actor->pluginID() == -1) continue;
    const int requests =
        ledger_.open(*actor, Question::service) + ledger_.open(*actor, Question::query);
    const int waiting = inspector_->waitingRequests(actor->pluginID());
    if (waiting > requests + ledger_.givenUp(*actor))
      ledger_.fault(*actor, std::to_string(waiting) + " requests wait in the hub, and only " +
                                std::to_string(requests) + " are open");
    if (inspector_->waitingStarts(actor->pluginID()) > ledger_.open(*actor, Question::launch))
      ledger_.fault(*actor, "a start that isn't open waits in the hub");
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
    if (!pass(1000)) return false;
    if (bySignal) continue;
    // Whoever never got to know its ID takes no orders, and others come only now.
    for (const auto& actor : actors_) {
      if (!actor->process || actor->process->killed) continue;
      if (actor->pluginID() == -1 && tries % 8 == 7)
        kill(*actor);
      else
        actor->order({Act::leave, 0});
    }
  }
  for (const auto& [actor, cookie] : owed_)
    if (actor->isCutOff() && ledger_.isOpen(*actor, cookie))
      ledger_.fault(*actor, "never hears of a launch that the hub's end has ended");
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
  installPrograms(world_, [this](ActorRole role, bool isLibrary) {
    return runChild(std::move(role), isLibrary);
  });
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
  // Some hubs end in the middle of all.
  if (scenario_.seed % kHasty < 2)
    rush(scenario_.seed);
  else if (comeToRest())
    checkRest();
  if (world_.fault().empty()) endHub();
  return world_.fault();
}
