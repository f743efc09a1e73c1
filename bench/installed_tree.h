// A hub as it is installed, in a directory of its own: the programs and the description files of
// services that one of them provides.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include "bench/lane.h"

class InstalledTree {
 public:
  /// Copies the hub, and the echo provider from beside this program. The tree goes with this
  /// object.
  InstalledTree(const BenchPrograms& programs, const std::string& name);
  ~InstalledTree();
  InstalledTree(const InstalledTree&) = delete;
  InstalledTree& operator=(const InstalledTree&) = delete;

  /// Describes a service that the echo provider is started for.
  void describe(const std::string& service) const;

  std::string hub() const { return root_ / "hublink"; }
  std::string provider() const { return root_ / "echo_provider"; }
  /// Where the description files are.
  std::filesystem::path services() const { return root_ / "defaults" / "services"; }

 private:
  explicit InstalledTree(std::filesystem::path root) : root_(std::move(root)) {}

  std::filesystem::path root_;
};
