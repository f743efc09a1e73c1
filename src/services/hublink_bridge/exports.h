// What this machine exports: the services of the local hub that fit what the user has named, kept
// current from the hub's own account of itself.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "hublink_plugin/hublink_plugin.h"
#include "services/hublink_bridge/members.h"

namespace bridge {

class Exports {
 public:
  /// `changed` is called when services() has become another list.
  Exports(std::vector<std::string> services, std::vector<std::string> values,
          std::function<void()> changed);
  ~Exports();

  /// Reads on the plugin's hub from now on, which is to know its own state.
  bool watch(HublinkPlugin& plugin, std::string& error);
  /// The hub has gone: nothing is exported until the next watch().
  void unwatch();

  const std::vector<ExportedService>& services() const { return services_; }
  /// Whether a pattern exports the name. What begins with "hublink." is the hub's own and never is.
  bool isExported(std::string_view service) const;
  /// Whether a provider may be started for it: only if it was named without `*` and `?`.
  bool mayBeStarted(std::string_view service) const;
  bool isValueExported(std::string_view name) const;
  /// Whether the plugin provides the service, which is exported.
  bool isProvider(std::int32_t pluginID, std::string_view service) const;
  /// The program of a plugin of the local hub; empty if it isn't known.
  std::string programOf(std::int32_t pluginID) const;

 private:
  class Watch;

  void listed(std::vector<ExportedService> services, std::map<std::int32_t, std::string> programs);

  std::vector<std::string> servicePatterns_;
  std::vector<std::string> valuePatterns_;
  std::function<void()> changed_;
  std::vector<ExportedService> services_;
  std::map<std::int32_t, std::string> programs_;  // of all plugins of the hub
  std::unique_ptr<Watch> watch_;
};

}  // namespace bridge
