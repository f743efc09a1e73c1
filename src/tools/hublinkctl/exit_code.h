// What the exit code tells a script; kExitCodeHelp says it to people.
#pragma once

namespace hublinkctl {

enum class ExitCode : int {
  fine = 0,
  no = 1,        ///< the hub, or the plugin that was asked, says no
  usage = 2,     ///< wrong usage, or the output can't be written
  noHub = 3,     ///< there is no hub, and none could be started
  noAnswer = 4,  ///< the hub, or the plugin that was asked, hasn't answered in time
  hubGone = 5,   ///< the hub has gone meanwhile
};

inline constexpr const char* kExitCodeHelp =
    "Exit codes:\n"
    "  0  fine\n"
    "  1  the answer is no: nobody provides it, the launch has failed, there is no such value\n"
    "  2  wrong usage, or the output can't be written\n"
    "  3  there is no hub, and none could be started\n"
    "  4  no answer in time, from the hub or from the plugin that was asked\n"
    "  5  the hub has gone meanwhile";

}  // namespace hublinkctl
