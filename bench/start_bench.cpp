// How long a hub takes to listen, with no description file and with 1,000, and how long a service
// that isn't running takes to be there, beside what starting the same program takes without the
// hub.
//
//   hublink_start_bench [--runs N]
//
// The programs are taken from the directory of this one and run from an installed tree of their
// own.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench/loopback.h"
#include "hublink_plugin/hublink_plugin.h"
#include "indgen/program.h"
#include "platform/clock.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

namespace fs = std::filesystem;

constexpr int kDescriptionFiles = 1000;

class Tree {
 public:
  explicit Tree(int descriptions)
      : root_(fs::temp_directory_path() /
              ("hublink_start_" + std::to_string(platform::currentProcess()) + "_" +
               std::to_string(descriptions))) {
    fs::create_directories(services());
    for (const char* program : {"hublink", "echo_provider"})
      fs::copy_file(fs::path(gen_program_dir()) / program, root_ / program,
                    fs::copy_options::overwrite_existing);
    for (int i = 0; i < descriptions; ++i) describe("Service" + std::to_string(i));
  }
  ~Tree() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  void describe(const std::string& service) {
    std::ofstream(services() / (service + ".kvs"))
        << "# How " << service << " is started.\nServices {\n  ExecName = \"echo_provider\"\n"
        << "  PluginName = \"" << service << " provider\"\n  Persistent = yes\n"
        << "  Arguments { { Arg = \"-first\" } { Arg = \"-second\" } }\n"
        << "  ServicesProvided {\n    { ServiceName = \"" << service
        << "\" Priority = 1 }\n  }\n}\n";
  }
  std::string program(const char* name) const { return root_ / name; }

 private:
  fs::path services() const { return root_ / "defaults" / "services"; }
  fs::path root_;
};

std::uint16_t freePort() {
  std::uint16_t port = 0;
  const int socket = getFreeListenSocket(&port, nullptr, true);
  if (socket != 0) closeListenSocket(socket, nullptr);
  return port;
}

double since(std::uint64_t start) {
  return static_cast<double>(platform::monotonicNanoseconds() - start) / 1e6;
}

// Milliseconds, or a negative number with a message printed.
using Measurement = std::function<double()>;

double fail(const std::string& message) {
  std::fprintf(stderr, "hublink_start_bench: %s\n", message.c_str());
  return -1;
}

double startToListening(const Tree& tree) {
  const std::uint16_t port = freePort();
  std::string error;
  BenchProcess hub;
  const std::uint64_t start = platform::monotonicNanoseconds();
  if (!hub.start(tree.program("hublink"), {"-port", std::to_string(port)}, error))
    return fail(error);
  while (!LoopbackSocket::connectedTo(port))
    if (since(start) > kStartLimit) return fail("the hub doesn't listen");
  return since(start);
}

// Asks for a service that nobody provides yet, until the link is there.
double requestToAccepted(const Tree& tree) {
  const std::uint16_t port = freePort();
  std::string error;
  BenchProcess hub;
  HublinkPlugin plugin;
  if (!hub.start(tree.program("hublink"), {"-port", std::to_string(port)}, error) ||
      !plugin.connect(port, error, "127.0.0.1"))
    return fail(error);
  ServiceQuery query;
  query.serviceName = "Echo";
  const std::uint64_t start = platform::monotonicNanoseconds();
  const ServiceReply reply = plugin.requestService(query);
  const double taken = since(start);
  return reply.link ? taken : fail(outcomeText(reply.outcome));
}

// The same program, told to connect to a bare listening socket.
double startToConnected(const Tree& tree) {
  std::string error;
  BenchProcess provider;
  const LoopbackSocket listener = LoopbackSocket::listening();
  const std::string port = std::to_string(platform::localPort(listener.get()));
  const std::uint64_t start = platform::monotonicNanoseconds();
  if (!provider.start(tree.program("echo_provider"), {"-hl_connect_hublink_port", port}, error))
    return fail(error);
  int status = 0;
  const LoopbackSocket client = listener.accept([&] { return provider.ended(status); });
  return client ? since(start) : fail("the provider doesn't connect");
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 15;
  CLI::App app("Measures starting a hub and starting a provider on demand.");
  app.add_option("--runs", runs, "Runs of each measurement; the median counts")
      ->check(CLI::Range(1, 1000));
  CLI11_PARSE(app, argc, argv);
  gen_initialise();
  platform::ignoreBrokenPipe();
  const Tree none(0), large(kDescriptionFiles);
  Tree small(1);
  small.describe("Echo");
  const struct {
    const char* title;
    Measurement measure;
  } rows[] = {
      {"start to listening, no description file", [&] { return startToListening(none); }},
      {"start to listening, 1,000 description files", [&] { return startToListening(large); }},
      {"the provider's start to its connection, no hub", [&] { return startToConnected(small); }},
      {"request for a service that isn't running to the accepted reply",
       [&] { return requestToAccepted(small); }}};
  constexpr std::size_t kRows = std::size(rows);
  std::vector<double> results[kRows];
  for (int run = 0; run < runs; ++run) {
    for (std::size_t row = 0; row < kRows; ++row) {
      results[row].push_back(rows[row].measure());
      if (results[row].back() < 0) return 1;
    }
  }
  for (std::size_t row = 0; row < kRows; ++row) {
    std::sort(results[row].begin(), results[row].end());
    std::printf("%-64s %8.2f ms\n", rows[row].title, results[row][results[row].size() / 2]);
  }
  return 0;
}
