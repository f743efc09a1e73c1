#include "stp_transport/child/stp_child_process.h"

#include <cerrno>
#include <string>
#include <utility>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/spawn.h"
#include "indgen/text.h"
#include "libcxxutil/ut_wait.h"
#include "platform/file.h"
#include "stp_transport/retry/stp_retryhandler.h"

namespace {

// Changes the working directory and back. A directory that can't be entered changes nothing, nor
// does one from which there would be no way back.
class DirectoryHolder {
 public:
  explicit DirectoryHolder(const char* directory) {
    if (!directory) return;
    before_ = platform::openWorkingDirectory();
    if (before_ < 0) return;
    nameBefore_ = gen_strdup(gen_getcwd());
    entered_ = V_chdir(directory) == 0;
  }
  ~DirectoryHolder() {
    if (entered_) {
      // A view knows directories by name; but the name may have gone, or be another directory's.
      V_chdir(nameBefore_);
      platform::enterDirectory(before_);
    }
    if (before_ >= 0) platform::closeDescriptor(before_);
  }
  DirectoryHolder(const DirectoryHolder&) = delete;
  DirectoryHolder& operator=(const DirectoryHolder&) = delete;

 private:
  int before_ = -1;
  gen_text nameBefore_;
  bool entered_ = false;
};

}  // namespace

STPChildProcess::~STPChildProcess() {
  if (killOnDestroy_) kill(nullptr);
}

void STPChildProcess::setCommandLine(const char* text) {
  arguments_ = splitArguments(text, false);
}

void STPChildProcess::setArguments(const char* const* vector, int count) {
  arguments_ = copyArguments(vector, count);
}

void STPChildProcess::addArgument(const char* text) {
  insertArgument(arguments_, arguments_.count(), text);
}

void STPChildProcess::insertArgumentAt(const char* text, int index) {
  insertArgument(arguments_, index, text);
}

void STPChildProcess::setWorkingDirectory(const char* text) {
  gen_replace(workingDirectory_, text);
}

bool STPChildProcess::canLaunch(STPStatus* status) const {
  if (!transport_)
    status->set(STP_MISUSE, "[launch]: transport required to launch STPChildProcess.");
  else if (arguments_.count() < 1)
    status->set(STP_MISUSE, "[launch]: command required to launch STPChildProcess.");
  else if (process_ != 0)
    status->set(STP_MISUSE, "[launch]: Child is already launched.");
  return status->good();
}

void STPChildProcess::launch(RetryHandler* retry, STPStatus* status) {
  STPStatus unasked;
  if (!status) status = &unasked;
  status->clear();
  if (!canLaunch(status)) return;
  bool isStarted = false;
  const auto look = [&] {
    if (!std::exchange(isStarted, true))
      startLaunch(status);
    else
      *status = transport_->status();
    if (!status->good()) return WaitState::failed;
    if (pollLaunch(status)) return WaitState::reached;
    return status->good() ? WaitState::waiting : WaitState::failed;
  };
  const auto pass = [&] { transport_->serviceOnce(STP_LAUNCH_STEP); };
  if (waitUntil(retry, WaitOrder::askBehind, look, pass) == WaitState::gaveUp) {
    *status = transport_->status();
    // The handler may have given up because the transport has failed, which says more.
    if (status->good())
      status->set(STP_TIMEOUT, "[launch]: Timed out while waiting for child to connect.");
  }
  if (!status->good()) port_.close();
}

ArgumentVector STPChildProcess::argumentsWithPort() const {
  ArgumentVector arguments = copyArguments(arguments_.data(), arguments_.count());
  const int portPlace = passHost_ ? portIndex_ + 1 : portIndex_;
  if (passHost_) insertArgument(arguments, portIndex_, "localhost");
  insertArgument(arguments, portPlace, std::to_string(port_.number()).c_str());
  return arguments;
}

void STPChildProcess::startProgram(const ArgumentVector& arguments) {
  const DirectoryHolder holder(workingDirectory_);
  childEnd_.reset();
  if (keepsErrors_) errors_.open();
  errno = 0;
  const bool started = gen_spawn_argv(arguments[0], arguments.data(), &process_, -1, -1,
                                      errors_.descriptor(), GEN_DETACHED_PROCESS);
  startError_ = started ? 0 : errno;
}

// The id means nothing to anybody any more.
void STPChildProcess::dropProcess() {
  platform::releaseChild(process_);
  process_ = 0;
}

bool STPChildProcess::hasDied() {
  childEnd_ = platform::childEnd(process_);
  return childEnd_.has_value();
}

std::string STPChildProcess::errorText() {
  errors_.collectAll();
  return errors_.text();
}

void STPChildProcess::endFailedLaunch() {
  if (process_ != 0) {
    platform::killProcess(process_);
    dropProcess();
  }
  errors_.close();
  port_.close();
}

void STPChildProcess::startLaunch(STPStatus* status) {
  STPStatus unasked;
  if (!status) status = &unasked;
  status->clear();
  if (childConnected_ || !canLaunch(status)) return;
  port_.open(status);
  if (!status->good()) return;
  startProgram(argumentsWithPort());
  // No wait of the readiness set has seen anything of it yet.
  std::size_t ended = 0;
  platform::waitForChildren(&process_, 1, true, 0, ended);
  if (process_ == 0) {
    status->set(STP_LAUNCH_FAILED, "[launch]: Program could not start (not found?).");
  } else if (hasDied()) {
    status->set(STP_LAUNCH_FAILED, "[launch]: Program died upon launch.");
  } else {
    port_.listenWith(transport_, status);
  }
  if (!status->good()) endFailedLaunch();
}

bool STPChildProcess::pollLaunch(STPStatus* status) {
  STPStatus unasked;
  if (!status) status = &unasked;
  status->clear();
  if (process_ == 0 || !transport_) {
    status->set(STP_MISUSE, process_ == 0 ? "[launch]: No launch is in progress."
                                          : "[launch]: Transport is required.");
    return false;
  }
  if (childConnected_) return true;
  errors_.collect();
  if (hasDied()) {
    status->set(STP_LAUNCH_FAILED, "[launch]: Program died before connecting.");
  } else {
    childConnected_ = port_.tryAccept(status);
    if (childConnected_) errors_.close();
  }
  if (!status->good()) endFailedLaunch();
  return childConnected_;
}

void STPChildProcess::killProcess(platform::ProcessId process, RetryHandler* retry) {
  if (process == 0) return;
  STPRetryHandler impatient;
  const auto look = [process] {
    std::size_t ended = 0;
    const auto outcome = platform::waitForChildren(&process, 1, true, 0, ended);
    return outcome == platform::WaitOutcome::timedOut ? WaitState::waiting : WaitState::reached;
  };
  if (waitUntil(retry ? retry : &impatient, WaitOrder::lookFirst, look, [] {}) == WaitState::gaveUp)
    platform::killProcess(process);
}
