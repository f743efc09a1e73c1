// The hub's entry: set-up and the end in order around the main loop.
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "indgen/access.h"
#include "indgen/command_line.h"
#include "indgen/config_dirs.h"
#include "indgen/memory.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/readiness.h"
#include "service_database/service_database.h"
#include "services/hublink/command_line.h"
#include "services/hublink/hublink.h"
#include "services/hublink/main_loop.h"

namespace {

constexpr int kShutdownWait = 1000;  // ms for each child

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

File openLog(const char* name) {
  if (!name) return nullptr;
  std::string error;
  File file(openLogFile(name, error));
  if (!file)
    std::fprintf(stderr, "Warning: Unable to open log file %s: %s.\n", name, error.c_str());
  return file;
}

// Everything that a process of this kind sets up once, before anything else runs.
void preparePlatform() {
  platform::boundFreedMemory(2 << 20);
  platform::ensureStandardDescriptors();
  platform::raiseDescriptorLimit();
  platform::ignoreBrokenPipe();
  gen_install_new_handler();
  gen_initialise();
}

// The hub, ready to run, or null with the failure printed.
std::unique_ptr<Hublink> setUp(const ServiceDatabase& database, const CommandLine& line,
                               STPFileLog* log, std::FILE* internalFile) {
  auto hub =
      std::make_unique<Hublink>(database, line.connectMode ? 0 : line.port, log, internalFile);
  hub->gate().setAnyUser(line.anyUser);
  hub->entrance().setTcpOnly(line.tcpOnly);
  hub->launcher().setTimeout(line.launchTimeout);
  const bool ready = (!line.connectMode || hub->connectToPeer("localhost", line.port)) &&
                     hub->startListening(line.notShared, line.zone, line.loopbackOnly);
  if (ready) return hub;
  std::fputs(line.connectMode ? "Unable to setup transport layer.\n"
                              : "Unable to setup transport layer, specified port may already be "
                                "in use.\n",
             stderr);
  hub->abandonSetUp();
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  preparePlatform();
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    std::puts("hublink " HUBLINK_VERSION);
    return std::fflush(stdout) == 0 ? 0 : 1;
  }
  if (argc == 2 && std::string_view(argv[1]) == "--help") {
    std::printf(kUsage, argv[0]);
    std::fputs(kOptionHelp, stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
  }
  V_chdir(gen_program_dir());
  ServiceDatabase database;
  ServiceDatabase::read_directory(database, gen_join(gen_defaults_dir(), "services"));
  if (argc < 2) {
    std::fprintf(stderr, kUsage, argv[0]);
    return 1;
  }
  const CommandLine line = parseCommandLine(argc, argv);
  if (line.missingValue) {
    std::fprintf(stderr, "Error: Option %s needs a value.\n", line.missingValue);
    return 1;
  }
  if (line.port > UINT16_MAX) {
    std::fputs("Error: The port must be at most 65535.\n", stderr);
    return 1;
  }
  if (line.launchTimeout < 0) {
    std::fprintf(stderr, "Error: The launch timeout must be a number of seconds, at most %d.\n",
                 PluginRecord::kMostLaunchTimeout);
    return 1;
  }
  const File logFile = openLog(line.logFile);
  const bool oneFile = line.logFile && line.internalLogFile &&
                       std::string_view(line.logFile) == line.internalLogFile;
  const File internalFile = oneFile ? nullptr : openLog(line.internalLogFile);
  if (line.port == 0) {
    std::fputs("Error: Must specify a port that the hublink listens on or connects to.\n", stderr);
    return 1;
  }
  std::unique_ptr<STPFileLog> log;
  if (logFile) log = std::make_unique<STPFileLog>(logFile.get(), false);
  // Before there is a record that would stay behind.
  platform::installStopSignals();
  const auto hub = setUp(database, line, log.get(), oneFile ? logFile.get() : internalFile.get());
  if (!hub) return 1;
  if (const gen_text options = gen_command_line(nullptr, argv + 1)) hub->setOptions(options.get());
  if (hub->log().internal()) hub->log().setInternalFile(line.internalLogFile);
  platform::readiness().setBusyPolling(!line.noBusyPolling);
  runMainLoop(*hub);
  hub->shutdownPlugins(hub->hasNoActiveRecord(), kShutdownWait);
  return 0;
}
