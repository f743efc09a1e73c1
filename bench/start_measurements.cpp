#include "bench/start_measurements.h"

#include <fstream>
#include <functional>
#include <optional>

#include "active_hub/plugin_options.h"
#include "bench/installed_tree.h"
#include "bench/launched_provider.h"
#include "bench/statistics.h"
#include "bench/stopwatch.h"
#include "hublink_plugin/hublink_plugin.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

constexpr int kDescriptions = 1000;
constexpr int kRepetitions = 5;  // a start is short
constexpr const char* kService = "Echo";
const std::string kChain = "Chain";
// What a large process holds, in bytes, and how many programs it starts.
constexpr std::size_t kHeld = std::size_t{512} << 20;
constexpr int kStarts = 50;

// Each gives milliseconds, or none with a text in `error`.
using Start = std::function<std::optional<double>(const InstalledTree&, std::string& error)>;

std::uint16_t freePort() {
  return platform::localPort(LoopbackSocket::listening().get());
}

bool startHub(BenchProcess& hub, const InstalledTree& tree, std::uint16_t port,
              std::string& error) {
  const std::string number = std::to_string(port);
  return hub.start(tree.hub(), {"-port", number, "-hl_zone", "bench" + number}, error);
}

std::optional<double> startToListening(const InstalledTree& tree, std::string& error) {
  const std::uint16_t port = freePort();
  BenchProcess hub;
  const Stopwatch watch;
  if (!startHub(hub, tree, port, error)) return std::nullopt;
  while (!LoopbackSocket::connectedTo(port)) {
    if (watch.milliseconds() < kStartLimit && !platform::stopRequested()) continue;
    error = "the hub doesn't listen";
    return std::nullopt;
  }
  return watch.milliseconds();
}

std::optional<double> readDescriptions(const InstalledTree& tree, std::string& error) {
  const Stopwatch watch;
  std::size_t lines = 0;
  for (const auto& entry : std::filesystem::directory_iterator(tree.services())) {
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) ++lines;
  }
  const double taken = watch.milliseconds();
  if (lines >= kDescriptions) return taken;
  error = "the description files can't be read";
  return std::nullopt;
}

// Asks for services that nobody provides yet, each when the link to the one before is there.
std::optional<double> requestToAccepted(const InstalledTree& tree,
                                        const std::vector<std::string>& services,
                                        std::string& error) {
  const std::uint16_t port = freePort();
  BenchProcess hub;
  HublinkPlugin plugin;
  if (!startHub(hub, tree, port, error) || !plugin.connect(port, error, "127.0.0.1", kStartLimit))
    return std::nullopt;
  std::vector<std::shared_ptr<HublinkLink>> links;
  const Stopwatch watch;
  for (const std::string& service : services) {
    ServiceQuery query;
    query.serviceName = service;
    const ServiceReply reply = plugin.requestService(query, kStartLimit);
    links.push_back(reply.link);
    if (reply.link) continue;
    error = "request for " + service + ", which isn't running: " + outcomeText(reply.outcome);
    return std::nullopt;
  }
  return watch.milliseconds();
}

Start requests(std::vector<std::string> services) {
  return [services = std::move(services)](const InstalledTree& tree, std::string& error) {
    return requestToAccepted(tree, services, error);
  };
}

// The same program, told to connect to a bare listening socket.
std::optional<double> startToConnected(const InstalledTree& tree, std::string& error) {
  const LoopbackSocket listener = LoopbackSocket::listening();
  BenchProcess provider;
  const Stopwatch watch;
  if (!provider.start(
          tree.file(kEchoProvider),
          {plugin_options::kHubPort, std::to_string(platform::localPort(listener.get()))}, error))
    return std::nullopt;
  int status = 0;
  const LoopbackSocket client = listener.accept([&] { return provider.ended(status); });
  if (client) return watch.milliseconds();
  error = "the provider doesn't connect";
  return std::nullopt;
}

