// A child program that talks STP with this one. The child connects: it is started with the number
// of a free port on its command line, and this side waits there for the connection or the child's
// death, whichever comes first. Once connected, the transport is the child's link, and the child's
// end shows as a closed transport.
//
// The arguments are the object's own; the transport is its caller's. The process's id stays valid
// past the object's life, and whoever has it gives it up with platform::releaseChild. A launch that
// fails has closed its port, and leaves the transport idle.
#pragma once

#include <optional>
#include <string>

#include "libcxxutil/ut_retryhandler.h"
#include "platform/process.h"
#include "stp_transport/child/argument_vector.h"
#include "stp_transport/child/child_errors.h"
#include "stp_transport/child/private_port.h"
#include "stp_transport/transport/stp_transport.h"

/// Milliseconds of one service step of a launch that has no handler.
inline constexpr int STP_LAUNCH_STEP = 4000;

class STPChildProcess {
 public:
  /// With `killOnDestroy` the destructor ends the child at once.
  explicit STPChildProcess(bool killOnDestroy) : killOnDestroy_(killOnDestroy) {}
  ~STPChildProcess();
  STPChildProcess(const STPChildProcess&) = delete;
  STPChildProcess& operator=(const STPChildProcess&) = delete;

  // --- What is launched: the program, then its arguments. Texts are copied. ---
  /// As splitArguments cuts it.
  void setCommandLine(const char* text);
  void setArguments(const char* const* vector, int count);
  /// Null is ignored.
  void addArgument(const char* text);
  void insertArgumentAt(const char* text, int index);
  /// Must stay alive until the launch is over.
  void setTransport(STPTransport* transport) { transport_ = transport; }
  /// Whether the word "localhost" goes in front of the port; at first it does.
  void setPassHost(bool flag) { passHost_ = flag; }
  /// Where the port, or the host and the port, go among the arguments; 1 at first.
  void setPortIndex(int index) { portIndex_ = index; }
  /// Where the child starts, and from where a relative program is seen. Null: where this process
  /// is, which also serves if the directory can't be entered.
  void setWorkingDirectory(const char* text);
  /// Whether what the child writes on its standard error is kept until it has connected; at first
  /// it isn't. The child never waits for a reader, and finds none amiss.
  void setKeepsErrors(bool flag) { keepsErrors_ = flag; }

  // --- Launching ---
  /// Starts the child and waits until it has connected or the launch has failed. Without a handler
  /// there is no limit, and nothing but the child's transport is served meanwhile. A handler that
  /// gives up leaves the child running. `status` may be null.
  void launch(RetryHandler* retry, STPStatus* status = nullptr);
  /// The two steps of launch, for a caller with a loop of its own; the loop must serve the
  /// transport. A child that is dead at pollLaunch ends the launch.
  void startLaunch(STPStatus* status = nullptr);
  /// Whether the child is connected.
  bool pollLaunch(STPStatus* status = nullptr);

  /// 0 without a child.
  platform::ProcessId process() const { return process_; }
  /// Why the program couldn't be started, as an `errno` number; 0 if it could, or wasn't tried.
  int startError() const { return startError_; }
  /// How the child has ended, if that has ended the latest launch.
  std::optional<platform::ChildEnd> childEnd() const { return childEnd_; }
  /// What the child of the latest launch has written so far, as it was written: all of it, or the
  /// first STP_FIRST_ERRORS and the last STP_LAST_ERRORS bytes with a mark between.
  std::string errorText();

  /// Gives the child as long as the handler allows to end by itself, then ends it; at once if
  /// `retry` is null.
  void kill(RetryHandler* retry) { killProcess(process_, retry); }
  /// The same for a child of this process; nothing for 0 or one that was released.
  static void killProcess(platform::ProcessId process, RetryHandler* retry);

 private:
  bool canLaunch(STPStatus* status) const;
  ArgumentVector argumentsWithPort() const;
  bool hasDied();
  void startProgram(const ArgumentVector& arguments);
  void dropProcess();
  void endFailedLaunch();

  STPTransport* transport_ = nullptr;
  ArgumentVector arguments_;
  bool childConnected_ = false;
  bool passHost_ = true;
  const bool killOnDestroy_;
  platform::ProcessId process_ = 0;
  int startError_ = 0;
  std::optional<platform::ChildEnd> childEnd_;
  bool keepsErrors_ = false;
  ChildErrors errors_;
  int portIndex_ = 1;
  gen_text workingDirectory_;
  PrivatePort port_;
};
