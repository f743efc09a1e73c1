// The terminal that a program writes to and reads keys from, if it does.
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

/// Takes the whole terminal on the standard streams as long as it lives: an empty screen in place
/// of what stands there, which comes back afterwards, no cursor, no line breaks where a line is too
/// long, and each key as it is pressed, without an echo. A signal that ends the process, or an
/// exit(), gives the terminal back first. There may be one at a time.
class FullScreen {
 public:
  FullScreen();
  ~FullScreen();
  FullScreen(const FullScreen&) = delete;
  FullScreen& operator=(const FullScreen&) = delete;

  /// The next key that was pressed, without waiting; 0 for none. What keys send behind an escape is
  /// left out.
  char key();
};

}  // namespace platform
