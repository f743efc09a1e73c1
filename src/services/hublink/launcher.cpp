#include "services/hublink/launcher.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

#include "active_hub/plugin_options.h"
#include "indgen/find.h"
#include "indgen/host.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "platform/clock.h"
#include "services/hublink/broker.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/entrance.h"
#include "services/hublink/hub_events.h"
#include "services/hublink/hub_log.h"

namespace {

// Until the system has got round to a new process, which takes some milliseconds on busy
// processors, nothing is relayed.
constexpr int kStartsPerPass = 1;

std::vector<const char*> pointersOf(const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  return pointers;
}

std::vector<const char*> pointersOf(const std::vector<OptionalText>& texts) {
  std::vector<const char*> pointers;
  for (const OptionalText& text : texts) pointers.push_back(textOrNull(text));
  return pointers;
}

// The program in the hub's own directory if it is there; else the system searches for the name.
std::string programFor(const std::string& name) {
  const gen_text beside = gen_join(gen_program_dir(), name.c_str());
  return gen_file_kind(beside) == 1 ? std::string(beside) : name;
}

std::string nameOf(const LaunchOrder& order) {
  return std::string(gen_base_name(order.argv[0].c_str()));
}

// What has become of the child of a failed launch.
std::string outcomeOf(const STPChildProcess& child, const STPStatus& status) {
  if (child.startError() != 0) return std::strerror(child.startError());
  if (const auto end = child.childEnd()) {
    const std::string number = std::to_string(end->number);
    return end->bySignal
               ? "killed by signal " + number + " (" + platform::signalName(end->number) + ")"
               : "exited with status " + number;
  }
  return status.message;
}

}  // namespace

bool Launcher::launch(LaunchOrder order) {
  if (order.argv.empty() || order.argv[0].empty() || !plugins_.ids().areLeft()) return false;
  log_.logInternal("Launching plugin %s.\n", order.argv[0].c_str());
  events_.tell("launch begun", 0, 0, order.argv[0]);
  launches_.emplace_back(std::move(order));
  Launch& launch = launches_.back();
  launch.since = platform::monotonicMilliseconds();
  launch.seconds = launch.order.timeout.value_or(timeout_);
  const std::string& name = launch.order.argv[0];
  launch.program = programFor(name);
  std::vector<std::string> arguments = launch.order.argv;
  for (const std::string& text : debugging_.debugArgsFor(name)) arguments.push_back(text);
  arguments[0] = launch.program;
  const auto pointers = pointersOf(arguments);
  launch.child.setArguments(pointers.data(), static_cast<int>(pointers.size()));
  launch.child.setPassHost(false);
  launch.child.setPortIndex(2);
  launch.child.insertArgumentAt(plugin_options::kHubPort, 1);
  launch.child.setWorkingDirectory(textOrNull(launch.order.workingDir));
  launch.child.setKeepsErrors(true);
  // The environment of each is that which the one before has left.
  const bool isBehind = launches_.size() > 1 && !std::prev(launches_.end(), 2)->isStarted;
  if (isBehind || startsInPass_ >= kStartsPerPass || start(launch)) return true;
  launches_.pop_back();
  return false;
}

bool Launcher::start(Launch& launch) {
  ++startsInPass_;
  if (launch.order.environment) environment_.apply(*launch.order.environment);
  launch.isStarted = true;
  launch.transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  launch.child.setTransport(launch.transport.get());
  STPStatus status;
  launch.child.startLaunch(&status);
  if (!status.good()) {
    tellFailure(launch, outcomeOf(launch.child, status));
    return false;
  }
  launch.transport->addRef();
  transports_.insert(launch.transport.get());
  if (launch.seconds > 0)
    launch.deadline =
        platform::monotonicMilliseconds() + static_cast<std::uint64_t>(launch.seconds) * 1000;
  return true;
}

void Launcher::tellFailure(Launch& launch, const std::string& reason) {
  log_.logInternal("Unable to launch %s: %s\n", launch.program.c_str(), reason.c_str());
  log_.tellErrors(nameOf(launch.order).c_str(), launch.child.errorText());
  events_.tell("launch failed", 0, 0, launch.order.argv[0], reason);
}

