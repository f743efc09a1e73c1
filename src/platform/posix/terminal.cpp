#include "platform/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace platform {

bool isTerminal(int descriptor) {
  return isatty(descriptor) == 1;
}

TerminalSize terminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return {};
  return {size.ws_col, size.ws_row};
}

}  // namespace platform
