// Runs the main job, visibly: an installed tree is laid out, a hub is started in it, and two
// requesters ask at the same time for a service that nobody provides yet. The hub starts the one
// provider that serves both; what happened in between stands in the hub's internal log, which is
// printed at the end.
//
//   hublink_demo [-count N]
//
// The programs are taken from the directory of this one. The demo ends with 0 when both requesters
// have done their work and the hub has stopped by itself.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "active_hub/plugin_options.h"
#include "indgen/program.h"
#include "platform/process.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

namespace fs = std::filesystem;

constexpr int kPatience = 120000;  // ms for any one of the programs

// An installation of its own: the hub, the plugins beside it, and the description of the provider.
class InstalledTree {
 public:
  InstalledTree()
      : root_(fs::temp_directory_path() /
              ("hublink_demo_" + std::to_string(platform::currentProcess()))) {
    fs::create_directories(root_ / "defaults" / "services");
    for (const char* program : {"hublink", "echo_provider", "requester"})
      fs::copy_file(fs::path(gen_program_dir()) / program, root_ / program,
                    fs::copy_options::overwrite_existing);
    std::ofstream(root_ / "defaults" / "services" / "echo.kvs")
        << "Services {\n"
           "  ExecName = \"echo_provider\"\n"
           "  ServicesProvided { { ServiceName = \"Echo\" } }\n"
           "}\n";
  }
  ~InstalledTree() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  InstalledTree(const InstalledTree&) = delete;
  InstalledTree& operator=(const InstalledTree&) = delete;

  std::string file(const char* name) const { return root_ / name; }

 private:
  fs::path root_;
};

// A started program, ended with this object if it still runs.
class Program {
 public:
  Program(const std::string& name, const std::string& path, std::vector<std::string> arguments)
      : name_(name) {
    platform::StartRequest request;
    request.program = path;
    request.arguments = std::move(arguments);
    request.arguments.insert(request.arguments.begin(), path);
    request.output = 1;
    request.error = 2;
    started_ = platform::startProcess(request, process_) == 0;
    if (!started_) std::fprintf(stderr, "demo: %s can't be started\n", path.c_str());
  }
  ~Program() {
    if (!started_) return;
    platform::killProcess(process_);
    awaitEnd(-1);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  bool started() const { return started_; }

  /// Waits for the end; true for exit code 0.
  bool finish() {
    if (!started_ || !awaitEnd(kPatience)) {
      std::fprintf(stderr, "demo: %s has not ended\n", name_.c_str());
      return false;
    }
    const int status = platform::childEnd(process_).value_or(platform::ChildEnd()).status();
    started_ = false;
    platform::releaseChild(process_);
    std::printf("demo: %s has ended with exit code %d\n", name_.c_str(), status);
    return status == 0;
  }

 private:
  bool awaitEnd(int milliseconds) {
    std::size_t ended = 0;
    return platform::waitForChildren(&process_, 1, true, milliseconds, ended) ==
           platform::WaitOutcome::ended;
  }

  std::string name_;
  platform::ProcessId process_ = 0;
  bool started_ = false;
};

std::uint16_t findPort() {
  std::uint16_t port = 0;
  const int socket = getFreeListenSocket(&port, nullptr, true);
  if (socket != 0) closeListenSocket(socket, nullptr);
  return port;
}

// The hub's own log: who came, what was asked, started and answered. Relayed packets aren't in it.
void printLog(const std::string& file) {
  std::ifstream log(file);
  std::printf("demo: the hub's internal log:\n");
  for (std::string line; std::getline(log, line);) std::printf("  %s\n", line.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  gen_initialise();
  const InstalledTree tree;
  const std::string port = std::to_string(findPort());
  std::printf("demo: starting the hub on port %s; nobody provides Echo yet\n", port.c_str());
  Program hub("hublink", tree.file("hublink"),
              {"-port", port, "-hl_log_internal", tree.file("log")});
  std::vector<std::string> arguments{plugin_options::kHubPort, port};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  Program first("requester", tree.file("requester"), arguments);
  Program second("second requester", tree.file("requester"), arguments);
  bool done = hub.started() && first.finish();
  done = second.finish() && done;
  if (done) std::printf("demo: waiting for the hub to stop by itself\n");
  done = done && hub.finish();
  printLog(tree.file("log"));
  return done ? 0 : 1;
}
