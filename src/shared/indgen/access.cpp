#include "indgen/access.h"

#include <cerrno>
#include <cstring>

#include "indgen/find.h"
#include "indgen/text.h"

namespace {

// The platform tells the error in its result; the layer's callers look for it in `errno`.
int plain(int result) {
  if (result >= 0) return result;
  errno = -result;
  return -1;
}

}  // namespace

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
  return plain(platform::openFile(path, flags, mode));
}

std::FILE* V_fopen(const char* path, const char* mode) {
  if (!path || !mode) {
    errno = EINVAL;
    return nullptr;
  }
  return std::fopen(path, V_library_mode(V_open_mode(mode)));
}

std::FILE* V_freopen(const char* path, const char* mode, std::FILE* stream) {
  if (!path || !mode) {
    errno = EINVAL;
    return nullptr;
  }
  return std::freopen(path, V_library_mode(V_open_mode(mode)), stream);
}

int V_access(const char* path, int mode) {
  return plain(platform::testAccess(path, mode));
}

int V_stat(const char* path, platform::FileStatus* buffer) {
  platform::FileStatus unused;
  return plain(platform::fileStatus(path, buffer ? *buffer : unused));
}

int V_chdir(const char* path) {
  gen_forget_cwd();
  if (!path || !*path) {
    errno = ENOENT;
    return -1;
  }
  return plain(platform::changeDirectory(path));
}

int V_creat(const char* path, unsigned mode) {
  using platform::openCreate, platform::openTruncate, platform::openWrite;
  return plain(platform::openFile(path, openWrite | openCreate | openTruncate, mode));
}

int V_unlink(const char* path) {
  return plain(platform::removeFile(path));
}
