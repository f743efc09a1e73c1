#include "support/hub_process.h"

#include "platform/file.h"
#include "platform/socket.h"

HubProcess::HubProcess(const std::vector<std::string>& arguments, const Scratch& directory,
                       int softLimit, const std::string& executable) {
  static int count = 0;
  output_ = directory / ("printed" + std::to_string(++count));
  // What a shared hub leaves for the tools must not reach those of this user.
  platform::setEnvironmentVariable("TMP", directory.path().c_str());
  // Freed memory that an address sanitizer keeps would count as the hub's.
  platform::setEnvironmentVariable("ASAN_OPTIONS", "quarantine_size_mb=4");
  platform::StartRequest request;
  request.program = executable;
  request.arguments = {"hublink"};
  if (softLimit > 0) {
    request.program = "/bin/sh";
    request.arguments = {"sh", "-c", "ulimit -Sn " + std::to_string(softLimit) + "; exec \"$@\"",
                         "sh", executable};
  }
  request.arguments.insert(request.arguments.end(), arguments.begin(), arguments.end());
  using namespace platform;
  request.error = openFile(output_.c_str(), openWrite | openAppend | openCreate, 0600);
  request.output = request.error;
  if (platform::startProcess(request, process_) < 0) process_ = 0;
  closeDescriptor(request.error);
}

std::string HubProcess::builtExecutable() {
  return HUBLINK_EXECUTABLE;
}

HubProcess::~HubProcess() {
  if (!hasStarted()) return;
  platform::killProcess(process_);
  waitForEnd();
  platform::releaseChild(process_);
}

int HubProcess::waitForEnd(int milliseconds) {
  std::size_t ended = 0;
  platform::waitForChildren(&process_, 1, true, milliseconds, ended);
  const auto end = platform::childEnd(process_);
  return end ? end->status() : -1;
}

std::int64_t HubProcess::residentBytes() const {
  std::ifstream file("/proc/" + std::to_string(process_) + "/statm");
  std::int64_t pages = 0, resident = 0;
  file >> pages >> resident;
  return resident * 4096;
}
