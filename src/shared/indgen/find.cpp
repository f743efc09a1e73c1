#include "indgen/find.h"

#include <cstring>
#include <vector>

#include "indgen/access.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "indgen/report.h"
#include "indgen/text.h"
#include "platform/process.h"

namespace {

char workingDirectory[4096];
bool workingDirectoryKnown = false;

const char* withOneLeadingSeparator(const char* path) {
  while (gen_is_separator(path[0]) && gen_is_separator(path[1])) ++path;
  return path;
}

// The root is its own parent.
void cutAboveRoot(char* path) {
  const char* from = path;
  while (gen_has_prefix(from, "/..") && (gen_is_separator(from[3]) || !from[3])) from += 3;
  if (!*from && from > path) from = "/";
  std::memmove(path, from, std::strlen(from) + 1);
}

void cutSeparators(gen_text& path) {
  std::size_t length = std::strlen(path);
  while (length > 1 && gen_is_separator(path.get()[length - 1])) path.data()[--length] = '\0';
}

bool hasDirectoryPart(const char* name) {
  return gen_base_name(name) != name;
}

gen_text programIn(const char* directory, const char* name) {
  gen_text path = gen_join(directory, name);
  return gen_file_kind(path) == 1 ? std::move(path) : gen_text();
}

gen_text programInPath(const char* name) {
  const char* list = gen_getenv("PATH", "");
  std::vector<char> item(std::strlen(list) + 1);
  while ((list = gen_next_path_item(list, item.data(), item.size()))) {
    gen_text found = programIn(item.data(), name);
    if (found) return found;
  }
  return {};
}

}  // namespace

gen_text gen_full_path(const char* path) {
  if (!path || !*path) return gen_strdup(path);
  const bool rooted = gen_is_separator(*path) || path[1] == ':';
  const gen_text whole = rooted ? gen_strdup(path) : gen_concat3(gen_getcwd(), "/", path);
  // Two leading separators mean nothing to this system, but a server's name to the cleaning.
  gen_text result = gen_strdup(withOneLeadingSeparator(whole));
  gen_clean_path(result.data());
  cutAboveRoot(result.data());
  return result;
}

gen_text gen_absolute_path(const char* path) {
  return gen_absolute_path_in(nullptr, path);
}

gen_text gen_absolute_path_in(const char* directory, const char* path) {
  if (!path || !*path) return gen_strdup(path);
  if (!gen_is_absolute(path)) return gen_join(directory ? directory : gen_getcwd(), path);
  gen_text result = gen_strdup(path);
  gen_clean_path(result.data());
  return result;
}

bool gen_same_path(const char* a, const char* b) {
  if (!a || !b) return a == b;
  gen_text fullA = gen_full_path(a), fullB = gen_full_path(b);
  cutSeparators(fullA);
  cutSeparators(fullB);
  return gen_equal_nocase(fullA, fullB);
}

const char* gen_getcwd() {
  if (workingDirectoryKnown) return workingDirectory;
  if (platform::workingDirectory(workingDirectory, sizeof workingDirectory) == 0) {
    workingDirectoryKnown = true;
    return workingDirectory;
  }
  const char* home = gen_user_home();
  if (!home) gen_exit_message(1, "Could not get current working directory.");
  return home;
}

void gen_forget_cwd() {
  workingDirectoryKnown = false;
}

int gen_file_kind(const char* path) {
  platform::FileStatus status;
  if (!path || !*path || V_stat(path, &status) != 0) return -1;
  return status.kind == platform::FileKind::directory ? 0 : 1;
}

bool gen_is_regular_file(const char* path) {
  platform::FileStatus status;
  return V_stat(path, &status) == 0 && status.kind == platform::FileKind::file;
}

gen_text gen_find_program(const char* name, bool search_program_dir, bool full) {
  gen_text found;
  if (!name || !*name) return found;
  if (hasDirectoryPart(name)) {
    if (gen_file_kind(name) == 1) found = gen_absolute_path(name);
  } else {
    if (search_program_dir) found = programIn(gen_program_dir(), name);
    if (!found) found = programInPath(name);
  }
  return full ? gen_full_path(found) : std::move(found);
}

const char* gen_getenv(const char* name, const char* fallback) {
  const char* value = platform::environmentVariable(name);
  return value && *value ? value : fallback;
}

bool gen_setenv(const char* name, const char* value) {
  return platform::setEnvironmentVariable(name, value ? value : "") == 0;
}

bool gen_is_mvfs(const char* path) {
  return gen_equal_nocase(platform::fileSystemName(path).c_str(), "MVFS");
}
