#include "platform/file.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <limits>

namespace platform {
namespace {

int outcome(int result) {
  return result < 0 ? -errno : result;
}

int statusOf(int result, const struct stat& found, FileStatus& status) {
  if (result != 0) return -errno;
  status.kind = S_ISREG(found.st_mode)   ? FileKind::file
                : S_ISDIR(found.st_mode) ? FileKind::directory
                : S_ISLNK(found.st_mode) ? FileKind::link
                                         : FileKind::other;
  status.size = found.st_size;
  status.mode = found.st_mode & 07777u;
  status.modifiedMilliseconds =
      static_cast<std::int64_t>(found.st_mtim.tv_sec) * 1000 + found.st_mtim.tv_nsec / 1000000;
  status.device = found.st_dev;
  status.inode = found.st_ino;
  status.isOwn = found.st_uid == geteuid();
  status.isRoots = found.st_uid == 0;
  return 0;
}

}  // namespace

long writeDescriptor(int descriptor, const void* bytes, unsigned long count) {
  const char* from = static_cast<const char*>(bytes);
  unsigned long done = 0;
  while (done < count) {
    const ssize_t written = write(descriptor, from + done, count - done);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && done == 0) return -errno;
    if (written <= 0) break;
    done += static_cast<unsigned long>(written);
  }
  return static_cast<long>(done);
}

long readDescriptor(int descriptor, void* bytes, unsigned long count) {
  for (;;) {
    const ssize_t result = read(descriptor, bytes, count);
    if (result >= 0) return result;
    if (errno != EINTR) return -errno;
  }
}

int openFile(const char* path, unsigned flags, unsigned mode) {
  if (!path) return -ENOENT;
  int system = O_CLOEXEC;
  const bool writing = (flags & (openWrite | openAppend)) != 0;
  system |= writing ? ((flags & openRead) ? O_RDWR : O_WRONLY) : O_RDONLY;
  if (flags & openAppend) system |= O_APPEND;
  if (flags & openCreate) system |= O_CREAT;
  if (flags & openExclusive) system |= O_EXCL;
  if (flags & openTruncate) system |= O_TRUNC;
  // Nobody is to have this process wait at a pipe of his either.
  if (flags & openOwn) system |= O_NOFOLLOW | O_NONBLOCK;
  const int descriptor = open(path, system, static_cast<mode_t>(mode));
  if (descriptor < 0 || !(flags & openOwn)) return outcome(descriptor);
  struct stat found {};
  if (fstat(descriptor, &found) == 0 && S_ISREG(found.st_mode) && found.st_uid == geteuid())
    return descriptor;
  close(descriptor);
  return -EPERM;
}

FILE* streamOn(int descriptor, const char* mode) {
  FILE* stream = fdopen(descriptor, mode);
  if (!stream) {
    const int failure = errno;
    close(descriptor);
    errno = failure;
  }
  return stream;
}

int closeDescriptor(int descriptor) {
  return close(descriptor) == 0 ? 0 : errno;
}

int fileStatus(const char* path, FileStatus& status) {
  if (!path) return -ENOENT;
  struct stat found {};
  return statusOf(stat(path, &found), found, status);
}

int linkStatus(const char* path, FileStatus& status) {
  if (!path) return -ENOENT;
  struct stat found {};
  return statusOf(lstat(path, &found), found, status);
}

int testAccess(const char* path, int bits) {
  if (!path) return -ENOENT;
  int mode = F_OK;
  if (bits & accessRead) mode |= R_OK;
  if (bits & accessWrite) mode |= W_OK;
  if (bits & accessExecute) mode |= X_OK;
  return outcome(access(path, mode));
}

int changeDirectory(const char* path) {
  return path ? outcome(chdir(path)) : -ENOENT;
}

int openWorkingDirectory() {
  return outcome(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

int enterDirectory(int descriptor) {
  return outcome(fchdir(descriptor));
}

int removeFile(const char* path) {
  return path ? outcome(unlink(path)) : -ENOENT;
}

int renameFile(const char* from, const char* to) {
  return from && to ? outcome(rename(from, to)) : -ENOENT;
}

int changeMode(const char* path, unsigned mode) {
  return path ? outcome(chmod(path, static_cast<mode_t>(mode))) : -ENOENT;
}

int touchFile(const char* path) {
  return path ? outcome(utimensat(AT_FDCWD, path, nullptr, 0)) : -ENOENT;
}

int makeDirectory(const char* path, unsigned mode) {
  return path ? outcome(mkdir(path, static_cast<mode_t>(mode))) : -ENOENT;
}

int removeDirectory(const char* path) {
  return path ? outcome(rmdir(path)) : -ENOENT;
}

int workingDirectory(char* buffer, unsigned long size) {
  return getcwd(buffer, size) ? 0 : -errno;
}

int resolvePath(const char* path, std::string& resolved) {
  char buffer[PATH_MAX] = "";
  const int result = !path ? -ENOENT : realpath(path, buffer) ? 0 : -errno;
  // Not every failure leaves its place.
  resolved = buffer[0] || !path ? buffer : path;
  return result;
}

std::int64_t freeDiskSpace(const char* path) {
  if (!path) return -ENOENT;
  struct statvfs volume {};
  if (statvfs(path, &volume) != 0) return -errno;
  constexpr std::uint64_t most = std::numeric_limits<std::int64_t>::max();
  const std::uint64_t block = volume.f_frsize;
  if (block != 0 && volume.f_bavail > most / block) return static_cast<std::int64_t>(most);
  return static_cast<std::int64_t>(volume.f_bavail * block);
}

// The mount table names each device's file system: "id parent major:minor ... - type source ...".
std::string fileSystemName(const char* path) {
  std::string name;
  struct stat found {};
  if (!path || stat(path, &found) != 0) return name;
  FILE* table = fopen("/proc/self/mountinfo", "re");
  if (!table) return name;
  char* line = nullptr;
  size_t room = 0;
  while (name.empty() && getline(&line, &room, table) > 0) {
    unsigned major = 0, minor = 0;
    if (sscanf(line, "%*d %*d %u:%u", &major, &minor) != 2) continue;
    if (makedev(major, minor) != found.st_dev) continue;
    const std::string entry = line;
    const size_t mark = entry.find(" - ");
    if (mark == std::string::npos) continue;
    const size_t begin = mark + 3;
    name = entry.substr(begin, entry.find(' ', begin) - begin);
  }
  free(line);
  fclose(table);
  return name;
}

DirectoryReader::~DirectoryReader() {
  close();
}

int DirectoryReader::open(const char* path) {
  close();
  if (!path) return -ENOENT;
  stream_ = opendir(path);
  return stream_ ? 0 : -errno;
}

const char* DirectoryReader::next() {
  const dirent* entry = stream_ ? readdir(static_cast<DIR*>(stream_)) : nullptr;
  if (!entry) return nullptr;
  const bool isKnown = entry->d_type != DT_UNKNOWN && entry->d_type != DT_LNK;
  kind_ = !isKnown ? Kind::unknown : entry->d_type == DT_DIR ? Kind::directory : Kind::other;
  return entry->d_name;
}

void DirectoryReader::close() {
  if (stream_) closedir(static_cast<DIR*>(stream_));
  stream_ = nullptr;
}

void* loadLibrary(const char* path) {
  return path ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
}

void* librarySymbol(void* library, const char* name) {
  return library && name ? dlsym(library, name) : nullptr;
}

}  // namespace platform
