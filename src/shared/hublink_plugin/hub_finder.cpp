#include "hublink_plugin/hub_finder.h"

#include "active_hub/active_hub_record.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "indgen/text.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/process.h"
#include "stp_transport/child/stp_child_process.h"
#include "stp_transport/retry/stp_retryhandler.h"

namespace {

constexpr const char* kHubName = "hublink";
// From the directory of an installed program to that of the hub.
constexpr const char* kInstalledHub = "../lib/hublink/hublink";
constexpr const char* kThisMachine = "127.0.0.1";

// The record's name as texts that the look-up takes.
class RecordKey {
 public:
  explicit RecordKey(const HubChoice& choice) : zone_(choice.zone) {
    const std::string program = hubProgram(choice);
    if (!program.empty()) directory_ = gen_directory_name(program.c_str());
  }
  const char* zone() const { return zone_ ? zone_->c_str() : nullptr; }
  const char* directory() const { return directory_; }
  // Without both, the name would be that of a hub beside this program, which isn't there.
  bool isKnown() const { return zone_ || directory_; }
  HubRecord read() const {
    if (!isKnown()) return {};
    return {activeHubPlace(zone(), nullptr, directory()).get(),
            readActiveHub(zone(), nullptr, directory()), whyNone()};
  }
  std::string whyNone() const {
    return isKnown() ? whyNoActiveHub(zone(), nullptr, directory()) : std::string();
  }
  std::string whyNotFound() const {
    if (!isKnown()) return "the hub's program isn't found, and no zone is named";
    const HubRecord record = read();
    const std::string text = "there is no hub" + (zone_ ? " in the zone " + *zone_ : "") + ": ";
    if (!record.obstacle.empty()) return text + record.obstacle;
    if (record.hub.process <= 0) return text + "no record " + record.path;
    return text + "its process " + std::to_string(record.hub.process) +
           " has gone and left the record " + record.path;
  }
  std::uint16_t find() const {
    return isKnown() ? findActiveHub(zone(), nullptr, directory()) : std::uint16_t{0};
  }

 private:
  std::optional<std::string> zone_;
  gen_text directory_;
};

// Holds the lock of a record for the length of a scope.
class RecordLock {
 public:
  explicit RecordLock(const RecordKey& key)
      : key_(key), held_(lockActiveHub(key.zone(), nullptr, key.directory())) {}
  ~RecordLock() {
    if (held_) unlockActiveHub(key_.zone(), nullptr, key_.directory());
  }
  RecordLock(const RecordLock&) = delete;
  RecordLock& operator=(const RecordLock&) = delete;
  bool held() const { return held_; }

 private:
  const RecordKey& key_;
  bool held_;
};

void setUp(HublinkPlugin& plugin, const HubChoice& choice) {
  plugin.setAnyUser(choice.anyUser);
  plugin.setTcpOnly(choice.tcpOnly);
}

std::string noHubOn(std::uint16_t port) {
  return "there is no hub on port " + std::to_string(port);
}

HubSearch join(HublinkPlugin& plugin, std::uint16_t port, std::string& error, int milliseconds) {
  const auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  if (port != 0) plugin.reach(*transport, kThisMachine, port, &status);
  if (port == 0 || !status.good()) {
    error = noHubOn(port);
    return HubSearch::none;
  }
  // A stranger's is no hub to this user, who may have one of his own started.
  if (!plugin.takesHub(*transport, port, error)) return HubSearch::none;
  const std::uint64_t end =
      platform::monotonicMilliseconds() + static_cast<std::uint64_t>(milliseconds);
  if (plugin.attach(transport.get(), error, milliseconds)) return HubSearch::joined;
  if (platform::monotonicMilliseconds() < end) {
    error = "the hub has gone: it has closed the connection on port " + std::to_string(port);
    return HubSearch::gone;
  }
  error = "the hub on port " + std::to_string(port) + " doesn't answer";
  return HubSearch::silent;
}

HubSearch join(HublinkPlugin& plugin, const RecordKey& key, std::string& error, int milliseconds) {
  const std::uint16_t port = key.find();
  if (port == 0) {
    error = key.whyNotFound();
    return HubSearch::none;
  }
  const HubSearch outcome = join(plugin, port, error, milliseconds);
  if (error == noHubOn(port)) error += ", which the record " + key.read().path + " names";
  return outcome;
}

// A hub that is about to end may close the connection: to who wants one that is as good as none.
bool isMissing(HubSearch outcome) {
  return outcome == HubSearch::none || outcome == HubSearch::gone;
}

// The new hub connects to this process, which so is its first plugin, before it listens and writes
// its record; it answers as a hub only after that.
HubSearch start(HublinkPlugin& plugin, const HubChoice& choice, std::string& error,
                int milliseconds) {
  const std::string program = hubProgram(choice);
  if (program.empty()) {
    error = choice.program.empty() ? "the hub's program isn't found"
                                   : "there is no program " + choice.program;
    return HubSearch::failed;
  }
  const auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPChildProcess child(false);
  child.setTransport(transport.get());
  child.setPassHost(false);
  child.setPortIndex(2);
  child.addArgument(program.c_str());
  child.addArgument("-connect_hublink");
  if (choice.loopbackOnly) child.addArgument("-loopback_only");
  if (choice.anyUser) child.addArgument("-any_user");
  if (choice.tcpOnly) child.addArgument("-tcp_only");
  if (choice.zone) {
    child.addArgument("-hl_zone");
    child.addArgument(choice.zone->c_str());
  }
  for (const std::string& argument : choice.arguments) child.addArgument(argument.c_str());
  TimeoutSTPRetryHandler limit(transport.get(), milliseconds);
  STPStatus status;
  child.launch(&limit, &status);
  if (child.process() != 0) platform::releaseChild(child.process());
  if (!status.good()) {
    error = program + " can't be started: " + status.message;
    return HubSearch::failed;
  }
  if (plugin.attach(transport.get(), error, milliseconds)) return HubSearch::started;
  error = "the hub that was started doesn't answer: " + error;
  return HubSearch::failed;
}

}  // namespace