// Whether the launch is over, which has then been told.
bool Launcher::hasEnded(Launch& launch) {
  STPStatus status;
  if (launch.child.pollLaunch(&status)) {
    const platform::ProcessId process = launch.child.process();
    if (plugins_.ids().areLeft()) {
      const char* workingDir = textOrNull(launch.order.workingDir);
      const HublinkConnection* connection =
          plugins_.add(launch.transport, process, nameOf(launch.order).c_str(),
                       workingDir ? workingDir : gen_getcwd());
      events_.tell("launch done", connection->getPluginID(), 0, launch.order.argv[0]);
      broker_.arrived(launch.order.arrival, connection);
      return true;
    }
    launch.transport->disconnect();
    platform::releaseChild(process);
    tellFailure(launch, "no plugin ID is left");
  } else if (!status.good()) {
    tellFailure(launch, outcomeOf(launch.child, status));
  } else if (launch.deadline != 0 && platform::monotonicMilliseconds() >= launch.deadline) {
    // It may go on, but not as a plugin of this hub.
    tellFailure(launch, "it hasn't connected within " + std::to_string(launch.seconds) + " s");
    platform::releaseChild(launch.child.process());
  } else {
    return false;
  }
  broker_.arrivalFailed(launch.order.arrival, launch.order.argv[0]);
  return true;
}

void Launcher::step() {
  startsInPass_ = 0;
  for (auto place = launches_.begin(); place != launches_.end() && place->isStarted;)
    place = hasEnded(*place) ? launches_.erase(place) : std::next(place);
  startWaiting(kStartsPerPass);
}

// Starts those that wait for it, in their order.
void Launcher::startWaiting(int most) {
  for (auto place = launches_.begin(); place != launches_.end() && startsInPass_ < most;) {
    const auto launch = place++;
    if (launch->isStarted || start(*launch)) continue;
    broker_.arrivalFailed(launch->order.arrival, launch->order.argv[0]);
    launches_.erase(launch);
  }
}

std::vector<Launcher::InHand> Launcher::launches() const {
  std::vector<InHand> list;
  for (const Launch& launch : launches_)
    list.push_back({launch.order.arrival, nameOf(launch.order), launch.child.process(),
                    launch.since, launch.deadline});
  return list;
}

int Launcher::timeLeft(int most) const {
  if (launches_.empty()) return most;
  if (!launches_.back().isStarted) return 0;
  const std::uint64_t now = platform::monotonicMilliseconds();
  for (const Launch& launch : launches_)
    if (launch.deadline != 0)
      most = std::min(most, launch.deadline > now ? static_cast<int>(launch.deadline - now) : 0);
  return most;
}

std::vector<std::pair<platform::ProcessId, std::string>> Launcher::giveUp() {
  std::vector<std::pair<platform::ProcessId, std::string>> children;
  for (Launch& launch : launches_) {
    tellFailure(launch, "the hub ends");
    broker_.arrivalFailed(launch.order.arrival, launch.order.argv[0]);
    if (launch.child.process() != 0)
      children.emplace_back(launch.child.process(), nameOf(launch.order));
  }
  launches_.clear();
  return children;
}

std::int32_t Launcher::startByClient(HublinkConnection* client,
                                     const std::vector<OptionalText>& argv,
                                     const char* workingDir) {
  const std::int32_t startCookie = ++lastStartCookie_;
  std::vector<OptionalText> arguments = argv;
  if (!argv.empty() && argv[0])
    for (const std::string& text : debugging_.debugArgsFor(gen_base_name(argv[0]->c_str())))
      arguments.emplace_back(text);
  for (const std::string& text :
       {std::string(plugin_options::kStartCookie), std::to_string(startCookie),
        std::string(plugin_options::kHubHost), std::string(gen_full_host_name()),
        std::string(plugin_options::kHubPort), std::to_string(entrance_.port())})
    arguments.emplace_back(text);
  const auto pointers = pointersOf(arguments);
  STPStatus status;
  client->StartPlugin({static_cast<std::int32_t>(pointers.size()), pointers.data()}, startCookie,
                      workingDir, false, nullptr, &status);
  return status.good() ? startCookie : -1;
}

// What has been asked for before is started as it was then.
void Launcher::setEnvironmentVariable(const char* variable, const char* value) {
  startWaiting(std::numeric_limits<int>::max());
  environment_.setVariable(variable, value);
}
