// Processes of the simulated machine.
#include "platform/process.h"

#include <algorithm>
#include <string_view>

#include "platform/sim/world.h"

namespace platform {
namespace {

constexpr int kNoEntry = 2, kNoProcess = 3, kTooBig = 7, kInvalid = 22;
constexpr std::size_t kLongestVariable = std::size_t{128} << 10;

using sim::Process;
using sim::World;

// The caller's child of this number, or null.
Process* childOf(const Process& parent, ProcessId id) {
  Process* process = World::current().find(id);
  return process && process->parent == &parent ? process : nullptr;
}

// The descriptor that watches a child, or -1 once it was collected.
int watchOf(const Process& child) {
  const auto& descriptors = World::current().self().descriptors;
  for (std::size_t i = 0; i < descriptors.size(); ++i)
    if (descriptors[i].isOpen && descriptors[i].child == child.id) return static_cast<int>(i);
  return -1;
}

// The descriptor that watches an ended child has done its work.
void collect(const Process& child) {
  const int watch = child.killed ? watchOf(child) : -1;
  if (watch < 0) return;
  readiness().forget(watch);
  World::current().close(watch);
}

int end(ProcessId id, bool atOnce) {
  World& world = World::current();
  Process* process = world.find(id);
  if (!process || process->killed) return -kNoProcess;
  if (process->handlesStop && !process->stopRequested && !atOnce) {
    process->stopRequested = true;
    World::wake(*process);
  } else {
    world.kill(*process);
  }
  return 0;
}

}  // namespace

int startProcess(const StartRequest& request, ProcessId& child) {
  World& world = World::current();
  world.idle();
  const sim::Program* program = world.program(request.program);
  if (!program || world.self().killed) return -kNoEntry;
  Process& process = world.launch(request.program, *program, &world.self(), request.arguments);
  sim::Descriptor watch;
  watch.child = process.id;
  readiness().watchProcess(world.open(world.self(), watch));
  child = process.id;
  return 0;
}

void collectChildren() {
  if (!readiness().takeProcessEnded()) return;
  const Process& self = World::current().self();
  for (std::size_t i = 0; i < self.descriptors.size(); ++i)
    if (self.descriptors[i].isOpen && self.descriptors[i].child != 0 &&
        readiness().isReadable(static_cast<int>(i)))
      collect(*World::current().find(self.descriptors[i].child));
}

WaitOutcome waitForChildren(const ProcessId* children, std::size_t count, bool all,
                            int milliseconds, std::size_t& ended) {
  World& world = World::current();
  const std::uint64_t limit =
      milliseconds < 0 ? sim::kNever : world.now() + static_cast<std::uint64_t>(milliseconds);
  std::vector<Process*> awaited;
  for (std::size_t i = 0; i < count; ++i) {
    awaited.push_back(childOf(world.self(), children[i]));
    if (!awaited.back() || awaited.back()->released) return WaitOutcome::failed;
  }
  if (count == 0) return WaitOutcome::failed;
  const auto done = [&awaited, all] {
    const auto isOver = [](const Process* process) { return process->killed; };
    return all ? std::all_of(awaited.begin(), awaited.end(), isOver)
               : std::any_of(awaited.begin(), awaited.end(), isOver);
  };
  while (!done() && world.now() < limit && !world.self().killed) world.waitUntil(limit, done);
  for (std::size_t i = count; i-- > 0;) {
    collect(*awaited[i]);
    if (awaited[i]->killed) ended = i;
  }
  if (world.self().killed) return WaitOutcome::failed;
  return done() ? WaitOutcome::ended : WaitOutcome::timedOut;
}

std::optional<ChildEnd> childEnd(ProcessId id) {
  const Process* child = childOf(World::current().self(), id);
  if (!child || !child->killed) return std::nullopt;
  const int watch = watchOf(*child);
  if (watch >= 0 && !readiness().isReadable(watch)) return std::nullopt;
  collect(*child);
  return child->end;
}

std::string signalName(int) {
  return "Killed";
}

void releaseChild(ProcessId id) {
  Process* child = childOf(World::current().self(), id);
  if (!child) return;
  child->released = true;
  collect(*child);
}

bool processExists(ProcessId process) {
  return World::current().isAlive(process);
}

ProcessId currentProcess() {
  return World::current().self().id;
}

std::string programOf(ProcessId process) {
  const Process* found = World::current().find(process);
  return found ? found->name : "";
}

int terminateProcess(ProcessId process) {
  return end(process, false);
}

int killProcess(ProcessId process) {
  return end(process, true);
}

bool hasTerminal() {
  return false;
}

int setIdlePriority(bool) {
  return 0;
}

bool runOnProcessor(int processor) {
  return processor <= 0;
}

const char* environmentVariable(const char* name) {
  const auto& environment = World::current().self().environment;
  const auto place = name ? environment.find(name) : environment.end();
  return place == environment.end() ? nullptr : place->second.c_str();
}

int setEnvironmentVariable(const char* name, const char* value) {
  if (!name || !value) return -kInvalid;
  const std::size_t size = std::string_view(name).size() + std::string_view(value).size() + 2;
  if (size > kLongestVariable) return -kTooBig;
  World::current().self().environment[name] = value;
  return 0;
}

int unsetEnvironmentVariable(const char* name) {
  if (!name) return -kInvalid;
  World::current().self().environment.erase(name);
  return 0;
}

DescriptorUse descriptorUse() {
  DescriptorUse use;
  for (const auto& descriptor : World::current().self().descriptors)
    use.open += descriptor.isOpen ? 1 : 0;
  return use;
}

void raiseDescriptorLimit() {}

void ignoreBrokenPipe() {}

void ensureStandardDescriptors() {}

void installStopSignals() {
  World::current().self().handlesStop = true;
}

bool stopRequested() {
  const Process& self = World::current().self();
  return self.stopRequested || self.killed;
}

}  // namespace platform
