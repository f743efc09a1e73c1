#include "indgen/access.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "indgen/find.h"
#include "indgen/text.h"
#include "indgen/viewpath.h"
#include "indgen/viewpath_locate.h"

namespace {

bool isHere(const char* path) {
  return platform::testAccess(path, 0) == 0;
}

// Whether a directory stands in the view, but only in a lower node.
bool isLowerDirectory(const char* path) {
  platform::FileStatus status;
  return !isHere(path) && V_stat(path, &status) == 0 &&
         status.kind == platform::FileKind::directory;
}

V_how howToOpen(unsigned flags) {
  using platform::openAppend, platform::openRead, platform::openWrite;
  if ((flags & openAppend) || (flags & (openRead | openWrite)) == (openRead | openWrite))
    return V_FOR_WRITING;
  if (flags & openWrite) return viewpath_slow ? V_FOR_WRITING : V_UNCHANGED;
  return V_FOR_READING;
}

V_how howToOpen(const char* mode) {
  if (std::strpbrk(mode, "a+") || mode[std::strspn(mode, "bcnrtw")]) return V_FOR_WRITING;
  if (std::strchr(mode, 'w')) return viewpath_slow ? V_FOR_WRITING : V_UNCHANGED;
  return V_FOR_READING;
}

int openPlainly(const char* path, unsigned flags, unsigned mode) {
  return gen_plain_result(platform::openFile(path, flags, mode));
}

int createPlainly(const char* path, unsigned mode) {
  using platform::openCreate, platform::openTruncate, platform::openWrite;
  return openPlainly(path, openWrite | openCreate | openTruncate, mode);
}

bool isWorkingDirectory(const char* path) {
  platform::FileStatus named, own;
  return platform::fileStatus(path, named) == 0 && platform::fileStatus(".", own) == 0 &&
         named.device == own.device && named.inode == own.inode;
}

// Keeps the names that were used: by them, not by what links lead to, files are found in the view.
void enteredDirectory(const char* path) {
  gen_text& directory = gen_the_view.working_directory;
  const bool absolute = *path == '/';
  if (absolute || directory) {
    gen_text name = absolute ? gen_strdup(path) : gen_concat3(directory, "/", path);
    V2_compath(name.data());
    directory = std::move(name);
  }
  // A `..` behind a link leads elsewhere than its text says.
  if (!directory || !isWorkingDirectory(directory)) V_ask_working_directory();
}

int enterInView(const char* path) {
  const int result = platform::changeDirectory(path);
  if (result >= 0) {
    enteredDirectory(path);
    return 0;
  }
  platform::FileStatus status;
  if (V_stat(path, &status) != 0) return gen_plain_result(-ENOENT);
  if (status.kind != platform::FileKind::directory) return gen_plain_result(-ENOTDIR);
  if (isHere(path)) return gen_plain_result(result);
  if (V_make_shadow_directory(path) != 0 || platform::changeDirectory(path) < 0)
    return gen_plain_result(-EPERM);
  enteredDirectory(path);
  return 0;
}

}  // namespace

int gen_plain_result(int result) {
  if (result >= 0) return result;
  errno = -result;
  return -1;
}

gen_text V_open_mode(const char* mode) {
  if (!mode) return {};
  const bool writes = std::strpbrk(mode, "wa") != nullptr;
  const bool decided = std::strpbrk(mode, "cn") != nullptr;
  return gen_concat(mode, writes && !decided ? "c" : "");
}

gen_text V_library_mode(const char* mode) {
  gen_text result = gen_strdup(mode);
  char* to = result.data();
  if (!to) return result;
  for (const char* from = to; *from; ++from)
    if (*from != 'c' && *from != 'n') *to++ = *from;
  *to = '\0';
  return result;
}

int V_open(const char* path, unsigned flags, unsigned mode) {
  if (!gen_viewpath_active()) return openPlainly(path, flags, mode);
  return openPlainly(V_locate(path, howToOpen(flags)), flags, mode);
}

std::FILE* V_fopen(const char* path, const char* mode) {
  if (!path || !mode) {
    errno = EINVAL;
    return nullptr;
  }
  const gen_text own = V_library_mode(V_open_mode(mode));
  if (!gen_viewpath_active()) return std::fopen(path, own);
  return std::fopen(V_locate(path, howToOpen(mode)), own);
}

std::FILE* V_freopen(const char* path, const char* mode, std::FILE* stream) {
  if (!path || !mode) {
    errno = EINVAL;
    return nullptr;
  }
  const gen_text own = V_library_mode(V_open_mode(mode));
  if (!gen_viewpath_active()) return std::freopen(path, own, stream);
  return std::freopen(V_locate(path, howToOpen(mode)), own, stream);
}

int V_access(const char* path, int mode) {
  if (!gen_viewpath_active()) return gen_plain_result(platform::testAccess(path, mode));
  const gen_text name = V_from_root(path);
  const int result = gen_plain_result(platform::testAccess(name, mode));
  const int failure = errno;
  if (result == 0 || (failure != ENOENT && failure != ENOTDIR)) return result;
  // What can be copied up can be written, whatever its mode.
  const bool writes = (mode & platform::accessWrite) != 0;
  const int asked = writes ? 0 : mode;
  if (V_search(name, [asked](const char* lower) { return platform::testAccess(lower, asked); }))
    return 0;
  if (writes) errno = failure;
  return -1;
}

int V_stat(const char* path, platform::FileStatus* buffer) {
  platform::FileStatus unused;
  platform::FileStatus& status = buffer ? *buffer : unused;
  if (!gen_viewpath_active()) return gen_plain_result(platform::fileStatus(path, status));
  const gen_text name = V_from_root(path);
  if (gen_plain_result(platform::fileStatus(name, status)) == 0) return 0;
  const auto ask = [&status](const char* lower) { return platform::fileStatus(lower, status); };
  return V_search(name, ask, true) ? 0 : -1;
}

int V_chdir(const char* path) {
  gen_forget_cwd();
  if (!path || !*path) return gen_plain_result(-ENOENT);
  if (!gen_viewpath_active()) return gen_plain_result(platform::changeDirectory(path));
  return enterInView(V_from_root(path));
}

int V_creat(const char* path, unsigned mode) {
  if (!gen_viewpath_active()) return createPlainly(path, mode);
  const gen_text name = V_from_root(path);
  const int descriptor = createPlainly(name, mode);
  if (descriptor >= 0) return descriptor;
  const int failure = errno;
  const gen_text directory = V_directory_of(name);
  if (isLowerDirectory(directory) && V_make_shadow_directory(directory) == 0)
    return createPlainly(name, mode);
  return gen_plain_result(-failure);
}

int V_unlink(const char* path) {
  if (!gen_viewpath_active()) return gen_plain_result(platform::removeFile(path));
  const gen_text name = V_from_root(path);
  const int result = platform::removeFile(name);
  if (result >= 0) return 0;
  return gen_plain_result(!isHere(name) && V_access(name, 0) == 0 ? -EPERM : result);
}
