// One simulated run: a whole hub and its plugins on a machine of their own, led through a scenario,
// and watched.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/sim/world.h"
#include "service_database/service_database.h"
#include "simulation/actor.h"
#include "simulation/scenario.h"

class HublinkInspector;

class Run {
 public:
  /// `say` is given a line for all that happens. The database is the hub's.
  Run(const Scenario& scenario, const ServiceDatabase& database,
      std::function<void(const std::string& line)> say);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// Goes through the whole scenario to the hub's end; what went wrong, or an empty text.
  std::string go();

 private:
  template <class Kind>
  Actor& cast(ActorRole role, std::uint32_t address);
  void setWeather();
  int runChild(ActorRole role, bool isLibrary);
  void doom(Actor& actor, int moments);
  int runHub();
  void lookAtHub(HublinkInspector& inspector);
  void noteOwed();
  void arrive(std::uint64_t choice);
  void rush(std::uint64_t choice);
  void take(const Step& step);
  Actor* livingActor(std::uint64_t who) const;
  void kill(Actor& actor, std::uint64_t choice = 0);
  bool pass(std::uint64_t milliseconds);
  void checkHeard(std::uint64_t age);
  bool comeToRest();
  void checkRest();
  bool endHub();

  const Scenario& scenario_;
  const ServiceDatabase& database_;
  platform::sim::World world_;
  Ledger ledger_;
  Stage stage_;
  std::vector<std::unique_ptr<Actor>> actors_;
  platform::sim::Process* hub_ = nullptr;
  HublinkInspector* inspector_ = nullptr;  // while the hub makes passes
  bool isShared_ = false;
  std::uint64_t passes_ = 0;
  // Cookies of what hung on launches when the hub was told to end.
  std::vector<std::pair<Actor*, std::int32_t>> owed_;
};
