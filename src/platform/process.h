// Processes: the children of this one, its environment, its limits and the signals that stop it.
//
// A process is its id. Every child of startProcess is watched by a descriptor that stands in the
// readiness set, so that its death ends the wait for the sockets too. collectChildren() takes the
// exit status of those that have ended, which leaves no zombie behind; the status is kept here
// until the child is released. All of this belongs to the main thread. Failures are negative error
// numbers (`-errno`).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace platform {

using ProcessId = int;

struct StartRequest {
  /// A name with a `/` is that file, seen from this process's working directory; any other is
  /// searched for in PATH. A script without an interpreter line is run by the shell.
  std::string program;
  /// Arguments, the program's own name first.
  std::vector<std::string> arguments;
  /// Working directory of the child; empty: that of this process.
  std::string directory;
  /// Descriptors that become the child's standard handles; -1 is the null device. They stay the
  /// caller's. The child inherits no other descriptor.
  int input = -1, output = -1, error = -1;
  /// The child gets a session of its own.
  bool detached = false;
};

/// Starts a child, with the environment, and with the descriptor limit and signal dispositions that
/// this process was started with. A program that can't be started is known here, at the call.
int startProcess(const StartRequest& request, ProcessId& child);

/// Takes the exit status of the children that a wait of the readiness set has seen ending. Costs no
/// call when there are none, so that it can stand in a loop.
void collectChildren();

enum class WaitOutcome { ended, timedOut, failed };
/// Waits for one of `count` children to end, or for all of them with `all` set. Negative time: no
/// limit. `ended` is then the index of the first of them that has ended. Fails at once if one of
/// them is no child or was released.
WaitOutcome waitForChildren(const ProcessId* children, std::size_t count, bool all,
                            int milliseconds, std::size_t& ended);

struct ChildEnd {
  bool bySignal = false;
  int number = 0;  ///< its exit code, or the signal's number
  /// Both in one number, as a shell tells them: 128 is added to that of a signal.
  int status() const { return bySignal ? 128 + number : number; }
};
/// How the child has ended, if a wait of the readiness set or waitForChildren has noticed it. Of a
/// child that runs it costs no call, so that it can stand in a loop.
std::optional<ChildEnd> childEnd(ProcessId child);
/// What the system calls a signal, such as "Killed".
std::string signalName(int number);
/// Nobody will ask for this child again. It is still collected when it ends.
void releaseChild(ProcessId child);

/// True for a process that runs, whosever it is; one that has ended but was not yet collected by
/// its parent doesn't.
bool processExists(ProcessId process);
ProcessId currentProcess();
/// The file name of the program that a process runs, without its directory; empty if that can't be
/// told.
std::string programOf(ProcessId process);
/// Asks a process to end.
int terminateProcess(ProcessId process);
/// Ends a process at once.
int killProcess(ProcessId process);

/// Whether this process has a terminal that controls it.
bool hasTerminal();
/// Gives this process, and the children that it starts from then on, the lowest priority, or the
/// normal one. The way back may be refused.
int setIdlePriority(bool idle);
/// Keeps the calling thread, and the threads and children that it starts from then on, on one
/// processor: the one with that place among those that this process was started with, counted from
/// 0; -1 is all of them. False if there is no such processor, or the system refuses.
bool runOnProcessor(int processor);

/// A variable of the environment, valid until it is next changed; null if it isn't set.
const char* environmentVariable(const char* name);
/// Refuses with E2BIG what would keep children from starting: a variable of more than 128 KiB with
/// its name, the `=` and the closing zero, and more growth once all variables together take half of
/// what the system hands to a program. EAGAIN: too many earlier values are kept already for lookups
/// of names, which may still read them.
int setEnvironmentVariable(const char* name, const char* value);
int unsetEnvironmentVariable(const char* name);

/// How many files and sockets this process has open, and how many it may; 0 if that can't be told.
struct DescriptorUse {
  int open = 0;
  int most = 0;
};
DescriptorUse descriptorUse();
/// Raises the soft limit on open files to the hard one. Children get the limit from before.
void raiseDescriptorLimit();
/// Writing to a connection whose peer has gone fails instead of ending the process.
void ignoreBrokenPipe();
/// Opens the null device on those of the descriptors 0, 1 and 2 that are closed, so that no file or
/// socket is ever taken for a standard stream.
void ensureStandardDescriptors();

/// From here on, the first request to stop (SIGTERM, SIGINT, SIGHUP) only sets a flag and ends a
/// wait of the readiness set; a second one ends the process at once. A SIGHUP that the process was
/// started to ignore stays ignored.
void installStopSignals();
bool stopRequested();

}  // namespace platform
