#include "bench/installed_tree.h"

#include <fstream>

#include "bench/launched_provider.h"
#include "platform/process.h"

namespace fs = std::filesystem;

Description launched(const std::string& service) {
  return {service, launched_provider::kProgram, {launched_provider::kService, service}, {}};
}

InstalledTree::InstalledTree(const BenchPrograms& programs, const std::string& name)
    // What the other constructor has made is taken back if this one fails.
    : InstalledTree(
          fs::temp_directory_path() /
              ("hublink_bench_" + std::to_string(platform::currentProcess()) + "_" + name),
          fs::path(programs.bench).parent_path()) {
  fs::create_directories(services());
  fs::copy_file(programs.hub, hub(), fs::copy_options::overwrite_existing);
}

InstalledTree::~InstalledTree() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void InstalledTree::describe(const Description& description) const {
  fs::copy_file(origin_ / description.program, file(description.program),
                fs::copy_options::skip_existing);
  const std::string& service = description.service;
  std::ofstream out(services() / (service + ".kvs"));
  out << "# How " << service << " is started.\nServices {\n  ExecName = \"" << description.program
      << "\"\n  PluginName = \"" << service << " provider\"\n  Persistent = yes\n  Arguments {";
  for (const std::string& argument : description.arguments)
    out << " { Arg = \"" << argument << "\" }";
  out << " }\n";
  if (description.launchTimeout) out << "  LaunchTimeout = " << *description.launchTimeout << '\n';
  out << "  ServicesProvided {\n    { ServiceName = \"" << service << "\" Priority = 1 }\n  }\n}\n";
}
