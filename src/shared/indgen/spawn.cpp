#include "indgen/spawn.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "indgen/access.h"
#include "indgen/command_line.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "platform/file.h"

platform::ProcessId last_process = 0;
platform::ProcessId last_process_id = 0;

namespace {

bool hide_console_windows = false;

// The platform searches PATH for every name without a `/`, but a module that is a file from here is
// that file.
std::string programOf(const char* module, const std::vector<std::string>& arguments) {
  if (!module) return arguments.front();
  const bool here = gen_file_kind(module) == 1 && !std::strchr(module, '/');
  return std::string(here ? "./" : "") + module;
}

bool start(const char* module, std::vector<std::string> arguments, const char* directory,
           platform::ProcessId* process, int input, int output, int error, unsigned flags) {
  if (arguments.empty() || (directory && !*directory)) return false;
  platform::StartRequest request;
  request.program = programOf(module, arguments);
  request.arguments = std::move(arguments);
  request.directory = directory ? directory : "";
  request.input = input;
  request.output = output;
  request.error = error;
  request.detached = (flags & (GEN_DETACHED_PROCESS | GEN_NEW_CONSOLE)) != 0;
  platform::ProcessId child = 0;
  if (const int refusal = platform::startProcess(request, child); refusal != 0) {
    errno = -refusal;
    return false;
  }
  last_process = last_process_id = child;
  if (process) *process = child;
  return true;
}

unsigned consoleFlags() {
  return platform::hasTerminal() ? 0 : GEN_DETACHED_PROCESS;
}

int runToEnd(const char* command, int input, int output, int error) {
  platform::ProcessId child = 0;
  if (!gen_spawn_command(command, &child, input, output, error, consoleFlags())) return -1;
  int status = -1;
  gen_wait_processes(&status, true, -1, &child, 1);
  platform::releaseChild(child);
  return status;
}

}  // namespace

bool gen_spawn_command(const char* command, platform::ProcessId* process, int input, int output,
                       int error, unsigned flags) {
  gen_text directory, line;
  return gen_read_command(command, directory, line) &&
         gen_create_process(nullptr, line, directory, process, input, output, error, flags);
}

bool gen_spawn_argv(const char* program, const char* const* argv, platform::ProcessId* process,
                    int input, int output, int error, unsigned flags) {
  return gen_spawn_argv_in(program, argv, nullptr, process, input, output, error, flags);
}

bool gen_spawn_argv_in(const char* program, const char* const* argv, const char* directory,
                       platform::ProcessId* process, int input, int output, int error,
                       unsigned flags) {
  std::vector<std::string> arguments;
  for (; argv && *argv; ++argv) arguments.emplace_back(*argv);
  if (arguments.empty()) return false;
  const char* processor = gen_batch_processor(program);
  if (processor && gen_batch_processor(arguments.front().c_str())) {
    arguments.insert(arguments.begin(), {processor, "/c"});
    program = processor;
  }
  return start(program, std::move(arguments), directory, process, input, output, error, flags);
}

bool gen_spawn_program(const char* program, platform::ProcessId* process, int input, int output,
                       int error, unsigned flags) {
  const char* const argv[] = {program, nullptr};
  return gen_spawn_argv(program, argv, process, input, output, error, flags);
}

bool gen_create_process(const char* module, const char* command_line, const char* directory,
                        platform::ProcessId* process, int input, int output, int error,
                        unsigned flags) {
  return start(module, gen_cut_command_line(command_line), directory, process, input, output, error,
               flags);
}

platform::ProcessId gen_wait_processes(int* status, bool wait_all, int timeout,
                                       const platform::ProcessId* handles, int count) {
  if (!handles || count < 1) return -1;
  std::size_t ended = 0;
  const platform::WaitOutcome outcome =
      platform::waitForChildren(handles, static_cast<std::size_t>(count), wait_all, timeout, ended);
  if (outcome == platform::WaitOutcome::timedOut) return 0;
  if (outcome == platform::WaitOutcome::failed) return -1;
  const std::optional<platform::ChildEnd> end = platform::childEnd(handles[ended]);
  if (status && end) *status = end->status();
  return handles[ended];
}

int gen_run_to_file(const char* command, const char* file) {
  const int output = file ? V_creat(file, 0666) : -1;
  if (file && output < 0) return -1;
  const int status = runToEnd(command, -1, output, -1);
  if (file) platform::closeDescriptor(output);
  return status;
}

int gen_system(const char* command, const char* mode) {
  std::fflush(stdout);
  std::fflush(stderr);
  if (mode && std::strchr(mode, 'q')) return runToEnd(command, -1, -1, -1);
  return runToEnd(command, 0, 1, 2);
}

bool gen_hide_console_windows(bool on) {
  return std::exchange(hide_console_windows, on);
}

bool gen_process_exists(platform::ProcessId process_id) {
  return platform::processExists(process_id);
}

bool gen_set_priority(int level) {
  return platform::setIdlePriority(level >= 1) == 0;
}
