#include "tools/hublinkctl/session.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "indgen/format.h"
#include "indgen/printable.h"
#include "platform/clock.h"

namespace hublinkctl {
namespace {

std::string textOf(const Facts& value) {
  if (value.is_null()) return "unknown";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_number_float()) return gen_asprintf("%.3f", value.get<double>()).get();
  return gen_printable(value.is_string() ? value.get<std::string>() : jsonText(value));
}

std::string textOfAll(const Facts& facts) {
  if (facts.size() == 1) return textOf(facts.front()) + '\n';
  std::string text;
  for (const auto& [name, value] : facts.items()) {
    std::string words = name;
    for (char& letter : words)
      if (letter == '_') letter = ' ';
    text += words + ": " + textOf(value) + '\n';
  }
  return text;
}

}  // namespace

std::string clockTime(std::int64_t time) {
  const std::int64_t ms = time % 86400000;
  return gen_asprintf("%02d:%02d:%02d.%03d", static_cast<int>(ms / 3600000),
                      static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                      static_cast<int>(ms % 1000))
      .get();
}

std::optional<std::int32_t> numberIn(const std::string& text) {
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string jsonText(const Facts& value) {
  return value.dump(-1, ' ', false, Facts::error_handler_t::replace);
}

void tell(const std::string& text) {
  std::fprintf(stderr, "hublinkctl: %s\n", gen_printable(text).c_str());
}

Session::Session(const Options& options) : options_(options) {
  restartClock();
}

void Session::restartClock() {
  end_ = platform::monotonicMilliseconds() +
         static_cast<std::uint64_t>(std::ceil(options_.timeoutSeconds * 1000));
}

int Session::left() const {
  const std::uint64_t now = platform::monotonicMilliseconds();
  return now >= end_ ? 0 : static_cast<int>(end_ - now);
}

bool Session::join() {
  std::string error;
  plugin_.setAnyUser(options_.choice.anyUser);
  const HubSearch outcome = options_.port != 0
                                ? joinHubOnPort(plugin_, options_.port, error, left())
                                : joinHub(plugin_, options_.choice, error, left());
  if (options_.port == 0) record_ = readHubRecord(options_.choice);
  if (!joined(outcome, error)) return false;
  plugin_.setPersistent(false);
  return true;
}

bool Session::joinOrStart(const HubChoice& choice, bool stay) {
  std::string error;
  const HubSearch outcome = joinOrStartHub(plugin_, choice, error, left());
  // A hub without a plugin that keeps it up takes its record away.
  record_ = readHubRecord(choice);
  started_ = outcome == HubSearch::started;
  if (!joined(outcome, error)) return false;
  if (!stay) plugin_.setPersistent(false);
  restartClock();
  return true;
}

bool Session::joined(HubSearch outcome, const std::string& error) {
  switch (outcome) {
    case HubSearch::joined:
    case HubSearch::started:
      return true;
    case HubSearch::silent:
      return fail(ExitCode::noAnswer, error);
    case HubSearch::gone:
      return fail(ExitCode::hubGone, error);
    case HubSearch::none:
    case HubSearch::failed:
      break;
  }
  return fail(ExitCode::noHub, error);
}

Facts Session::process() const {
  return record_.hub.process > 0 ? Facts(record_.hub.process) : Facts();
}

bool Session::await(const std::function<bool()>& done) {
  return (plugin_.serveUntil(done, left()) && plugin_.isConnected()) || failUnanswered();
}

std::optional<PluginCounts> Session::count() {
  const auto counts = plugin_.countPlugins(left());
  if (!counts) failUnanswered();
  return counts;
}

bool Session::failUnanswered() {
  if (!plugin_.isConnected()) return failGone();
  const std::string reason = reason_ ? reason_() : std::string();
  return fail(ExitCode::noAnswer, gen_asprintf("no answer within %g s%s%s", options_.timeoutSeconds,
                                               reason.empty() ? "" : ": ", reason.c_str())
                                      .get());
}

bool Session::print(const Facts& facts) {
  return printText(options_.json ? facts.dump(2, ' ', false, Facts::error_handler_t::replace) + '\n'
                                 : textOfAll(facts));
}

bool Session::printText(const std::string& text) {
  hasPrinted_ = true;
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0)
    return true;
  return fail(ExitCode::usage, "the output can't be written");
}

bool Session::fail(ExitCode code, const std::string& text) {
  code_ = code;
  failure_ = text;
  tell(text);
  if (options_.json && !hasPrinted_) print({{"error", text}});
  return false;
}

}  // namespace hublinkctl
