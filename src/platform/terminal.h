// The terminal that a program writes to, if it does.
#pragma once

namespace platform {

/// Whether a descriptor is a terminal.
bool isTerminal(int descriptor);

struct TerminalSize {
  int columns = 0;
  int rows = 0;
};
/// Of the terminal behind the standard output; zeros if it is none or can't tell.
TerminalSize terminalSize();

}  // namespace platform
