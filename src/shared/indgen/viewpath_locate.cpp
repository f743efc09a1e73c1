#include "indgen/viewpath_locate.h"

#include <cerrno>
#include <cstring>

#include "indgen/access.h"
#include "indgen/report.h"
#include "indgen/text.h"
#include "indgen/viewpath.h"
#include "platform/file.h"
#include "platform/socket.h"

namespace {

constexpr std::size_t kCopyBlock = 8192;
constexpr unsigned kAllWrite = 0222;
constexpr unsigned kAnyDirectory = 0777;

int askExistence(const char* name) {
  return platform::testAccess(name, 0);
}

bool isHere(const char* path) {
  return askExistence(path) == 0;
}

class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { close(); }

  int get() const { return value_; }
  /// 0, or a negative error number if it wasn't open or what was written is lost.
  int close() {
    const int result = value_ < 0 ? value_ : platform::closeDescriptor(value_);
    value_ = -EBADF;
    return result;
  }

 private:
  int value_;
};

// 0, or a negative error number. Interrupted transfers go on inside the platform.
int copyAll(int from, int to) {
  char block[kCopyBlock];
  for (;;) {
    const long count = platform::readDescriptor(from, block, sizeof block);
    if (count <= 0) return static_cast<int>(count);
    const long written = platform::writeDescriptor(to, block, static_cast<unsigned long>(count));
    if (written < 0) return static_cast<int>(written);
    if (written < count) return -ENOSPC;
  }
}

int copyInto(const char* path) {
  const gen_text directory = V_directory_of(path);
  if (!isHere(directory)) {
    if (V_access(directory, 0) != 0) return -errno;
    if (V_make_shadow_directory(directory) != 0) return -errno;
  }
  platform::FileStatus status;
  const Descriptor source(V_open(path, platform::openRead));
  if (source.get() < 0 || V_stat(path, &status) != 0) return -errno;
  using platform::openCreate, platform::openWrite;
  Descriptor target(platform::openFile(path, openWrite | openCreate, status.mode | kAllWrite));
  if (target.get() < 0) return target.get();
  const int copied = copyAll(source.get(), target.get());
  const int closed = target.close();
  return copied != 0 ? copied : closed;
}

}  // namespace

gen_text V_from_root(const char* path) {
  const bool rooted = path && path[0] == '^' && (path[1] == '/' || !path[1]);
  return rooted ? gen_concat(gen_the_view.root, path + 1) : gen_strdup(path);
}

gen_text V_relative_path(const char* path) {
  const gen_view& view = gen_the_view;
  if (!path || (*path != '/' && !view.working_directory)) return {};
  gen_text joined;
  if (*path != '/') {
    joined = gen_concat3(view.working_directory, "/", path);
    V_compath(joined.data());
    path = joined;
  }
  const char* rest = V_rest_below(path, view.root);
  if (!rest) rest = V_rest_below(path, view.alternate_root);
  return gen_strdup(rest);
}

gen_text V_search(const char* path, const std::function<int(const char*)>& ask, bool persistent) {
  const gen_text relative = V_relative_path(path);
  if (!relative) return {};
  for (std::size_t i = 1; i < static_cast<std::size_t>(gen_the_view.node_count); ++i) {
    gen_text name = gen_concat3(gen_the_view.nodes[i], "/", relative);
    const int answer = ask(name);
    if (answer == 0) return name;
    errno = -answer;
    if (!persistent && errno != ENOENT && errno != ENOTDIR) break;
  }
  return {};
}

gen_text V_locate(const char* path, V_how how) {
  if (!gen_viewpath_active()) return gen_strdup(path);
  gen_text name = V_from_root(path);
  if (how == V_UNCHANGED || isHere(name)) return name;
  if (how == V_FOR_WRITING) {
    V_copy_up(name);
    return name;
  }
  gen_text found = V_search(name, askExistence);
  if (!found) return name;
  if (viewpath_debug) gen_info("Located file: %s", found.get());
  return found;
}

int V_copy_up(const char* path) {
  if (isHere(path)) return 0;
  const int result = copyInto(path);
  if (result == 0) {
    if (viewpath_debug) gen_info("Copied file to %s", path);
    return 0;
  }
  errno = -result;
  if (viewpath_debug) gen_errno_report("Unable to copy file to %s", path ? path : "");
  platform::removeFile(path);
  errno = -result;
  return -1;
}

gen_text V_directory_of(const char* path) {
  const char* last = path ? std::strrchr(path, '/') : nullptr;
  if (!last) return gen_strdup(".");
  return gen_strndup(path, last == path ? 1 : last - path);
}

int V_make_shadow_directory(const char* path) {
  const gen_text parent = V_directory_of(path);
  if (!isHere(parent) && std::strcmp(parent, path) != 0 && V_make_shadow_directory(parent) != 0)
    return -1;
  platform::FileStatus status;
  status.mode = kAnyDirectory;
  const auto askStatus = [&status](const char* name) { return platform::fileStatus(name, status); };
  V_search(path, askStatus, true);
  const int result = platform::makeDirectory(path, status.mode);
  if (result == 0) return 0;
  errno = -result;
  return -1;
}
