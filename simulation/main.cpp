// Runs simulated scenarios, and makes short those that fail.
//
// Scenarios run in worker processes, so that one which crashes is a failure like any other. A
// worker writes the seed that it is at into a file; when it fails, the list of that scenario's
// steps is cut down as long as it goes on failing, and what is left is shown.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "indgen/program.h"
#include "indgen/temporary.h"
#include "simulation/record_race.h"
#include "simulation/run.h"

namespace {

constexpr std::size_t kBatch = 250;
constexpr int kLongestScenario = 60;  // seconds of real time
// One scenario of ten, by the end of its seed, is about the hub's record.
constexpr std::uint64_t kRecordRaces = 9;

struct Options {
  std::uint64_t first = 1;
  std::uint64_t count = 1000;
  std::vector<std::size_t> keep;  // numbers of the steps that are taken; empty: all
  bool isWorker = false, isVerbose = false;
  std::string place;  // where the worker writes its seed
};

ServiceDatabase makeDatabase(const std::string& file) {
  ServiceDatabase database;
  std::ofstream text(file);
  text << "Services {\n";
  for (const Provision& provision : provisions())
    text << "  { ExecName = \"" << provision.program << "\" "
         << (provision.isSharedObject ? "SharedObject = yes " : "")
         << (provision.timeout ? "LaunchTimeout = " + std::to_string(provision.timeout) + " " : "")
         << "ServicesProvided { { ServiceName = \"" << provision.service << "\" } } }\n";
  text << "}\n";
  text.close();
  database.read_file(file.c_str());
  return database;
}

// A file that can be found in the hub's place; what it does is the simulated machine's.
std::string makeProgram(const std::string& file) {
  std::ofstream(file).flush();
  std::filesystem::permissions(file, std::filesystem::perms::owner_all);
  return file;
}

Scenario chosen(const Options& options, std::uint64_t seed) {
  Scenario scenario = makeScenario(seed);
  if (!options.keep.empty())
    std::erase_if(scenario.steps, [&options](const Step& step) {
      return std::find(options.keep.begin(), options.keep.end(), step.number) == options.keep.end();
    });
  return scenario;
}

// Ends the process when a scenario doesn't end.
class Watchdog {
 public:
  Watchdog() : thread_([this] { watch(); }) {}
  ~Watchdog() {
    isOver_ = true;
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  void begin() { started_ = std::chrono::steady_clock::now().time_since_epoch().count(); }

 private:
  void watch() {
    while (!isOver_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      const std::chrono::steady_clock::duration since(
          std::chrono::steady_clock::now().time_since_epoch().count() - started_);
      if (since < std::chrono::seconds(kLongestScenario)) continue;
      std::fputs("the scenario doesn't end\n", stderr);
      std::_Exit(3);
    }
  }

  std::atomic<std::int64_t> started_{std::chrono::steady_clock::now().time_since_epoch().count()};
  std::atomic<bool> isOver_{false};
  std::thread thread_;
};

// A directory of this process's own, which goes with the object.
class Scratch {
 public:
  Scratch()
      : path_(std::filesystem::temp_directory_path() /
              ("simulation-" +
               std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()))) {
    std::filesystem::create_directory(path_);
  }
  ~Scratch() { std::filesystem::remove_all(path_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  std::string file(const char* name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

std::string runScenario(const Scenario& scenario, const ServiceDatabase& database,
                        const std::string& program,
                        const std::function<void(const std::string& line)>& say) {
  if (scenario.seed % 10 == kRecordRaces) return RecordRace(scenario, database, program, say).go();
  return Run(scenario, database, say).go();
}

int runWorker(const Options& options) {
  const Scratch scratch;
  {
    // What the support library remembers is the same for all runs.
    platform::sim::World world;
    platform::setEnvironmentVariable("TMP", scratch.file("").c_str());
    gen_initialise();
    gen_temporary_directory(nullptr);
  }
  const ServiceDatabase database = makeDatabase(scratch.file("services"));
  const std::string program = makeProgram(scratch.file("hublink"));
  Watchdog watchdog;
  for (std::uint64_t seed = options.first; seed < options.first + options.count; ++seed) {
    if (!options.place.empty()) std::ofstream(options.place) << seed;
    watchdog.begin();
    const std::string fault =
        runScenario(chosen(options, seed), database, program, [&options](const std::string& line) {
          if (!options.isVerbose) return;
          std::printf("%s\n", line.c_str());
          std::fflush(stdout);
        });
    if (fault.empty()) continue;
    std::printf("seed %llu: %s\n", static_cast<unsigned long long>(seed), fault.c_str());
    return 1;
  }
  return 0;
}

// The same program as a worker; true if all went well.
class Workers {
 public:
  explicit Workers(std::string program) : program_(std::move(program)) {}
  bool run(std::uint64_t first, std::uint64_t count, const std::string& more, bool isQuiet) const {
    std::ostringstream command;
    command << '"' << program_ << "\" --worker --seed " << first << " --scenarios " << count << ' '
            << more << (isQuiet ? " >/dev/null 2>&1" : "");
    std::fflush(stdout);
    return std::system(command.str().c_str()) == 0;
  }

 private:
  std::string program_;
};

std::string listed(const std::vector<std::size_t>& steps) {
  std::string text = "--keep";
  for (const std::size_t step : steps) text += " " + std::to_string(step);
  return text;
}

// Leaves out ever smaller pieces while the rest still fails.
std::vector<std::size_t> shorten(const Workers& workers, std::uint64_t seed) {
  std::vector<std::size_t> steps;
  for (const Step& step : makeScenario(seed).steps) steps.push_back(step.number);
  for (std::size_t piece = steps.size() / 2; piece > 0; piece /= 2)
    for (std::size_t at = 0; at < steps.size() && steps.size() > 1;) {
      std::vector<std::size_t> rest = steps;
      const auto begin = rest.begin() + static_cast<std::ptrdiff_t>(at);
      rest.erase(begin, begin + static_cast<std::ptrdiff_t>(std::min(piece, rest.size() - at)));
      if (!rest.empty() && !workers.run(seed, 1, listed(rest), true))
        steps = rest;
      else
        at += piece;
    }
  return steps;
}

int runAll(const Options& options, const std::string& program) {
  const Workers workers(program);
  const Scratch scratch;
  const std::string place = scratch.file("seed");
  for (std::uint64_t done = 0; done < options.count; done += kBatch) {
    const std::uint64_t count = std::min<std::uint64_t>(kBatch, options.count - done);
    if (workers.run(options.first + done, count, "--place " + place, false)) continue;
    std::uint64_t seed = options.first + done;
    std::ifstream(place) >> seed;
    std::printf("seed %llu fails; making it short\n", static_cast<unsigned long long>(seed));
    const std::string steps = listed(shorten(workers, seed));
    workers.run(seed, 1, steps + " --verbose", false);
    std::printf("again: ./dev simulate --worker --seed %llu --scenarios 1 --verbose %s\n",
                static_cast<unsigned long long>(seed), steps.c_str());
    return 1;
  }
  std::printf("%llu scenarios from seed %llu went well\n",
              static_cast<unsigned long long>(options.count),
              static_cast<unsigned long long>(options.first));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Leads a whole hub and its plugins through random scenarios.");
  app.add_option("--seed", options.first, "seed of the first scenario")->capture_default_str();
  app.add_option("--scenarios", options.count, "how many")->capture_default_str();
  app.add_option("--keep", options.keep, "take only these steps of the scenario");
  app.add_flag("--worker", options.isWorker, "run them in this process");
  app.add_flag("--verbose", options.isVerbose, "say what happens");
  app.add_option("--place", options.place, "file for the seed that a worker is at");
  CLI11_PARSE(app, argc, argv);
  return options.isWorker ? runWorker(options) : runAll(options, argv[0]);
}
