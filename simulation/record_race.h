// A simulated run about the record by which tools find their hub: tools come, look for a hub of one
// zone, start it if there is none, and go; hubs are started by hand beside them, told to stop and
// killed. In the end all who come find the same hub, and when they have gone no record is left.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "hublink_plugin/hub_finder.h"
#include "platform/sim/world.h"
#include "service_database/service_database.h"
#include "simulation/scenario.h"

class RecordRace {
 public:
  /// `program` is an executable file that stands for the hub's, `say` is given a line for all that
  /// happens.
  RecordRace(const Scenario& scenario, const ServiceDatabase& database, const std::string& program,
             std::function<void(const std::string& line)> say);
  ~RecordRace();
  RecordRace(const RecordRace&) = delete;
  RecordRace& operator=(const RecordRace&) = delete;

  /// What went wrong, or an empty text.
  std::string go();

 private:
  using Processes = std::vector<platform::sim::Process*>;

  int runHub(const std::vector<std::string>& arguments);
  void startHub();
  /// The port that it finds; 0 before.
  std::uint16_t& startTool(int stay);
  int runTool(const std::string& name, int stay, std::uint16_t& port);
  void take(const Step& step);
  platform::sim::Process* living(const Processes& processes, std::uint64_t who) const;
  void checkEnd();

  const Scenario& scenario_;
  const ServiceDatabase& database_;
  HubChoice choice_;
  std::function<void(const std::string& line)> say_;
  platform::sim::World world_;
  Processes hubs_, tools_;
  std::deque<std::uint16_t> found_;  // ports, for each tool
  int disturbances_ = 0;             // hubs that were told to stop, or killed
  bool lockLost_ = false;            // a tool that was killed may have left the lock
  bool isOver_ = false;              // whoever stays may go
};
