// What all subcommands stand on: the connection to the hub that is meant, questions with a time
// limit, and how answers and failures are told.
//
// A session is never what keeps a hub up. Whatever fails is told on standard error at once; the
// subcommand then returns exitCode().
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "hublink_plugin/hub_finder.h"
#include "tools/hublinkctl/exit_code.h"

namespace hublinkctl {

/// Which hub is meant, for how long to wait for it, and how to print.
struct Options {
  HubChoice choice;
  std::uint16_t port = 0;  ///< above 0: the hub on this port, not that of the choice
  double timeoutSeconds = 5;
  bool json = false;
};

/// Names and values in the order in which they are printed.
using Facts = nlohmann::ordered_json;

/// How long the plugin waits for an answer: a session has a limit of its own.
inline constexpr int kNoLimit = -1;

class Session {
 public:
  /// The time runs from here on. `options` must outlive the session.
  explicit Session(const Options& options);

  /// Connects to a hub that is there.
  bool join();
  /// The same, and starts one if there is none. With `stay` the hub stays up while the session
  /// lasts.
  bool joinOrStart(const HubChoice& choice, bool stay);
  /// Whether joinOrStart() has started the hub.
  bool hasStarted() const { return started_; }
  HublinkPlugin& plugin() { return plugin_; }
  /// The process of the hub as its record told it on joining; null for a hub on a port.
  Facts process() const;

  /// Milliseconds that are left.
  int left() const;
  void restartClock();
  /// Asks a question, whose `answered` may be called after the end of the wait too. None if no
  /// answer has come.
  template <class Answer>
  std::optional<Answer> ask(
      const std::function<void(std::function<void(const Answer&)> answered)>& question) {
    const auto answer = std::make_shared<std::optional<Answer>>();
    question([answer](const Answer& given) { *answer = given; });
    return await([&] { return answer->has_value(); }) ? std::move(*answer) : std::nullopt;
  }
  /// One step of at most `milliseconds`, in which handlers run. False, which is told, once the hub
  /// has gone.
  bool serve(int milliseconds) { return plugin_.serve(milliseconds) || failGone(); }
  /// Serves until `done`. False if that hasn't come, or the hub has gone.
  bool await(const std::function<bool()>& done);
  /// What to add when no answer comes, asked for then; it may be empty.
  void onSilence(std::function<std::string()> reason) { reason_ = std::move(reason); }
  /// Asks for the hub's counts, by whose answer it has done all that it was told before.
  std::optional<PluginCounts> count();

  /// Prints facts: as an object of JSON, else with a line for each, and one alone without its name.
  bool print(const Facts& facts);
  /// Prints a text that is fit to be printed.
  bool printText(const std::string& text);
  /// Tells a failure; false. For machines it is an object too, unless something has been printed.
  bool fail(ExitCode code, const std::string& text);
  /// Tells that the hub has gone; false.
  bool failGone() { return fail(ExitCode::hubGone, "the hub has gone"); }
  ExitCode exitCode() const { return code_; }
  /// What was told last; empty without a failure.
  const std::string& failure() const { return failure_; }

 private:
  bool joined(HubSearch outcome, const std::string& error);
  /// Tells why no answer has come.
  bool failUnanswered();

  const Options& options_;
  HublinkPlugin plugin_;
  HubRecord record_;
  bool started_ = false;
  bool hasPrinted_ = false;
  std::function<std::string()> reason_;
  std::string failure_;
  ExitCode code_ = ExitCode::fine;
  std::uint64_t end_ = 0;  // in ms of the monotonic clock
};

/// A time in ms since 1970 as hours, minutes, seconds and milliseconds of the day, in UTC.
std::string clockTime(std::int64_t time);
/// The number that the text is, all of it.
std::optional<std::int32_t> numberIn(const std::string& text);
/// A value as JSON on one line; what is no UTF-8 in it is replaced.
std::string jsonText(const Facts& value);
/// Something to be said that is no failure.
void tell(const std::string& text);

}  // namespace hublinkctl
