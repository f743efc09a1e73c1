// The subcommand top: a live picture of a hub's plugins or links.
#include <algorithm>

#include "platform/clock.h"
#include "platform/terminal.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/table.h"
#include "tools/hublinkctl/top_frame.h"

namespace hublinkctl {
namespace {

constexpr int kKeyStep = 50;  // ms between looks at the keys

struct TopOptions {
  TopView view;
  int frames = 0;  // 0: no end
  double interval = 1;
};

enum class After : std::uint8_t { nothing, draw, look, end };

// What a key changes.
After take(char key, TopView& view) {
  switch (key) {
    case 0:
      return After::nothing;
    case 'q':
      return After::end;
    case ' ':
      return After::look;
    case 'p':
    case 'l':
      view.links = key == 'l';
      break;
    case 't':
      view.order = TopOrder::traffic;
      break;
    case 'b':
      view.order = TopOrder::backlog;
      break;
    case 'a':
      view.order = TopOrder::age;
      break;
    case 'r':
      view.reverse = !view.reverse;
      break;
    case 'h':
    case '?':
      view.help = !view.help;
      break;
    default:
      return After::nothing;
  }
  return After::draw;
}

// Over what stands there, so that nothing flickers; each line ends what was longer before.
bool draw(Session& session, const TopFrame& frame, const TopView& view) {
  const platform::TerminalSize size = platform::terminalSize();
  std::string text =
      frame.text(view, static_cast<std::size_t>(size.columns),
                 static_cast<std::size_t>(std::max(size.rows - 1, 0)), usesColours());
  std::string drawn = "\x1b[H";
  for (const char c : text) drawn += c == '\n' ? std::string("\x1b[K\n") : std::string(1, c);
  return session.printText(drawn + "\x1b[J");
}

// Serves until it is time for the next look, or the end. False for the end.
bool rest(Session& session, platform::FullScreen* screen, const TopFrame& frame,
          TopOptions& options) {
  const std::uint64_t next =
      platform::monotonicMilliseconds() + static_cast<std::uint64_t>(options.interval * 1000);
  while (platform::monotonicMilliseconds() < next) {
    const std::uint64_t left = next - platform::monotonicMilliseconds();
    if (!session.serve(static_cast<int>(std::min<std::uint64_t>(left, kKeyStep)))) return false;
    const After after = screen ? take(screen->key(), options.view) : After::nothing;
    if (after == After::end) return false;
    if (after == After::look) return true;
    if (after == After::draw && !draw(session, frame, options.view)) return false;
  }
  return true;
}

bool watch(Session& session, StatusClient& client, platform::FullScreen* screen,
           TopOptions& options) {
  TopFrame frame;
  for (int shown = 0;; ++shown) {
    session.restartClock();
    if (!frame.look(client)) return false;
    const bool isWritten =
        screen ? draw(session, frame, options.view)
               : session.printText((shown > 0 ? "\n" : "") + frame.text(options.view, 0, 0, false));
    if (!isWritten) return false;
    if (options.frames > 0 && shown + 1 >= options.frames) return true;
    if (!rest(session, screen, frame, options)) return session.exitCode() == ExitCode::fine;
  }
}

bool top(Session& session, TopOptions& options) {
  StatusClient client(session);
  if (!client.open()) return false;
  if (!platform::isTerminal(0) || !platform::isTerminal(1))
    return watch(session, client, nullptr, options);
  bool isFine = true;
  {
    platform::FullScreen screen;
    isFine = watch(session, client, &screen, options);
  }
  // It was told on a screen that is gone.
  if (!isFine) tell(session.failure());
  return isFine;
}

}  // namespace

void addTopCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "top", "Show the plugins or links with the most traffic, backlog or age, again and again");
  const auto how = std::make_shared<TopOptions>();
  command->add_flag("--links", how->view.links, "Links in place of plugins");
  const std::map<std::string, TopOrder> orders{
      {"traffic", TopOrder::traffic}, {"backlog", TopOrder::backlog}, {"age", TopOrder::age}};
  command->add_option("--sort", how->view.order, "By traffic, backlog or age")
      ->type_name("ORDER")
      ->transform(CLI::CheckedTransformer(orders).description(""));
  command->add_flag("--reverse", how->view.reverse, "The other way round");
  command->add_option("--interval", how->interval, "How long a picture stands, and rates are over")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(within(0.05, 86400.0));
  command->add_option("--frames", how->frames, "End after so many pictures")
      ->type_name("N")
      ->check(within(1, 1000000000));
  addNote(command,
          "Keys: q end, p plugins, l links, t by traffic, b by backlog, a by age, r the other way\n"
          "round, space look now, h help. Without a terminal the pictures are printed one behind "
          "the\nother. Rates are per second since the picture before; those of slow receivers are "
          "red.");
  runsOnHub(command, options, exitCode, [how](Session& session) { return top(session, *how); });
}

}  // namespace hublinkctl
