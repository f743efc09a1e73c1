#include "indgen/temporary.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/text.h"
#include "platform/file.h"
#include "platform/process.h"

namespace {

constexpr std::uint32_t kLastNumber = 0xfffff;

// Base 32, the high part first, leading zeros dropped.
std::string digits(std::uint32_t value) {
  std::string result;
  for (; value != 0; value >>= 5)
    result.insert(result.begin(), "0123456789abcdefghijklmnopqrstuv"[value & 31]);
  return result;
}

struct WantedName {
  gen_text* buffer;
  const char* extension;
};

// A link that leads nowhere takes its name too.
bool isTaken(const char* path) {
  platform::FileStatus status;
  return V_access(path, 0) == 0 || platform::linkStatus(path, status) == 0;
}

// Fills in the names of a stem; false if one of them is taken.
bool fillIn(const char* stem, WantedName (&names)[3]) {
  for (const WantedName& name : names) {
    if (!name.buffer) continue;
    const char* extension = name.extension ? name.extension : "";
    *name.buffer = gen_concat(stem, *extension == '.' ? extension + 1 : extension);
    if (isTaken(*name.buffer)) return false;
  }
  return true;
}

bool isUsable(const char* directory) {
  constexpr int kMakeFiles = platform::accessWrite | platform::accessExecute;
  return directory && *directory && V_access(directory, kMakeFiles) == 0;
}

const char* firstUsable(const char* fallback) {
  const char* const candidates[] = {gen_getenv("TMP", nullptr), gen_getenv("TEMP", nullptr),
                                    fallback, gen_getenv("TMPDIR", nullptr), "/tmp"};
  for (const char* candidate : candidates)
    if (isUsable(candidate)) return candidate;
  return ".";
}

// The two letters at the end of a unique name run through `a` to `z` and `0` to `9`.
bool countUp(char* letter) {
  if (*letter == '9') {
    *letter = 'a';
    return false;
  }
  *letter = *letter == 'z' ? '0' : static_cast<char>(*letter + 1);
  return true;
}

bool nextName(char* end) {
  return countUp(end - 1) || countUp(end - 2);
}

// Goes through the unique names until `taken` is false for one.
template <typename Taken>
gen_text firstFree(const char* directory, Taken taken) {
  char name[16];
  std::snprintf(name, sizeof name, "kv%04Xaa",
                static_cast<unsigned>(platform::currentProcess()) & 0xffffu);
  gen_text path = gen_join(gen_temporary_directory(directory), name);
  char* end = path.data() + std::strlen(path);
  while (taken(path.get()))
    if (!nextName(end)) return {};
  return path;
}

}  // namespace

const char* gen_temporary_directory(const char* fallback) {
  static gen_text known;
  if (!known || fallback) known = gen_strdup(firstUsable(fallback));
  return known;
}

const char* gen_temporary_name(const char* directory, gen_text& buffer, const char* extension,
                               gen_text* buffer2, const char* extension2, gen_text* buffer3,
                               const char* extension3) {
  static std::uint32_t counter = 0;
  WantedName names[] = {{&buffer, extension}, {buffer2, extension2}, {buffer3, extension3}};
  if (const char* given = gen_getenv("BUILDER_TEMPORARY_NAME", nullptr)) {
    const gen_text stem = gen_join(directory, given);
    if (fillIn(gen_add_extension(stem, ""), names)) return buffer;
  }
  const std::string process = digits(static_cast<std::uint32_t>(platform::currentProcess()));
  while (counter < kLastNumber) {
    const std::string name = "kv_" + process + digits(++counter) + ".";
    if (fillIn(gen_join(directory, name.c_str()), names)) return buffer;
  }
  for (const WantedName& name : names)
    if (name.buffer) *name.buffer = gen_text();
  return nullptr;
}

gen_text gen_unique_name(const char* directory) {
  return firstFree(directory, isTaken);
}

gen_text gen_make_unique_directory(const char* directory, unsigned mode) {
  int result = 0;
  gen_text path = firstFree(directory, [&](const char* candidate) {
    result = platform::makeDirectory(candidate, mode);
    return result == -EEXIST;
  });
  return result == 0 ? std::move(path) : gen_text();
}
