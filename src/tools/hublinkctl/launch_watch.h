// Why a launch that a question has set off came to nothing, which the hub's answer doesn't say:
// what its events tell meanwhile.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/hublinkctl/status_client.h"

namespace hublinkctl {

/// The session must outlive it. With a hub that doesn't tell of itself it knows nothing.
class LaunchWatch {
 public:
  explicit LaunchWatch(Session& session);
  LaunchWatch(const LaunchWatch&) = delete;
  LaunchWatch& operator=(const LaunchWatch&) = delete;
  ~LaunchWatch() { session_.onSilence({}); }

  // To be called before the question; false if no answer has come. From then on an answer that
  // doesn't come in time is told with the reason.
  /// Launches of this program count, by its name as the hub is told it.
  bool watchProgram(const std::string& program);
  /// Launches of the providers of this service count that the hub knows.
  bool watchService(const std::string& service);

  /// What has become of the launches; empty if nothing is known.
  std::string reason() const;

 private:
  struct Launch {
    std::string program;
    std::string failure;        ///< empty if it hasn't failed
    std::int32_t pluginID = 0;  ///< once it has connected
    std::vector<std::string> services;
    bool isGone = false;
  };
  bool open();
  bool subscribe();
  void note(const Facts& event);
  std::string textOf(const Launch& launch) const;

  Session& session_;
  StatusClient client_;
  bool isOpen_ = false;
  std::string service_;                // empty for a program
  std::vector<std::string> programs_;  // that count
  std::vector<Launch> launches_;       // as they were begun
};

}  // namespace hublinkctl
