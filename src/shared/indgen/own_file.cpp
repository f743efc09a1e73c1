#include "indgen/own_file.h"

#include <cerrno>

#include "indgen/access.h"
#include "platform/file.h"

namespace {

constexpr unsigned kOwnMode = 0600;
constexpr unsigned kForOthers = 0077;

std::FILE* streamOn(int descriptor, const char* mode) {
  return descriptor < 0 ? nullptr : platform::streamOn(descriptor, mode);
}

bool isOwn(const char* path, platform::FileKind kind, unsigned without) {
  platform::FileStatus status;
  return platform::linkStatus(path, status) == 0 && status.isOwn && status.kind == kind &&
         (status.mode & without) == 0;
}

}  // namespace

bool gen_is_foreign(const char* path) {
  platform::FileStatus status;
  return platform::linkStatus(path, status) == 0 && !status.isOwn;
}

bool gen_is_own_file(const char* path) {
  return isOwn(path, platform::FileKind::file, 0);
}

bool gen_is_own_directory(const char* path) {
  return isOwn(path, platform::FileKind::directory, kForOthers);
}

std::FILE* gen_open_own_file(const char* path) {
  return streamOn(V_open(path, platform::openRead | platform::openOwn), "r");
}

std::FILE* gen_make_own_file(const char* path) {
  using platform::openCreate, platform::openExclusive, platform::openWrite;
  return streamOn(V_open(path, openWrite | openCreate | openExclusive, kOwnMode), "w");
}

std::FILE* gen_open_log_file(const char* path) {
  using platform::openCreate, platform::openOwn, platform::openTruncate, platform::openWrite;
  std::FILE* made = gen_make_own_file(path);
  if (made || errno != EEXIST) return made;
  platform::FileStatus status;
  const int found = platform::linkStatus(path, status);
  if (found < 0 || !(status.isOwn || status.isRoots)) {
    errno = found < 0 ? -found : EPERM;
    return nullptr;
  }
  // An own file is still one when it is opened; a link of one's own may lead to no file yet.
  const bool isFile = status.kind == platform::FileKind::file && status.isOwn;
  return streamOn(
      V_open(path, openWrite | openTruncate | (isFile ? openOwn : openCreate), kOwnMode), "w");
}
