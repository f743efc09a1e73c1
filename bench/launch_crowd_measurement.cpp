#include "bench/launch_crowd_measurement.h"

#include <optional>

#include "bench/installed_tree.h"
#include "bench/launched_provider.h"
#include "bench/plain_starts.h"
#include "bench/requesters.h"
#include "platform/clock.h"

namespace {

constexpr int kRequestersEach = 4;  // of each service
constexpr int kHanging = 2;
constexpr int kUndisturbed = 200;  // ms

class LaunchCrowdMeasurement : public Measurement {
 public:
  LaunchCrowdMeasurement(const Settings& settings, std::vector<Row> rows)
      : Measurement(std::move(rows)), settings_(settings) {}

  // A hub that has had a crowd once isn't the same again: each run has hubs of its own.
  bool open(std::string& error) override {
    tree_.emplace(settings_.programs, "crowd");
    installed_ = {settings_.programs.bench, tree_->hub()};
    starts_ = {tree_->file(launched_provider::kProgram), settings_.crowdedLaunches, kHanging};
    if (!holder_) error = "no port can be opened";
    for (int i = 0; i < settings_.crowdedLaunches; ++i) {
      Description service = launched("Crowd" + std::to_string(i));
      // They are asked for first: a hub that waits for them makes all others wait.
      if (i < kHanging) {
        service.launchTimeout = settings_.launchTimeout;
        service.arguments.push_back(launched_provider::kHangs);
        service.arguments.push_back(std::to_string(holder_.port()));
      }
      tree_->describe(service);
      services_.insert(services_.end(), kRequestersEach, service.service);
    }
    return error.empty();
  }

  bool run(std::string& error) override {
    if ((row(kServed).isChosen || row(kFailed).isChosen) && !measureCrowd(error)) return false;
    return !(row(kMedian).isChosen || row(kP99).isChosen || row(kLongest).isChosen) ||
           measureLink(error);
  }

 private:
  enum Index { kServed, kFailed, kMedian, kP99, kLongest };

  // A hub with a link, and those that are to ask it.
  struct Stage {
    std::unique_ptr<FarEnds> farEnds;
    std::unique_ptr<Lane> lane;
    Starter starter;
    Requesters requesters;
  };

  bool prepare(Stage& stage, std::string& error) {
    stage.farEnds = FarEnds::start(installed_, 1, error);
    if (!stage.farEnds) return false;
    stage.lane = Lane::open(Path::hub, Road::tcp, installed_, *stage.farEnds, error);
    return stage.lane && stage.starter.open(installed_, starts_, error) &&
           stage.requesters.join(stage.lane->hubPort(), static_cast<int>(services_.size()), error);
  }

  // Nobody else is at work meanwhile.
  bool measureCrowd(std::string& error) {
    Stage stage;
    if (!prepare(stage, error)) return false;
    const auto plain = stage.starter.start(error);
    if (!plain) return false;
    stage.starter.finish();
    if (!serve(stage.requesters, error) || !awaitFailures(stage.requesters, error)) return false;
    row(kServed).add(Path::direct, *plain);
    row(kServed).add(Path::hub, stage.requesters.links().last);
    row(kFailed).add(Path::direct, settings_.launchTimeout * 1e3);
    row(kFailed).add(Path::hub, stage.requesters.failures().last);
    return true;
  }

  bool measureLink(std::string& error) {
    Stage stage;
    if (!prepare(stage, error)) return false;
    Lane& lane = *stage.lane;
    RoundTripTimes usual, alone, plain, crowded;
    const auto measured = [&](bool isCarried) {
      if (!isCarried && error.empty()) error = lane.failure();
      return error.empty();
    };
    const auto measureBeside = [&](const std::function<void()>& work, RoundTripTimes& times) {
      return measured(measureRoundTripsBeside(lane, work, usual.median, times));
    };
    const std::uint32_t count = settings_.size.roundTrips;
    for (const std::uint32_t each : {count / 4 + 1, count})  // warmed up by the first
      if (!measured(measureRoundTrips(lane, each, usual))) return false;
    if (!measureBeside([] { platform::sleepMilliseconds(kUndisturbed); }, alone) ||
        !measureBeside([&] { stage.starter.start(error); }, plain))
      return false;
    stage.starter.finish();
    if (!measureBeside([&] { serve(stage.requesters, error); }, crowded) ||
        !awaitFailures(stage.requesters, error))
      return false;
    add(Path::direct, alone);
    add(Path::relay, plain);
    add(Path::hub, crowded);
    return true;
  }

  void add(Path column, const RoundTripTimes& times) {
    row(kMedian).add(column, times.median);
    row(kP99).add(column, times.p99);
    row(kLongest).add(column, times.longest);
  }

  bool serve(Requesters& requesters, std::string& error) {
    const int wanted = (settings_.crowdedLaunches - kHanging) * kRequestersEach;
    requesters.ask(services_);
    if (requesters.serveUntil([&] { return requesters.links().count == wanted; })) return true;
    error = std::to_string(requesters.links().count) + " of " + std::to_string(wanted) +
            " requesters have their link";
    return false;
  }

  bool awaitFailures(Requesters& requesters, std::string& error) {
    constexpr int kWanted = kHanging * kRequestersEach;
    const Requesters::Answers& failures = requesters.failures();
    if (!requesters.serveUntil([&] { return failures.count == kWanted; }))
      error = std::to_string(failures.count) + " of " + std::to_string(kWanted) +
              " requesters are told that their program hangs";
    for (int i = 0; i < kHanging; ++i)
      if (!holder_.accept([] { return true; }) && error.empty())
        error = "a program that is to hang doesn't";
    return error.empty();
  }

  const Settings& settings_;
  LoopbackSocket holder_ = LoopbackSocket::listening();  // who hangs waits for its end
  std::optional<InstalledTree> tree_;
  BenchPrograms installed_;
  PlainStarts starts_;
  std::vector<std::string> services_;  // of each requester
};

}  // namespace

void addLaunchCrowdMeasurement(const Settings& settings, Measurements& measurements) {
  const std::string launches = grouped(settings.crowdedLaunches) + " launches";
  const int served = (settings.crowdedLaunches - kHanging) * kRequestersEach;
  const std::string beside = "round trip beside " + launches + ", ";
  const std::string alone = "the same link undisturbed";
  const std::string plain = "the same link beside as many starts without the hub";
  measurements.push_back(std::make_unique<LaunchCrowdMeasurement>(
      settings,
      std::vector<Row>{
          {"launch_crowd", launches + " at once, until " + grouped(served) + " links are up", "ms",
           0, "start of the same programs at once, to their connections, without a hub"},
          {"launch_crowd_failures", "  until those whose program hangs are told", "ms", 0,
           "the deadline of their launches"},
          {"launch_crowd_round_trip_median", beside + "median", "us", 1, alone, plain},
          {"launch_crowd_round_trip_p99", beside + "p99", "us", 1, alone, plain},
          {"launch_crowd_round_trip_longest", beside + "longest", "us", 0, alone, plain}}));
}
