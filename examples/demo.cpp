// Runs the main job, visibly: a hub, a provider and a requester as separate processes.
//
//   hublink_demo [-count N]
//
// The three programs are taken from the directory of this one. The demo ends with 0 when both
// plugins have done their work and the hub has stopped by itself.
#include <cstdio>
#include <string>
#include <vector>

#include "indgen/program.h"
#include "platform/process.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

constexpr int kPatience = 120000;  // ms for any one of the programs

// A started program, ended with this object if it still runs.
class Program {
 public:
  Program(const std::string& name, std::vector<std::string> arguments) : name_(name) {
    platform::StartRequest request;
    request.program = std::string(gen_program_dir()) + "/" + name;
    request.arguments = std::move(arguments);
    request.arguments.insert(request.arguments.begin(), name);
    request.output = 1;
    request.error = 2;
    started_ = platform::startProcess(request, process_) == 0;
    if (!started_) std::fprintf(stderr, "demo: %s can't be started\n", request.program.c_str());
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
    int status = -1;
    if (!started_ || !awaitEnd(kPatience) || !platform::childEnded(process_, status)) {
      std::fprintf(stderr, "demo: %s has not ended\n", name_.c_str());
      return false;
    }
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

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  gen_initialise();
  const std::string port = std::to_string(findPort());
  std::printf("demo: starting the hub on port %s\n", port.c_str());
  Program hub("hublink", {"-port", port});
  if (!hub.started()) return 1;
  Program provider("echo_provider", {"-hl_connect_hublink_port", port});
  std::vector<std::string> arguments{"-hl_connect_hublink_port", port};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  Program requester("requester", arguments);
  bool done = provider.started() && requester.finish();
  done = done && provider.finish();
  if (done) std::printf("demo: waiting for the hub to stop by itself\n");
  return done && hub.finish() ? 0 : 1;
}
