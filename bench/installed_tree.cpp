#include "bench/installed_tree.h"

#include <fstream>

#include "platform/process.h"

namespace fs = std::filesystem;

InstalledTree::InstalledTree(const BenchPrograms& programs, const std::string& name)
    // What the other constructor has made is taken back if this one fails.
    : InstalledTree(fs::temp_directory_path() /
                    ("hublink_bench_" + std::to_string(platform::currentProcess()) + "_" + name)) {
  fs::create_directories(services());
  fs::copy_file(programs.hub, hub(), fs::copy_options::overwrite_existing);
  fs::copy_file(fs::path(programs.bench).replace_filename("echo_provider"), provider(),
                fs::copy_options::overwrite_existing);
}

InstalledTree::~InstalledTree() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void InstalledTree::describe(const std::string& service) const {
  std::ofstream(services() / (service + ".kvs"))
      << "# How " << service << " is started.\nServices {\n  ExecName = \"echo_provider\"\n"
      << "  PluginName = \"" << service << " provider\"\n  Persistent = yes\n"
      << "  Arguments { { Arg = \"-first\" } { Arg = \"-second\" } }\n"
      << "  ServicesProvided {\n    { ServiceName = \"" << service << "\" Priority = 1 }\n  }\n}\n";
}