std::string hubProgram(const HubChoice& choice) {
  gen_text found;
  if (!choice.program.empty()) {
    found = gen_find_program(choice.program.c_str(), false, true);
  } else {
    const gen_text installed = gen_join(gen_program_dir(), kInstalledHub);
    found = gen_find_program(gen_join(gen_program_dir(), kHubName), false, true);
    if (!found) found = gen_find_program(installed, false, true);
    if (!found) found = gen_find_program(kHubName, false, true);
  }
  std::string program;
  if (!found || platform::resolvePath(found, program) != 0) return {};
  return program;
}

std::uint16_t findHub(const HubChoice& choice) {
  return RecordKey(choice).find();
}

HubRecord readHubRecord(const HubChoice& choice) {
  return RecordKey(choice).read();
}

std::string whyNoHub(const HubChoice& choice) {
  return RecordKey(choice).whyNotFound();
}

HubSearch joinHub(HublinkPlugin& plugin, const HubChoice& choice, std::string& error,
                  int milliseconds) {
  setUp(plugin, choice);
  return join(plugin, RecordKey(choice), error, milliseconds);
}

HubSearch joinHubOnPort(HublinkPlugin& plugin, std::uint16_t port, std::string& error,
                        int milliseconds) {
  return join(plugin, port, error, milliseconds);
}

HubSearch joinOrStartHub(HublinkPlugin& plugin, const HubChoice& choice, std::string& error,
                         int milliseconds) {
  setUp(plugin, choice);
  const RecordKey key(choice);
  HubSearch outcome = join(plugin, key, error, milliseconds);
  if (!isMissing(outcome)) return outcome;
  // A hub that nobody can find is of no use to the next tool, nor is one to be started by two.
  if (!key.whyNone().empty()) return HubSearch::failed;
  // Without a name for its record there is no program either, as the start will tell.
  if (!key.isKnown()) return start(plugin, choice, error, milliseconds);
  const RecordLock lock(key);
  outcome = join(plugin, key, error, milliseconds);
  if (!isMissing(outcome)) return outcome;
  if (lock.held()) return start(plugin, choice, error, milliseconds);
  error = "somebody else has been starting a hub for 20 seconds";
  return HubSearch::failed;
}

bool connectToHub(HublinkPlugin& plugin, const HubChoice& choice, std::string& error) {
  const HubSearch outcome = joinOrStartHub(plugin, choice, error);
  return outcome == HubSearch::joined || outcome == HubSearch::started;
}

HubChoice hubChoiceArguments(int argc, char** argv) {
  HubChoice choice;
  for (int i = 1; i + 1 < argc; ++i) {
    if (gen_equal_nocase(argv[i], "-hl_zone"))
      choice.zone = argv[++i];
    else if (gen_equal_nocase(argv[i], "-hl_hub"))
      choice.program = argv[++i];
  }
  return choice;
}

bool connectToHub(HublinkPlugin& plugin, int argc, char** argv, std::string& error) {
  if (const std::uint16_t port = hublinkPortArgument(argc, argv))
    return plugin.connect(port, error);
  return connectToHub(plugin, hubChoiceArguments(argc, argv), error);
}
