#include "bench/peers/peer_lane.h"

#include <cstdio>

#include "indgen/find.h"
#include "platform/clock.h"
#include "platform/file.h"

namespace fs = std::filesystem;

namespace {

constexpr int kConnectPause = 10;  // ms between two tries to connect to a broker

}  // namespace

ScratchDirectory::ScratchDirectory()
    : path_(fs::temp_directory_path() /
            ("hublink_peers_" + std::to_string(platform::currentProcess()))) {}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ScratchDirectory::make(const char* name) const {
  fs::create_directories(path_ / name);
  return path_ / name;
}

std::string brokerProgram(const PeerKind& kind, const std::string& self) {
  if (!kind.program) return self;
  if (const gen_text found = gen_find_program(kind.program, false, true)) return found.get();
  // Where daemons are, which is not in everybody's PATH.
  const std::string file = std::string("/usr/sbin/") + kind.program;
  return platform::testAccess(file.c_str(), platform::accessExecute) == 0 ? file : "";
}

std::unique_ptr<PeerLane> PeerLane::open(const PeerKind& kind, const std::string& self,
                                         const ScratchDirectory& scratch, std::int64_t window,
                                         std::string& error) {
  std::unique_ptr<PeerLane> lane(new PeerLane(kind));
  if (lane->start(self, scratch, window, error)) return lane;
  error = std::string(kind.title) + ": " + error + lane->endedProcess();
  return nullptr;
}

bool PeerLane::start(const std::string& self, const ScratchDirectory& scratch, std::int64_t window,
                     std::string& error) {
  place_.directory = scratch.make(kind_.option);
  {
    const LoopbackSocket one = LoopbackSocket::listening(), other = LoopbackSocket::listening();
    place_.port = platform::localPort(one.get());
    place_.otherPort = platform::localPort(other.get());
  }
  const std::vector<std::string> ports{"--port", std::to_string(place_.port), "--other-port",
                                       std::to_string(place_.otherPort)};
  std::vector<std::string> arguments = kind_.arguments(place_);
  if (!kind_.program) {
    arguments = {"--role", kind_.option};
    arguments.insert(arguments.end(), ports.begin(), ports.end());
  }
  if (!broker_.start(brokerProgram(kind_, self), arguments, error) || !awaitBroker(error))
    return false;
  client_ = kind_.connect(place_, PeerEnd::driver, error);
  if (!client_) return false;
  arguments = {"--role",     kRoleFarEnd, "--peer",
               kind_.option, "--window",  std::to_string(window / 1024)};
  arguments.insert(arguments.end(), ports.begin(), ports.end());
  if (!farEnd_.start(self, arguments, error)) return false;
  if (!awaitReady(*client_)) error = client_->failure();
  return error.empty();
}

bool PeerLane::awaitBroker(std::string& error) const {
  const std::uint64_t end = platform::monotonicMilliseconds() + kStartLimit;
  while (!LoopbackSocket::connectedTo(place_.port)) {
    if (!endedProcess().empty() || platform::stopRequested() ||
        platform::monotonicMilliseconds() > end) {
      error = "the broker doesn't listen";
      return false;
    }
    platform::sleepMilliseconds(kConnectPause);
  }
  return true;
}

std::string PeerLane::failure() const {
  return std::string(kind_.title) + ": " + client_->failure() + endedProcess();
}

std::string PeerLane::endedProcess() const {
  std::string text;
  int status = 0;
  if (broker_.ended(status))
    text += " (the broker has ended with status " + std::to_string(status) + ")";
  if (farEnd_.ended(status))
    text += " (the far end has ended with status " + std::to_string(status) + ")";
  return text;
}

int runPeerFarEnd(const PeerKind& kind, const BrokerPlace& place, std::int64_t window) {
  std::string error;
  const std::unique_ptr<PeerClient> client = kind.connect(place, PeerEnd::farEnd, error);
  if (!client) {
    std::fprintf(stderr, "hublink_peers_bench: far end: %s: %s\n", kind.title, error.c_str());
    return 1;
  }
  serve(*client, window);
  return 0;
}
