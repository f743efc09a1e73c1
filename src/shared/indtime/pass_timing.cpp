#include "indtime/pass_timing.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <deque>
#include <iterator>

#include "indgen/report.h"

std::int64_t allocated_bytes = 0;

namespace {

struct gen_pass {
  gen_pass* next = nullptr;  // the pass below on the stack, or the next free record
  bool active = false;       // on the stack
  std::int32_t entries = 0;
  const char* name = nullptr;
  // Milliseconds and bytes; the totals are with the passes inside.
  std::int32_t total_time = 0, self_time = 0, start_time = 0;
  std::int32_t total_memory = 0, self_memory = 0, start_memory = 0;
};

constexpr int max_max_passes = 30;

gen_pass passes[max_max_passes];
gen_pass* sorted[max_max_passes];  // the used ones of `passes`, by name but during a report
int passCount = 0;
gen_pass* pass_stack = nullptr;
std::deque<gen_pass> namelessPasses;  // keeps its elements in place
gen_pass* freeNameless = nullptr;

void require(bool condition, const char* expression, int line) {
  gen_assert(condition, expression, "..\\src\\shared\\indtime", line);
}

// The counters wrap around; what counts is their differences.
std::int32_t wrapped(std::int64_t value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}
std::int32_t plus(std::int32_t a, std::int32_t b) {
  return wrapped(std::int64_t{a} + b);
}
std::int32_t minus(std::int32_t a, std::int32_t b) {
  return wrapped(std::int64_t{a} - b);
}

std::int32_t milliseconds() {
  return wrapped(std::int64_t{std::clock()} * 1000 / CLOCKS_PER_SEC);
}

bool byName(const gen_pass* a, const gen_pass* b) {
  return std::strcmp(a->name, b->name) < 0;
}

void sortByName() {
  std::sort(sorted, sorted + passCount, byName);
}

gen_pass* namedPass(const char* name) {
  gen_pass wanted;
  wanted.name = name;
  gen_pass** const end = sorted + passCount;
  gen_pass** const found = std::lower_bound(sorted, end, &wanted, byName);
  if (found != end && std::strcmp((*found)->name, name) == 0) return *found;
  require(passCount < max_max_passes, "i < max_max_passes", __LINE__);
  gen_pass* pass = &passes[passCount];
  *pass = wanted;
  sorted[passCount++] = pass;
  sortByName();
  return pass;
}

gen_pass* namelessPass() {
  gen_pass* pass = freeNameless ? freeNameless : &namelessPasses.emplace_back();
  if (freeNameless) freeNameless = pass->next;
  *pass = gen_pass();
  return pass;
}

void endNamed(const char* pass, std::int32_t time, std::int32_t memory) {
  gen_pass* top = pass_stack;
  require(!std::strcmp(top->name, pass), "!strcmp(top->name, pass)", __LINE__);
  top->total_time = plus(top->total_time, time);
  top->self_time = plus(top->self_time, time);
  top->total_memory = plus(top->total_memory, memory);
  top->self_memory = plus(top->self_memory, memory);
  if (gen_pass* below = top->next) {
    below->self_time = minus(below->self_time, time);
    below->self_memory = minus(below->self_memory, memory);
  }
  top->active = false;
  pass_stack = top->next;
}

void endNameless(std::int32_t time, std::int32_t memory) {
  gen_pass* nameless = pass_stack;
  pass_stack = nameless->next;
  for (gen_pass* below = pass_stack; below; below = below->next) {
    below->total_time = minus(below->total_time, time);
    below->self_time = minus(below->self_time, time);
    below->total_memory = minus(below->total_memory, memory);
    below->self_memory = minus(below->self_memory, memory);
  }
  require(nameless->name == nullptr, "nameless->name == NULL", __LINE__);
  nameless->active = false;
  nameless->next = freeNameless;
  freeNameless = nameless;
}

int percent(std::int64_t part, std::int64_t whole) {
  return whole == 0 ? 0 : static_cast<int>(part * 100 / whole);
}

// Both tables: the passes in the order of `self`, then `row` for each with the length of the
// longest name and the sum, and `total` behind them.
template <class Heading, class Row, class Total>
void report(std::int32_t gen_pass::*self, Heading heading, Row row, Total total) {
  require(pass_stack == nullptr, "pass_stack == NULL", __LINE__);
  std::stable_sort(sorted, sorted + passCount,
                   [self](const gen_pass* a, const gen_pass* b) { return a->*self > b->*self; });
  int longest = 0;
  std::int64_t sum = 0;
  std::for_each(sorted, sorted + passCount, [&](const gen_pass* pass) {
    longest = std::max(longest, static_cast<int>(std::strlen(pass->name)));
    sum += pass->*self;
  });
  heading(longest + 10);
  std::for_each(sorted, sorted + passCount, [&](const gen_pass* pass) {
    const int padding = longest - static_cast<int>(std::strlen(pass->name));
    row(*pass, padding, percent(pass->*self, sum));
  });
  total(longest + 10, static_cast<int>(sum));
  sortByName();
}

}  // namespace

void gen_pass_start(const char* name) {
  const std::int32_t time = milliseconds(), memory = wrapped(allocated_bytes);
  gen_pass* pass = name ? namedPass(name) : namelessPass();
  if (pass->active) pass = namelessPass();
  pass->active = true;
  ++pass->entries;
  pass->start_time = time;
  pass->start_memory = memory;
  pass->next = pass_stack;
  pass_stack = pass;
}

void gen_pass_end(const char* name) {
  const std::int32_t now = milliseconds(), held = wrapped(allocated_bytes);
  const gen_pass* top = pass_stack;
  require(top != nullptr, "top != NULL", __LINE__);
  const std::int32_t time = minus(now, top->start_time), memory = minus(held, top->start_memory);
  require((name == nullptr) == (top->name == nullptr), "(pass == NULL) == (top->name == NULL)",
          __LINE__);
  if (name)
    endNamed(name, time, memory);
  else
    endNameless(time, memory);
}

void gen_pass_report_time(std::FILE* stream) {
  report(
      &gen_pass::self_time,
      [stream](int width) {
        std::fprintf(stream, "%-.*s Time____  Pct__  Time_w/_subpasses  Entries\n", width,
                     "Pass_timing_results__________________________________");
      },
      [stream](const gen_pass& pass, int padding, int share) {
        std::fprintf(stream, "Time in %s:%*s  %3d.%03ds   %3d%%            %2d.%03ds  %7d\n",
                     pass.name, padding, "", pass.self_time / 1000, pass.self_time % 1000, share,
                     pass.total_time / 1000, pass.total_time % 1000, pass.entries);
      },
      [stream](int width, int sum) {
        std::fprintf(stream, "%-*s %3d.%03ds\n", width, "Total surveyed time:", sum / 1000,
                     sum % 1000);
      });
}

void gen_pass_report_memory(std::FILE* stream) {
  std::fputc('\n', stream);
  report(
      &gen_pass::self_memory,
      [stream](int width) {
        std::fprintf(stream, "%-.*s  Mem______  Pct__  Mem_w/_subpasses  Entries\n", width,
                     "Pass_memory_results__________________________________");
      },
      [stream](const gen_pass& pass, int padding, int share) {
        std::fprintf(stream, "Memory in %s:%*s  %8d   %3d%%         %9d  %7d\n", pass.name, padding,
                     "", pass.self_memory, share, pass.total_memory, pass.entries);
      },
      [stream](int width, int sum) {
        std::fprintf(stream, "%-*s %3d\n", width, "Total surveyed memory allocation:", sum);
      });
}