class StartMeasurement : public Measurement {
 public:
  StartMeasurement(const Settings& settings, Row row, Start hub, Start yardstick,
                   std::vector<Description> services)
      : Measurement({std::move(row)}),
        settings_(settings),
        starts_{std::move(yardstick), std::move(hub)},
        services_(std::move(services)) {}

  bool open(std::string&) override {
    tree_.emplace(settings_.programs, row(0).key);
    for (const Description& service : services_) tree_->describe(service);
    return true;
  }

  bool run(std::string& error) override {
    constexpr std::array kColumns{Path::direct, Path::hub};
    std::array<std::vector<double>, 2> times;
    for (std::size_t turn = 0; turn < kRepetitions * starts_.size(); ++turn) {
      const std::size_t which = turn % starts_.size();
      if (!starts_[which]) continue;
      const auto taken = starts_[which](*tree_, error);
      if (!taken) return false;
      times[which].push_back(*taken);
    }
    for (std::size_t i = 0; i < starts_.size(); ++i)
      if (starts_[i]) row(0).add(kColumns[i], medianOf(times[i]));
    return true;
  }

 private:
  const Settings& settings_;
  std::array<Start, 2> starts_;
  std::vector<Description> services_;
  std::optional<InstalledTree> tree_;
};

// How long the starting process does nothing else, while it holds much memory and while it doesn't.
class LargeProcessMeasurement : public Measurement {
 public:
  explicit LargeProcessMeasurement(Row row) : Measurement({std::move(row)}) {}

  bool open(std::string&) override { return true; }

  bool run(std::string& error) override {
    for (const bool isLarge : {false, true}) {
      const std::vector<char> held(isLarge ? kHeld : 0, 'x');
      std::vector<double> times;
      for (int i = 0; i < kStarts; ++i) {
        BenchProcess program;
        const Stopwatch watch;
        if (!program.start("true", {}, error)) return false;
        times.push_back(watch.milliseconds());
      }
      row(0).add(isLarge ? Path::hub : Path::direct, medianOf(times));
    }
    return true;
  }
};

}  // namespace

void addStartMeasurements(const Settings& settings, Measurements& measurements) {
  const auto add = [&](Row row, Start hub, Start yardstick, std::vector<Description> services) {
    measurements.push_back(std::make_unique<StartMeasurement>(
        settings, std::move(row), std::move(hub), std::move(yardstick), std::move(services)));
  };
  std::vector<Description> many;
  for (int i = 0; i < kDescriptions; ++i) many.push_back({"Service" + std::to_string(i)});
  add({"start_empty", "start to listening, no description file", "ms", 2}, startToListening, {},
      {});
  add({"start_described", "start to listening, " + grouped(kDescriptions) + " description files",
       "ms", 2, "reading the same files line by line"},
      startToListening, readDescriptions, std::move(many));
  add({"launch", "launch, from the request to the accepted reply", "ms", 2,
       "start of the same program to its connection, without a hub"},
      requests({kService}), startToConnected, {{kService}});
  std::vector<Description> providers;
  std::vector<std::string> singles;
  for (int i = 0; i < settings.chainedLaunches; ++i) {
    singles.push_back("Single" + std::to_string(i));
    providers.push_back(launched(singles.back()));
    providers.push_back(launched(kChain + std::to_string(i)));
    if (i + 1 < settings.chainedLaunches) {
      providers.back().arguments.push_back(launched_provider::kNeeds);
      providers.back().arguments.push_back(kChain + std::to_string(i + 1));
    }
  }
  add({"launch_chain", grouped(settings.chainedLaunches) + " launches, each within the one before",
       "ms", 2, "as many launches of the same program, one after the other"},
      requests({kChain + std::to_string(0)}), requests(std::move(singles)), std::move(providers));
  measurements.push_back(std::make_unique<LargeProcessMeasurement>(
      Row{"start_while_large", "start of a program, while holding 512 MiB", "ms", 3,
          "the same start, while holding nothing"}));
}
