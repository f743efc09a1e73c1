// The environment of this process and of those that it starts.
//
// It is changed by the main thread while a lookup of a name may read it on another one. Therefore
// what it has pointed to stays as long as a lookup runs, and a change shows all at once.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/posix/lookup_threads.h"
#include "platform/process.h"

extern char** environ;

namespace platform {
namespace {

// What the system takes at most for one text and for all texts of a program that it starts.
constexpr std::size_t kLongestText = std::size_t{128} << 10, kMostTexts = std::size_t{6} << 20;
// Bytes of earlier values that are kept at most.
constexpr std::size_t kMostOld = std::size_t{16} << 20;

using Text = std::unique_ptr<std::string>;
using Pointers = std::vector<char*>;

// The variables that were set here, in the form in which the environment points to them, and the
// row of pointers once one has been added: the C library would keep every value that a variable has
// ever had, and its own row where a reader can lose it.
struct Own {
  std::map<std::string, Text, std::less<>> texts;
  Pointers row;
  std::vector<Text> oldTexts;
  std::vector<Pointers> oldRows;
  std::size_t oldSize = 0;  // of the texts
};

// The environment points to it until the very end, so it is never destroyed.
Own& own() {
  static Own& all = *std::make_unique<Own>().release();
  return all;
}

void dropOld() {
  if (anyLookupRuns()) return;
  own().oldTexts.clear();
  own().oldRows.clear();
  own().oldSize = 0;
}

// Nothing points to it any more, but it may still be read.
void retire(Text text) {
  if (!text) return;
  own().oldSize += text->size();
  own().oldTexts.push_back(std::move(text));
}

template <class Pointer>
void show(Pointer& place, Pointer value) {
  std::atomic_ref(place).store(value, std::memory_order_release);
}

// The variable's entry, or null.
char** entryOf(const std::string& name) {
  for (char** entry = environ; entry && *entry; ++entry)
    if (strncmp(*entry, name.c_str(), name.size()) == 0 && (*entry)[name.size()] == '=')
      return entry;
  return nullptr;
}

void append(char* text) {
  Pointers& row = own().row;
  std::size_t count = 0;
  while (environ && environ[count]) ++count;
  if (environ != row.data() || count + 2 > row.size()) {
    Pointers larger(2 * (count + 2), nullptr);
    std::copy_n(environ, count, larger.data());
    show(environ, larger.data());
    own().oldRows.push_back(std::exchange(row, std::move(larger)));
  }
  show(row[count], text);
}

std::size_t cost(const char* text) {
  return strlen(text) + 1 + sizeof text;
}

std::size_t costOfAll() {
  std::size_t total = 0;
  for (char** text = environ; text && *text; ++text) total += cost(*text);
  return total;
}

std::size_t mostForAll() {
  const long known = sysconf(_SC_ARG_MAX);
  return (known > 0 ? std::min(static_cast<std::size_t>(known), kMostTexts) : kLongestText) / 2;
}

}  // namespace

const char* environmentVariable(const char* name) {
  return name ? getenv(name) : nullptr;
}

int setEnvironmentVariable(const char* name, const char* value) {
  if (!name || !value || !*name || strchr(name, '=')) return -EINVAL;
  auto text = std::make_unique<std::string>(std::string(name) + "=" + value);
  if (text->size() >= kLongestText) return -E2BIG;
  const char* before = getenv(name);
  const std::size_t freed = before ? strlen(name) + 1 + cost(before) : 0;
  if (cost(text->c_str()) > freed && costOfAll() - freed + cost(text->c_str()) > mostForAll())
    return -E2BIG;
  dropOld();
  if (own().oldSize > kMostOld) return -EAGAIN;
  if (char** const entry = entryOf(name))
    show(*entry, text->data());
  else
    append(text->data());
  retire(std::exchange(own().texts[name], std::move(text)));
  return 0;
}

int unsetEnvironmentVariable(const char* name) {
  if (!name) return -EINVAL;
  if (unsetenv(name) != 0) return -errno;
  if (auto text = own().texts.extract(name)) retire(std::move(text.mapped()));
  return 0;
}

}  // namespace platform
