#include "platform/sim/world.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/sim/stream.h"

namespace platform::sim {
namespace {

// Steps without rest after which processes only keep each other busy.
constexpr int kMostSteps = 200000;
// Calls in a row that do nothing, after which a process spins.
constexpr int kMostIdleCalls = 20000;
// Milliseconds that each call of a killed process seems to take.
constexpr std::uint64_t kKilledStep = 100;
constexpr int kKillSignal = 9;
// Milliseconds that an answer takes at most: some come too late for whoever waits for them.
constexpr std::uint64_t kSlowestAnswer = 8000;

World* theWorld = nullptr;
thread_local Process* thisProcess = nullptr;

}  // namespace

World& World::current() {
  return *theWorld;
}

// The driver's own entry comes first.
World::World() {
  theWorld = this;
  processes_.push_back(std::make_unique<Process>(1));
}

World::~World() {
  endAll();
  theWorld = nullptr;
}

void World::endAll() {
  for (std::size_t i = 1; i < processes_.size(); ++i) kill(*processes_[i]);
  for (std::size_t i = 1; i < processes_.size(); ++i) {
    Process& process = *processes_[i];
    while (!process.returned) resume(process);
    if (process.thread.joinable()) process.thread.join();
  }
}

void World::install(const std::string& name, Program program) {
  programs_[name] = std::move(program);
}

const Program* World::program(const std::string& name) const {
  const auto place = programs_.find(name.substr(name.rfind('/') + 1));
  return place == programs_.end() ? nullptr : &place->second;
}

Process& World::start(const std::string& name, const Program& program, std::uint32_t address) {
  Process& process = launch(name, program, nullptr, {name});
  process.address = address;
  return process;
}

Process& World::launch(const std::string& name, const Program& program, Process* parent,
                       std::vector<std::string> arguments) {
  processes_.push_back(std::make_unique<Process>(static_cast<ProcessId>(100 + processes_.size())));
  Process& process = *processes_.back();
  process.name = name;
  process.parent = parent;
  if (parent) {
    process.address = parent->address;
    process.user = parent->user;
    process.environment = parent->environment;
  }
  process.descriptors.resize(3);  // the standard streams
  for (Descriptor& standard : process.descriptors) standard.isOpen = true;
  process.thread = std::thread([this, &process, program, args = std::move(arguments)] {
    thisProcess = &process;
    process.turn.take();
    finish(process, program(args));
    driverTurn_.give();
  });
  return process;
}

void World::finish(Process& process, int status) {
  process.descriptorsAtEnd = static_cast<int>(
      std::count_if(process.descriptors.begin() + 3, process.descriptors.end(),
                    [](const Descriptor& entry) { return entry.isOpen && entry.child == 0; }));
  const bool wasAlive = !process.killed;
  process.returned = true;
  if (!wasAlive) return;
  process.killed = true;
  process.end = {false, status};
  closeAll(process);
}

void World::kill(Process& process) {
  if (process.killed) return;
  process.killed = true;
  process.end = {true, kKillSignal};
  closeAll(process);
}

// All that a process had goes, and its parent hears of its end.
void World::closeAll(Process& process) {
  for (std::size_t i = 3; i < process.descriptors.size(); ++i)
    if (process.descriptors[i].isOpen) closeEntry(process, i);
  if (!process.parent) return;
  for (Descriptor& entry : process.parent->descriptors)
    if (entry.isOpen && entry.child == process.id) entry.announced = false;
}

bool World::canGoOn(const Process& process) const {
  if (process.returned) return false;
  return !process.waiting || process.killed || (process.woken && process.heedsSignals) ||
         process.wakeAt <= now_ || (process.wakesEarly && process.wakesEarly());
}

void World::resume(Process& process) {
  process.turn.give();
  driverTurn_.take();
}

bool World::step() {
  for (const auto& stream : std::exchange(late_, {})) {
    const auto end = stream.lock();
    if (!end) continue;
    end->arrived = end->inbox.size();
    end->roomComes = true;
    announce(end);
  }
  std::vector<Process*> able;
  for (std::size_t i = 1; i < processes_.size(); ++i)
    if (canGoOn(*processes_[i])) able.push_back(processes_[i].get());
  if (able.empty()) return false;
  resume(*able[random_() % able.size()]);
  return true;
}

bool World::settle() {
  for (int steps = 0; step() || !late_.empty(); ++steps) {
    if (!fault_.empty()) return false;
    if (steps < kMostSteps) continue;
    report("the processes don't come to rest");
    return false;
  }
  return fault_.empty();
}

bool World::pass(std::uint64_t milliseconds) {
  const std::uint64_t end = now_ + milliseconds;
  for (;;) {
    if (!settle()) return false;
    std::uint64_t next = end;
    for (std::size_t i = 1; i < processes_.size(); ++i)
      if (!processes_[i]->returned) next = std::min(next, processes_[i]->wakeAt);
    if (now_ >= end) return true;
    now_ = std::max(next, now_ + 1);
  }
}

Process* World::find(ProcessId id) const {
  const auto place = std::find_if(processes_.begin(), processes_.end(),
                                  [id](const auto& process) { return process->id == id; });
  return place == processes_.end() ? nullptr : place->get();
}

bool World::isAlive(ProcessId id) const {
  const Process* process = find(id);
  return process && !process->killed;
}

std::set<ProcessId> World::keptChildren(const Process& parent) const {
  std::set<ProcessId> kept;
  for (const auto& process : processes_)
    if (process->parent == &parent && !process->released) kept.insert(process->id);
  return kept;
}

void World::report(const std::string& fault) {
  if (fault_.empty()) fault_ = fault;
}

Process& World::self() {
  return thisProcess ? *thisProcess : *processes_.front();
}

std::uint64_t World::now() {
  const Process& process = self();
  return process.killed ? now_ + static_cast<std::uint64_t>(process.idleCalls) * kKilledStep : now_;
}

std::uint64_t World::answerTime() {
  if (chance(weather.noAnswer)) return kNever;
  return chance(weather.slowAnswer) ? now() + upTo(kSlowestAnswer) : now();
}

void World::idle() {
  Process& process = self();
  if (++process.idleCalls > kMostIdleCalls) {
    // One that was killed and doesn't notice would hold the driver for ever.
    if (process.killed) std::fprintf(stderr, "%s doesn't end\n", process.name.c_str());
    if (process.killed) std::abort();
    report(process.name + " spins");
    waitUntil(now_, nullptr);
  }
  if (process.killed || chance(weather.interruption)) waitUntil(now_, nullptr);
}

void World::waitUntil(std::uint64_t time, std::function<bool()> early, bool heedsSignals) {
  Process& process = self();
  if (process.id == 1) return;
  process.waiting = true;
  process.wakeAt = time;
  process.wakesEarly = std::move(early);
  process.heedsSignals = heedsSignals;
  driverTurn_.give();
  process.turn.take();
  process.waiting = false;
  process.wakeAt = kNever;
  process.wakesEarly = nullptr;
}

int World::open(Process& process, Descriptor descriptor) {
  process.idleCalls = 0;
  descriptor.isOpen = true;
  if (process.descriptors.size() < 3) process.descriptors.resize(3, {nullptr, 0, true});
  auto place = std::find_if(process.descriptors.begin(), process.descriptors.end(),
                            [](const Descriptor& entry) { return !entry.isOpen; });
  if (place == process.descriptors.end()) place = process.descriptors.insert(place, Descriptor());
  *place = std::move(descriptor);
  const int number = static_cast<int>(place - process.descriptors.begin());
  if (place->stream) {
    place->stream->owner = process.id;
    place->stream->descriptor = number;
  }
  return number;
}

Descriptor* World::entry(int descriptor) {
  Process& process = self();
  if (process.killed) return nullptr;
  const auto index = static_cast<std::size_t>(descriptor);
  if (descriptor >= 0 && index < process.descriptors.size() && process.descriptors[index].isOpen)
    return &process.descriptors[index];
  report(process.name + " uses descriptor " + std::to_string(descriptor) + ", which isn't open");
  return nullptr;
}

bool World::close(int descriptor) {
  Process& process = self();
  Descriptor* open = entry(descriptor);
  if (!open) return process.killed;
  if (open->watchedBy >= 0)
    report(process.name + " closes descriptor " + std::to_string(descriptor) +
           " while it watches it");
  if (const Stream* stream = open->stream.get();
      guarded && stream && stream->accepted && !stream->touched && stream->tellsUser() &&
      stream->user == *guarded && stream->peerUser == *guarded)
    report(process.name + " turns away somebody of its own user");
  closeEntry(process, static_cast<std::size_t>(descriptor));
  return true;
}

void World::closeEntry(Process& process, std::size_t number) {
  Descriptor& entry = process.descriptors[number];
  const std::shared_ptr<Stream> stream = std::exchange(entry.stream, nullptr);
  entry = Descriptor();
  if (!stream) return;
  stream->owner = 0;
  if (stream->listening) {
    listeners_.erase(stream->place);
    for (const auto& client : stream->clients)
      if (const auto other = client->peer.lock()) {
        other->ended = other->reset = true;
        announce(other);
      }
    return;
  }
  const auto other = stream->peer.lock();
  if (!other) return;
  other->ended = true;
  // Bytes that nobody has read any more turn the end into a reset, as in TCP.
  if (!stream->inbox.empty()) other->reset = true;
  other->peer.reset();
  announce(other);
}

void World::announce(const std::shared_ptr<Stream>& stream) {
  Process* owner = stream->owner == 0 ? nullptr : find(stream->owner);
  if (!owner) return;
  owner->idleCalls = 0;
  owner->descriptors[static_cast<std::size_t>(stream->descriptor)].announced = false;
}

void World::later(const std::shared_ptr<Stream>& stream) {
  late_.push_back(stream);
}

std::shared_ptr<Stream> World::listenerAt(const std::string& place) const {
  const auto found = listeners_.find(place);
  return found == listeners_.end() ? nullptr : found->second;
}

void World::meet(Stream& stream) {
  stream.touched = true;
  if (guarded && stream.user == *guarded && stream.withinMachine && stream.peerUser != *guarded &&
      stream.peerUser != 0)
    report(self().name + " has to do with another user's process");
}

std::uint16_t World::somePort(std::uint64_t choice) const {
  std::vector<std::uint16_t> ports;
  for (const auto& [place, stream] : listeners_)
    if (stream->port != 0) ports.push_back(stream->port);
  return ports.empty() ? std::uint16_t{0} : ports[choice % ports.size()];
}

}  // namespace platform::sim
