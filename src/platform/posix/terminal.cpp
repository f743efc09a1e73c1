#include "platform/terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string_view>

namespace platform {
namespace {

constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l\x1b[?7l";
constexpr std::string_view kLeave = "\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr char kEscape = '\x1b';

volatile std::sig_atomic_t isTaken = 0;
termios before;

void writeText(std::string_view text) {
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
}

// Also within a signal handler.
void giveBack() {
  if (isTaken == 0) return;
  isTaken = 0;
  writeText(kLeave);
  tcsetattr(STDIN_FILENO, TCSANOW, &before);
}

// By now the signal has its usual effect again.
void giveBackAndEnd(int signal) {
  giveBack();
  raise(signal);
}

void giveBackOnSignals() {
  for (const int signal :
       {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = giveBackAndEnd;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    sigaction(signal, &action, nullptr);
  }
  // A stopped program would leave the terminal as it is.
  std::signal(SIGTSTP, SIG_IGN);
}

bool hasInput() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  return poll(&input, 1, 0) == 1;
}

}  // namespace

bool isTerminal(int descriptor) {
  return isatty(descriptor) == 1;
}

TerminalSize terminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return {};
  return {size.ws_col, size.ws_row};
}

FullScreen::FullScreen() {
  if (tcgetattr(STDIN_FILENO, &before) != 0) return;
  [[maybe_unused]] static const int registered = std::atexit(giveBack);
  isTaken = 1;
  giveBackOnSignals();
  termios raw = before;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  raw.c_cc[VMIN] = 0;
  raw.c_cc[VTIME] = 0;
  tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  writeText(kEnter);
}

FullScreen::~FullScreen() {
  giveBack();
}

char FullScreen::key() {
  char key = 0;
  if (!hasInput() || read(STDIN_FILENO, &key, 1) != 1) return 0;
  if (key != kEscape) return key;
  const auto more = [&key] { return hasInput() && read(STDIN_FILENO, &key, 1) == 1; };
  if (more() && (key == '[' || key == 'O'))
    while (more() && (key < '@' || key > '~')) {
    }
  return kEscape;
}

}  // namespace platform
