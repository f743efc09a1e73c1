#include "platform/process.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <unordered_map>

#include "platform/clock.h"
#include "platform/readiness.h"

extern char** environ;

namespace platform {
namespace {

constexpr int kLowestPriority = 19;

struct Child {
  int watch = -1;  // the process's own descriptor; -1 once it has ended
  ChildEnd end;
  bool released = false;
};

using Children = std::unordered_map<ProcessId, Child>;

Children& children() {
  static Children all;
  return all;
}

// What this process was started with, and its children get back.
struct StartState {
  std::optional<rlimit> descriptors;
  std::array<std::optional<struct sigaction>, NSIG> actions;
};

StartState& startState() {
  static StartState state;
  return state;
}

void replaceAction(int signal, void (*handler)(int)) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  if (sigaction(signal, &action, &before) != 0) return;
  auto& saved = startState().actions[static_cast<std::size_t>(signal)];
  if (!saved) saved = before;
}

int openProcess(ProcessId process) {
  return static_cast<int>(syscall(SYS_pidfd_open, process, 0));
}

// Owns a descriptor for the length of a function.
class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  ~Descriptor() {
    if (value_ >= 0) close(value_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return value_; }

 private:
  const int value_;
};

// --- in the new process, which works on this one's memory until it has become the program: it
// calls the system, changes nothing that this process goes on with, and takes no memory ---

struct Birth {
  const StartRequest& request;
  const char* program;
  char* const* arguments;
  int nullDevice;
  const StartState& state;
  sigset_t mask;
  volatile int refusal = 0;  // set by the new process
};

[[noreturn]] void refuse(Birth& birth, int error) {
  birth.refusal = error;
  _exit(127);
}

void placeStandardHandles(Birth& birth) {
  std::array<int, 3> handles{birth.request.input, birth.request.output, birth.request.error};
  // Out of the way first: a handle may itself be one of the numbers that are written over.
  for (int& handle : handles) {
    handle = fcntl(handle < 0 ? birth.nullDevice : handle, F_DUPFD_CLOEXEC, 3);
    if (handle < 0) refuse(birth, errno);
  }
  for (int target = 0; target < 3; ++target)
    if (dup2(handles[static_cast<std::size_t>(target)], target) < 0) refuse(birth, errno);
}

void keepNoOtherDescriptor() {
  if (close_range(3, ~0u, CLOSE_RANGE_CLOEXEC) == 0) return;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  for (int descriptor = 3; static_cast<rlim_t>(descriptor) < limit.rlim_cur; ++descriptor)
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

// A handler goes with the memory that it works on: what a signal still meets here is the default.
void restoreStartState(const StartState& state) {
  if (state.descriptors) setrlimit(RLIMIT_NOFILE, &*state.descriptors);
  for (std::size_t signal = 1; signal < state.actions.size(); ++signal) {
    struct sigaction action {};
    const auto& saved = state.actions[signal];
    if (saved)
      action = *saved;
    else if (sigaction(static_cast<int>(signal), nullptr, &action) != 0)
      continue;
    const bool isHandled = action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
    if (isHandled) action = {};
    if (saved || isHandled) sigaction(static_cast<int>(signal), &action, nullptr);
  }
}

[[noreturn]] void becomeChild(Birth& birth) {
  placeStandardHandles(birth);
  keepNoOtherDescriptor();
  if (birth.request.detached) setsid();
  const std::string& directory = birth.request.directory;
  if (!directory.empty() && chdir(directory.c_str()) != 0) refuse(birth, errno);
  restoreStartState(birth.state);
  sigprocmask(SIG_SETMASK, &birth.mask, nullptr);
  execvpe(birth.program, birth.arguments, environ);
  refuse(birth, errno);
}

// A copy of this process would take its page tables along, which takes longer the more it holds.
// Comes back when the new one has become the program or has ended.
[[gnu::noinline]] pid_t giveBirth(Birth& birth) {
  const pid_t process = vfork();
  if (process == 0) becomeChild(birth);
  return process;
}

// --- in this process ---

// A relative file name is meant from here, not from the child's working directory.
std::string programFile(const StartRequest& request) {
  const std::string& program = request.program;
  if (request.directory.empty() || program[0] == '/' || program.find('/') == std::string::npos)
    return program;
  std::string result;
  if (char* here = getcwd(nullptr, 0)) {
    result = std::string(here) + "/" + program;
    free(here);
  }
  return result;
}

// Takes the end of one child, if it has come.
void collectIfEnded(ProcessId process, Child& child) {
  int status = 0;
  if (child.watch < 0 || waitpid(process, &status, WNOHANG) != process) return;
  readiness().forget(child.watch);
  close(child.watch);
  child.watch = -1;
  const bool bySignal = WIFSIGNALED(status);
  child.end = {bySignal, bySignal ? WTERMSIG(status) : WEXITSTATUS(status)};
}

// The same, of one whose end a wait has seen.
void collectIfSeen(ProcessId process, Child& child) {
  if (readiness().isReadable(child.watch)) collectIfEnded(process, child);
}

void collectAll(void (*collect)(ProcessId, Child&)) {
  for (auto entry = children().begin(); entry != children().end();) {
    Child& child = entry->second;
    collect(entry->first, child);
    const bool over = child.released && child.watch < 0;
    entry = over ? children().erase(entry) : std::next(entry);
  }
}

// Asks once for all of them, since mostly all are alive.
void collectEnded() {
  siginfo_t any{};
  if (waitid(P_ALL, 0, &any, WEXITED | WNOHANG | WNOWAIT) != 0 || any.si_pid != 0)
    collectAll(collectIfEnded);
}

int sendSignal(ProcessId process, int signal) {
  // The id of a child that was collected may be somebody else's by now.
  const auto entry = children().find(process);
  if (process <= 0 || (entry != children().end() && entry->second.watch < 0)) return -ESRCH;
  return kill(process, signal) == 0 ? 0 : -errno;
}

volatile sig_atomic_t stopFlag = 0;
int stopEvent = -1;

void requestStop(int signal) {
  const int kept = errno;
  if (stopFlag) {
    // Delivered with its own effect as soon as this handler returns.
    ::signal(signal, SIG_DFL);
    raise(signal);
  }
  stopFlag = 1;
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(stopEvent, &one, sizeof one);
  errno = kept;
}

}  // namespace

int startProcess(const StartRequest& request, ProcessId& child) {
  collectEnded();
  if (request.program.empty()) return -ENOENT;
  const std::string program = programFile(request);
  if (program.empty()) return -ENOENT;
  std::vector<char*> arguments;
  for (const std::string& argument : request.arguments)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  if (arguments.empty()) arguments.push_back(const_cast<char*>(request.program.c_str()));
  arguments.push_back(nullptr);

  const Descriptor nullDevice(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (nullDevice.get() < 0) return -errno;
  // With its end ignored a child would vanish with its status.
  struct sigaction ended {};
  if (sigaction(SIGCHLD, nullptr, &ended) == 0 && ended.sa_handler == SIG_IGN)
    replaceAction(SIGCHLD, SIG_DFL);

  Birth birth{request, program.c_str(), arguments.data(), nullDevice.get(), startState(), {}};
  // Until then a signal must neither run a handler of this program nor be lost.
  sigset_t every;
  sigfillset(&every);
  sigprocmask(SIG_SETMASK, &every, &birth.mask);
  const pid_t process = giveBirth(birth);
  const int birthError = errno;
  sigprocmask(SIG_SETMASK, &birth.mask, nullptr);
  if (process < 0) return -birthError;

  const int watch = openProcess(process);
  const int error = birth.refusal != 0 ? birth.refusal : watch < 0 ? errno : 0;
  if (error != 0) {
    kill(process, SIGKILL);
    while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (watch >= 0) close(watch);
    return -error;
  }
  readiness().watchProcess(watch);
  children()[process] = Child{watch, {}, false};
  child = process;
  return 0;
}

void collectChildren() {
  if (readiness().takeProcessEnded()) collectAll(collectIfSeen);
}

WaitOutcome waitForChildren(const ProcessId* ids, std::size_t count, bool all, int milliseconds,
                            std::size_t& ended) {
  const std::uint64_t start = monotonicMilliseconds();
  std::vector<pollfd> watched;
  for (;;) {
    std::size_t endedCount = 0;
    watched.clear();
    for (std::size_t i = count; i-- > 0;) {
      const auto entry = children().find(ids[i]);
      if (entry == children().end() || entry->second.released) return WaitOutcome::failed;
      collectIfEnded(entry->first, entry->second);
      if (entry->second.watch >= 0) {
        watched.push_back({entry->second.watch, POLLIN, 0});
        continue;
      }
      ended = i;
      ++endedCount;
    }
    if (count == 0) return WaitOutcome::failed;
    if (endedCount == count || (endedCount > 0 && !all)) return WaitOutcome::ended;
    int rest = -1;
    if (milliseconds >= 0) {
      const std::uint64_t passed = monotonicMilliseconds() - start;
      if (passed >= static_cast<std::uint64_t>(milliseconds)) return WaitOutcome::timedOut;
      rest = milliseconds - static_cast<int>(passed);
    }
    // Any end is looked at, also when all are wanted: a descriptor of an ended child stays ready,
    // so the next round leaves it out.
    if (poll(watched.data(), watched.size(), rest) < 0 && errno != EINTR)
      return WaitOutcome::failed;
  }
}

std::optional<ChildEnd> childEnd(ProcessId process) {
  const auto entry = children().find(process);
  if (entry == children().end()) return std::nullopt;
  collectIfSeen(process, entry->second);
  if (entry->second.watch >= 0) return std::nullopt;
  return entry->second.end;
}

std::string signalName(int number) {
  const char* name = strsignal(number);
  return name ? name : "";
}

void releaseChild(ProcessId process) {
  const auto entry = children().find(process);
  if (entry == children().end()) return;
  collectIfEnded(process, entry->second);
  entry->second.released = true;
  if (entry->second.watch < 0) children().erase(entry);
}

bool processExists(ProcessId process) {
  if (process <= 0) return false;
  collectEnded();
  const Descriptor watch(openProcess(process));
  if (watch.get() < 0) {
    // Out of descriptors there is still the plain question, which can't tell the ended ones apart.
    if (errno != EMFILE && errno != ENFILE) return false;
    return kill(process, 0) == 0 || errno == EPERM;
  }
  pollfd ended{watch.get(), POLLIN, 0};
  return poll(&ended, 1, 0) == 0;
}

ProcessId currentProcess() {
  return getpid();
}

std::string programOf(ProcessId process) {
  std::array<char, 4096> path;
  const std::string link = "/proc/" + std::to_string(process) + "/exe";
  const ssize_t size = readlink(link.c_str(), path.data(), path.size());
  if (size <= 0) return {};
  const std::string text(path.data(), static_cast<std::size_t>(size));
  return text.substr(text.rfind('/') + 1);
}

int terminateProcess(ProcessId process) {
  return sendSignal(process, SIGTERM);
}

int killProcess(ProcessId process) {
  return sendSignal(process, SIGKILL);
}

bool hasTerminal() {
  return Descriptor(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)).get() >= 0;
}

int setIdlePriority(bool idle) {
  return setpriority(PRIO_PROCESS, 0, idle ? kLowestPriority : 0) == 0 ? 0 : -errno;
}

bool runOnProcessor(int processor) {
  static const std::optional<cpu_set_t> atStart = [] {
    cpu_set_t set;
    const bool known = sched_getaffinity(0, sizeof set, &set) == 0;
    return known ? std::optional(set) : std::nullopt;
  }();
  if (!atStart) return false;
  if (processor < 0) return sched_setaffinity(0, sizeof *atStart, &*atStart) == 0;
  for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
    if (!CPU_ISSET(i, &*atStart) || processor-- > 0) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(i, &one);
    return sched_setaffinity(0, sizeof one, &one) == 0;
  }
  return false;
}

DescriptorUse descriptorUse() {
  DescriptorUse use;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) use.most = static_cast<int>(limit.rlim_cur);
  DIR* const directory = opendir("/proc/self/fd");
  if (!directory) return use;
  while (const dirent* entry = readdir(directory))
    if (entry->d_name[0] != '.') ++use.open;
  --use.open;  // that of the walk itself
  closedir(directory);
  return use;
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  if (!startState().descriptors) startState().descriptors = limit;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void ignoreBrokenPipe() {
  replaceAction(SIGPIPE, SIG_IGN);
}

void ensureStandardDescriptors() {
  // The lowest free number is always the one that is given, so each closed one is filled in turn.
  for (int descriptor = 0; descriptor < 3; ++descriptor)
    if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) return;
}

void installStopSignals() {
  if (stopEvent < 0) {
    stopEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    readiness().watch(stopEvent);
  }
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction before {};
    const bool known = sigaction(signal, nullptr, &before) == 0;
    if (signal == SIGHUP && known && before.sa_handler == SIG_IGN) continue;
    replaceAction(signal, requestStop);
  }
}

bool stopRequested() {
  return stopFlag != 0;
}

}  // namespace platform
