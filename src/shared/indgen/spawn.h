// Starting other programs and waiting for them.
//
// A process is its id; the child of a start is the caller's, who asks for its end with
// gen_wait_processes and gives it up with platform::releaseChild. `input`, `output` and `error` are
// descriptors for the child's standard streams, which stay the caller's; -1 is the null device. The
// child inherits no other descriptor, and the environment. No operation writes a message. All of
// this belongs to the main thread.
#pragma once

#include "platform/process.h"

/// Creation flags. Either gives the child a session of its own, without this process's terminal.
inline constexpr unsigned GEN_DETACHED_PROCESS = 8, GEN_NEW_CONSOLE = 16;

/// The result of the latest successful start, 0 before the first.
extern platform::ProcessId last_process;
extern platform::ProcessId last_process_id;

/// Starts a command that is written as gen_read_command reads it. False if it can't be read or its
/// program can't be started, here and below; what the system refuses sets `errno`.
bool gen_spawn_command(const char* command, platform::ProcessId* process, int input, int output,
                       int error, unsigned flags);
/// Starts `program` with a null-closed vector, whose first entry is the name that the program is
/// told. The arguments arrive exactly as they stand.
bool gen_spawn_argv(const char* program, const char* const* argv, platform::ProcessId* process,
                    int input, int output, int error, unsigned flags);
/// The same in a working directory; null: that of this process.
bool gen_spawn_argv_in(const char* program, const char* const* argv, const char* directory,
                       platform::ProcessId* process, int input, int output, int error,
                       unsigned flags);
/// Starts `program` without arguments.
bool gen_spawn_program(const char* program, platform::ProcessId* process, int input, int output,
                       int error, unsigned flags);
/// Starts `module` with a command line in the form of gen_cut_command_line. A module that is no
/// file from here and has no directory part is sought in PATH; a null one is the command line's
/// program, which is sought there alone unless it has a directory part. An empty `directory` fails.
bool gen_create_process(const char* module, const char* command_line, const char* directory,
                        platform::ProcessId* process, int input, int output, int error,
                        unsigned flags);

/// Waits for one of `count` children, or with `wait_all` for all of them, for up to `timeout`
/// milliseconds (negative: no limit). Gives the first child that has ended, with its exit code (128
/// and the number for a signal) in `status`, which may be null; 0 when the time is up; -1 if one of
/// them can't be waited for.
platform::ProcessId gen_wait_processes(int* status, bool wait_all, int timeout,
                                       const platform::ProcessId* handles, int count);

/// Runs a command to its end with its standard output in `file`, which is made or emptied; null:
/// the output goes nowhere. The exit status, or -1 if the file or the program couldn't be had.
int gen_run_to_file(const char* command, const char* file);
/// Runs a command to its end with this process's standard streams, or with none of them if `mode`
/// has a `q`. The exit status, or -1.
int gen_system(const char* command, const char* mode);

/// Whether the console window of a detached child would be hidden instead of left out. There are no
/// such windows here, so that the value is only kept. Gives the old one.
bool gen_hide_console_windows(bool on);

/// True for a process that runs, whosever it is.
bool gen_process_exists(platform::ProcessId process_id);
/// Normal priority for this process for a `level` below 1, else the lowest. False if the system
/// refuses.
bool gen_set_priority(int level);
