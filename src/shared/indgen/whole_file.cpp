#include "indgen/whole_file.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>

#include "indgen/access.h"
#include "indgen/directory.h"
#include "indgen/format.h"
#include "indgen/own_file.h"
#include "indgen/path.h"
#include "indgen/temporary.h"
#include "indgen/text.h"
#include "platform/file.h"

namespace {

constexpr std::size_t kCompareBlock = 512;
constexpr int kMostDrafts = 100;

struct Close {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, Close>;

Stream opened(const char* path, const char* mode) {
  return Stream(V_fopen(path, mode));
}

// The system opens a directory too, and refuses only to read it: too late for a target that was
// emptied for its copy.
Stream openedToRead(const char* path) {
  if (!gen_is_directory(path)) return opened(path, "rb");
  errno = EISDIR;
  return nullptr;
}

// Closes a written stream: what was buffered may fail only now.
int finished(Stream stream, bool good) {
  good = std::ferror(stream.get()) == 0 && good;
  return std::fclose(stream.release()) == 0 && good ? 0 : -1;
}

bool copied(std::FILE* from, std::FILE* to) {
  char block[kCompareBlock];
  std::size_t count;
  while ((count = std::fread(block, 1, sizeof block, from)) > 0)
    if (std::fwrite(block, 1, count, to) != count) return false;
  return std::ferror(from) == 0;
}

bool isSameFile(const char* a, const char* b) {
  platform::FileStatus first, second;
  return V_stat(a, &first) == 0 && V_stat(b, &second) == 0 && first.device == second.device &&
         first.inode == second.inode;
}

// A free name in the directory of `path`.
bool nameBeside(const char* path, gen_text& name) {
  return gen_temporary_name(path ? gen_directory_name(path).get() : nullptr, name, "new");
}

int renamed(const char* from, const char* to) {
  return gen_plain_result(platform::renameFile(from, to));
}

unsigned changeMode(const char* path, unsigned clear, unsigned set) {
  platform::FileStatus status;
  const unsigned mode = V_stat(path, &status) == 0 ? status.mode : 0664u;
  const int result = platform::changeMode(path, (mode & ~clear) | set);
  if (result < 0) errno = -result;
  return mode;
}

// Rewriting a byte of its own gives a file the present time on every file system that keeps one.
bool rewroteFirstByte(const char* path) {
  const Stream stream = opened(path, "r+b");
  if (!stream) return false;
  const int first = std::getc(stream.get());
  if (first == EOF || std::fseek(stream.get(), 0, SEEK_SET) != 0) return false;
  return std::putc(first, stream.get()) != EOF && std::fflush(stream.get()) == 0;
}

}  // namespace

std::int64_t gen_file_size(const char* path) {
  platform::FileStatus status;
  return V_stat(path, &status) == 0 ? status.size : -1;
}

int gen_read_file(const char* path, gen_text& buffer, std::size_t& size) {
  const Stream stream = openedToRead(path);
  if (!stream) return -1;
  const std::int64_t expected = gen_file_size(path);
  std::size_t room = (expected > 0 ? static_cast<std::size_t>(expected) : 0) + 2;
  gen_text text(static_cast<char*>(gen_alloc(1, room)));
  std::size_t length = 0, count;
  // The size is only a start: some files grow, and some don't tell it.
  while ((count = std::fread(text.data() + length, 1, room - 1 - length, stream.get())) > 0) {
    length += count;
    if (length + 1 < room) continue;
    room *= 2;
    text = gen_text(static_cast<char*>(gen_realloc(text.release(), room)));
  }
  if (std::ferror(stream.get())) return -1;
  text.data()[length] = '\0';
  buffer = std::move(text);
  size = length;
  return 0;
}

int gen_append_text(const char* path, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const gen_text text = gen_vasprintf(format, arguments);
  va_end(arguments);
  if (!text) return -1;
  Stream stream = opened(path, "atc");
  if (!stream) return -1;
  const bool good = std::fputs(text, stream.get()) != EOF;
  return finished(std::move(stream), good);
}

int gen_copy_file(const char* from, const char* to) {
  platform::FileStatus status;
  if (isSameFile(from, to) || V_stat(from, &status) != 0) return -1;
  const Stream source = openedToRead(from);
  Stream target = source ? opened(to, "wb") : nullptr;
  if (!target) return -1;
  const bool good = copied(source.get(), target.get());
  if (finished(std::move(target), good) != 0) return -1;
  return platform::changeMode(to, status.mode) < 0 ? -1 : 0;
}

int gen_copy_to_stream(const char* path, std::FILE* stream) {
  const Stream source = openedToRead(path);
  return source && stream && copied(source.get(), stream) ? 0 : -1;
}

int gen_rename(const char* from, const char* to) {
  if (!from || !to || gen_is_directory(from) || gen_is_directory(to)) return -1;
  return renamed(from, to);
}

int gen_replace_file(const char* path, const std::function<bool(std::FILE*)>& write,
                     bool isPrivate) {
  gen_text draft;
  Stream stream;
  // A name that was free may be taken by now.
  for (int tries = 0; !stream && tries < kMostDrafts && nameBeside(path, draft); ++tries) {
    stream = isPrivate ? Stream(gen_make_own_file(draft)) : opened(draft, "wx");
    if (!stream && errno != EEXIST) return -1;
  }
  if (!stream) return -1;
  const bool good = write(stream.get());
  if (finished(std::move(stream), good) == 0 && gen_rename(draft, path) == 0) return 0;
  const int failure = errno;
  V_unlink(draft);
  errno = failure;
  return -1;
}

int gen_move_file(const char* from, const char* to) {
  if (gen_rename(from, to) == 0) return 0;
  if (gen_copy_file(from, to) != 0) return -1;
  return gen_remove_file(from);
}

int gen_remove_file(const char* path) {
  if (gen_is_directory(path)) return -1;
  if (V_unlink(path) == 0) return 0;
  if (V_access(path, 0) != 0) return -1;
  gen_make_writable(path);
  return V_unlink(path);
}

bool gen_remove_file_if(const char* path, const std::function<bool(const char*)>& isMeant) {
  gen_text aside;
  if (!isMeant(path) || !nameBeside(path, aside) || renamed(path, aside) != 0) return false;
  if (isMeant(aside)) return V_unlink(aside) == 0;
  renamed(aside, path);
  return false;
}

int gen_touch(const char* path) {
  if (V_access(path, 0) != 0) {
    const int descriptor = V_creat(path, 0666);
    if (descriptor < 0) return -1;
    return platform::closeDescriptor(descriptor) == 0 ? 0 : -1;
  }
  // An empty file has no byte to rewrite.
  if (gen_file_size(path) == 0) return platform::touchFile(path) < 0 ? -1 : 0;
  return rewroteFirstByte(path) ? 0 : -1;
}

int gen_files_differ(const char* a, const char* b) {
  const Stream first = openedToRead(a), second = openedToRead(b);
  if (!first || !second) {
    gen_error("Could not open file: %s", first ? b : a);
    return -1;
  }
  if (gen_file_size(a) != gen_file_size(b)) return 1;
  char blockA[kCompareBlock], blockB[kCompareBlock];
  std::size_t count;
  do {
    count = std::fread(blockA, 1, kCompareBlock, first.get());
    const std::size_t other = std::fread(blockB, 1, kCompareBlock, second.get());
    if (std::ferror(first.get()) || std::ferror(second.get())) {
      gen_error("Could not open file: %s", std::ferror(first.get()) ? a : b);
      return -1;
    }
    if (count != other || std::memcmp(blockA, blockB, count) != 0) return 1;
  } while (count > 0);
  return 0;
}

std::int64_t gen_free_disk_space(const char* path) {
  if (!path) return -1;
  const gen_text directory = gen_directory_name(path);
  const std::int64_t result = platform::freeDiskSpace(directory ? directory.get() : ".");
  return result < 0 ? -1 : result;
}

unsigned gen_make_read_only(const char* path) {
  return changeMode(path, 0222, 0);
}

unsigned gen_make_writable(const char* path) {
  return changeMode(path, 0, 0200);
}

unsigned gen_make_executable(const char* path) {
  return changeMode(path, 0, 0111);
}
