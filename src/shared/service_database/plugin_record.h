// What the hub knows of one plugin that it can start: the program, how to start it, and the
// services that it provides.
//
// A record is made from one section of a description file and copies all of its texts, so that it
// outlives the tree it was read from. It never changes afterwards.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class ut_attribute_list;

struct NameAndValue {
  std::string name;
  std::string value;
};

/// One service that a plugin provides.
struct ServiceRecord {
  std::int32_t priority = 0;  ///< carried along; no decision uses it
  std::string name;
  std::vector<NameAndValue> service_data;
};

class PluginRecord {
 public:
  /// Seconds in the longest `LaunchTimeout`.
  static constexpr std::int32_t kMostLaunchTimeout = 86400;
  /// Whether a `LaunchTimeout` may have this value.
  static constexpr bool is_launch_timeout(std::int32_t seconds) {
    return seconds >= 0 && seconds <= kMostLaunchTimeout;
  }

  /// The record of a plugin's section, with `id` as its number; none, with a warning, if the
  /// section has no `ExecName`. A service without `ServiceName`, an argument without `Arg` and a
  /// `LaunchTimeout` out of its range are warned about and left out.
  static std::optional<PluginRecord> from_section(std::int32_t id,
                                                  const ut_attribute_list& section);

  /// True if one of the services has exactly this name; a null name is nobody's.
  bool provides(const char* service_name) const;
  /// What to execute: the alternative for Ada, if there is one and this hub prefers it.
  const std::string& executable_name() const;

  std::int32_t id() const { return id_; }
  /// The file that describes it and the line of its block, as well as the reader knows it; empty
  /// and 0 if it comes from no file.
  const std::string& file() const { return file_; }
  std::int32_t line() const { return line_; }
  bool is_persistent() const { return persistent_; }
  /// True for a plugin that is no process of its own, but something that its requester loads.
  bool is_shared_object() const { return shared_object_; }
  /// Seconds that the plugin may take from its start until it connects, 0 for no limit; none if
  /// that is left to the hub.
  std::optional<std::int32_t> launch_timeout() const { return launch_timeout_; }
  const std::string& exec_name() const { return exec_name_; }
  const std::optional<std::string>& ada_exec_name() const { return ada_exec_name_; }
  const std::string& plugin_name() const { return plugin_name_; }
  const std::vector<NameAndValue>& environment() const { return environment_; }
  const std::vector<std::string>& arguments() const { return arguments_; }
  const std::vector<NameAndValue>& plugin_data() const { return plugin_data_; }
  const std::vector<ServiceRecord>& services() const { return services_; }

 private:
  PluginRecord() = default;

  std::int32_t id_ = 0;
  std::string file_;
  std::int32_t line_ = 0;
  bool persistent_ = false;
  bool shared_object_ = false;
  std::optional<std::int32_t> launch_timeout_;
  std::string exec_name_;
  std::optional<std::string> ada_exec_name_;
  std::string plugin_name_;
  std::vector<NameAndValue> environment_;
  std::vector<std::string> arguments_;
  std::vector<NameAndValue> plugin_data_;
  std::vector<ServiceRecord> services_;
};
