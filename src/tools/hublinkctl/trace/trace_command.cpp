#include "tools/hublinkctl/trace/trace_command.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "indgen/printable.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "tools/hublinkctl/trace/chrome_trace.h"
#include "tools/hublinkctl/trace/html_page.h"
#include "tools/hublinkctl/trace/selection.h"
#include "tools/hublinkctl/trace/text_chart.h"
#include "tools/hublinkctl/trace/trace_reader.h"

namespace {

namespace fs = std::filesystem;

constexpr int kTrouble = 2;
constexpr int kPollInterval = 100;  // ms between looks at a file that grows

struct Arguments {
  std::string file;
  std::string html;
  std::string perfetto;
  trace::Filter filter;
  bool follow = false;
};

int fail(const std::string& message) {
  std::cerr << "hublinkctl trace: " << gen_printable(message) << '\n';
  return kTrouble;
}

// Feeds what the stream holds from where it stands; false if reading fails.
bool feedRest(std::ifstream& log, trace::Reader& reader) {
  char buffer[1 << 16];
  do {
    log.read(buffer, sizeof buffer);
    reader.feed({buffer, static_cast<std::size_t>(log.gcount())});
  } while (log);
  return !log.bad();
}

int writeFile(const std::string& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary);
  out << text;
  out.close();
  return out ? 0 : fail("can't write " + file);
}

// Of those that aren't shown it learns all the same what belongs together.
template <class Chart>
void fill(Chart& chart, const std::vector<trace::Event>& events,
          const trace::Selection& selection) {
  for (std::size_t i = 0; i < events.size(); ++i)
    selection.hasEvent(i) ? chart.add(events[i]) : chart.skip(events[i]);
}

int writeChart(const std::vector<trace::Event>& events, const trace::Selection& selection) {
  // A first run tells how many lanes it takes.
  std::ostream nowhere(nullptr);
  trace::TextChart trial(nowhere, 0);
  fill(trial, events, selection);
  trace::TextChart chart(std::cout, trial.lanes());
  fill(chart, events, selection);
  chart.finish(&selection.requests());
  return std::cout.flush() ? 0 : fail("can't write the chart");
}

bool isReadable(const trace::Event& event) {
  return event.kind != trace::Event::Kind::unreadable;
}

// Whether the stream holds a line of a hub's log, or nothing yet. Goes back to its beginning.
bool mayBeLog(std::ifstream& log) {
  bool isEmpty = true, isLog = false;
  trace::Reader reader([&](const trace::Event& event) {
    isEmpty = false;
    isLog = isLog || isReadable(event);
  });
  feedRest(log, reader);
  reader.finish();
  log.clear();
  log.seekg(0);
  return isEmpty || isLog;
}

int failNoLog(const Arguments& arguments) {
  return fail(arguments.file + " is no internal log of a hub");
}

int writeAll(const Arguments& arguments, std::ifstream& log) {
  if (!mayBeLog(log)) return failNoLog(arguments);
  std::vector<trace::Event> events;
  trace::Reader reader([&](trace::Event event) { events.push_back(std::move(event)); });
  if (!feedRest(log, reader)) return fail("can't read " + arguments.file);
  reader.finish();
  const trace::Selection selection(events, arguments.filter);
  if (!arguments.perfetto.empty())
    return writeFile(arguments.perfetto, trace::chromeTrace(events, selection));
  if (arguments.html.empty()) return writeChart(events, selection);
  trace::HtmlPage page;
  fill(page, events, selection);
  return writeFile(arguments.html, page.text(fs::path(arguments.file).filename().string()));
}

// Until the hub's last line or a signal. A file that has become shorter belongs to a new hub.
int followChart(const Arguments& arguments, std::ifstream& log) {
  if (!mayBeLog(log)) return failNoLog(arguments);
  platform::installStopSignals();
  auto chart = std::make_unique<trace::TextChart>(std::cout, 4);
  bool ended = false;
  const auto show = [&](const trace::Event& event) {
    chart->add(event);
    ended = ended || event.kind == trace::Event::Kind::shutdown;
  };
  auto reader = std::make_unique<trace::Reader>(show);
  std::uintmax_t taken = 0;
  for (;;) {
    if (!feedRest(log, *reader)) return fail("can't read " + arguments.file);
    if (!std::cout.flush()) return fail("can't write the chart");
    if (ended || platform::stopRequested()) break;
    log.clear();
    taken = static_cast<std::uintmax_t>(log.tellg());
    platform::sleepMilliseconds(kPollInterval);
    std::error_code error;
    const std::uintmax_t size = fs::file_size(arguments.file, error);
    if (error || size >= taken) continue;
    reader->finish();
    std::cout << "The log begins anew.\n";
    log.seekg(0);
    chart = std::make_unique<trace::TextChart>(std::cout, 4);
    reader = std::make_unique<trace::Reader>(show);
    ended = false;
  }
  reader->finish();
  chart->finish();
  return std::cout.flush() ? 0 : fail("can't write the chart");
}

int run(const Arguments& arguments) {
  std::ifstream log(arguments.file, std::ios::binary);
  std::error_code ignored;
  if (!log || fs::is_directory(arguments.file, ignored))
    return fail("can't open " + arguments.file);
  return arguments.follow ? followChart(arguments, log) : writeAll(arguments, log);
}

}  // namespace

void addTraceCommand(CLI::App& app, int& exitCode) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* trace = app.add_subcommand(
      "trace", "Shows a hub's internal log (option -hl_log_internal) as a sequence chart");
  trace->add_option("FILE", arguments->file, "The log")->type_name("")->required();
  CLI::Option* follow = trace->add_flag("--follow", arguments->follow,
                                        "Go on as the log grows, until the hub ends or SIGINT");
  trace->add_option("--html", arguments->html, "Write a page for a browser to this file instead")
      ->type_name("OUT")
      ->excludes(follow);
  trace
      ->add_option("--perfetto", arguments->perfetto,
                   "Write a file for the Perfetto viewer, in the Chrome trace format, instead")
      ->type_name("OUT")
      ->excludes(follow)
      ->excludes("--html");
  trace
      ->add_option("--plugin", arguments->filter.plugin,
                   "Only what this plugin asked or was asked for, and its own lines")
      ->type_name("N")
      ->excludes(follow);
  trace->add_option("--service", arguments->filter.service, "Only requests for this service")
      ->type_name("NAME")
      ->excludes(follow);
  trace->add_flag("--failed", arguments->filter.failed, "Only requests that failed")
      ->excludes(follow);
  trace->footer(
      "In the chart \"#3\" stands on each line that belongs to the third request; the requests are "
      "listed at the end.\nExit codes: 0, or 2 if the log can't be read or is none, or the chart "
      "can't be written.");
  trace->callback([arguments, &exitCode] { exitCode = run(*arguments); });
}
