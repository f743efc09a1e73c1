// A hub as it is installed, in a directory of its own: the programs and the description files of
// services that they provide.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/lane.h"

inline constexpr const char* kEchoProvider = "echo_provider";

/// How a service is started.
struct Description {
  std::string service;
  /// A program that lies beside this one.
  std::string program = kEchoProvider;
  std::vector<std::string> arguments{"-first", "-second"};
  std::optional<int> launchTimeout{};  ///< seconds; none: the hub's own
};

/// One of a service that a launched_provider is started for.
Description launched(const std::string& service);

class InstalledTree {
 public:
  /// Copies the hub. The tree goes with this object.
  InstalledTree(const BenchPrograms& programs, const std::string& name);
  ~InstalledTree();
  InstalledTree(const InstalledTree&) = delete;
  InstalledTree& operator=(const InstalledTree&) = delete;

  /// Writes a description file, and copies the program.
  void describe(const Description& description) const;

  std::string hub() const { return file("hublink"); }
  std::string file(const std::string& program) const { return root_ / program; }
  /// Where the description files are.
  std::filesystem::path services() const { return root_ / "defaults" / "services"; }

 private:
  InstalledTree(std::filesystem::path root, std::filesystem::path origin)
      : root_(std::move(root)), origin_(std::move(origin)) {}

  std::filesystem::path root_;
  std::filesystem::path origin_;
};
