#include "indgen/viewpath_text.h"

#include <cstring>
#include <string_view>

#include "indgen/path.h"
#include "indgen/report.h"
#include "indgen/text.h"

namespace {

enum class Outcome { done, tooMany };

// Writes the reduced form over the text that is read, which is never shorter.
class Reduction {
 public:
  Reduction(char* path, bool stopsBehindRemoval)
      : path_(path), to_(path), stopsBehindRemoval_(stopsBehindRemoval) {}

  Outcome run() {
    const char* from = path_;
    rooted_ = *from == '/';
    if (rooted_) ++to_;
    for (;;) {
      from += std::strspn(from, "/");
      const std::string_view name(from, std::strcspn(from, "/"));
      if (name.empty()) break;
      if (name == ".") {
        removed_ = true;
      } else if (name == ".." && names_ > 0) {
        dropLast();
        removed_ = true;
      } else if (removed_ && stopsBehindRemoval_ && name != "..") {
        appendRest(from);
        return Outcome::done;
      } else if (components_ == gen_view_limit) {
        appendRest(from);
        return Outcome::tooMany;
      } else {
        append(name);
      }
      from += name.size();
    }
    close();
    return Outcome::done;
  }

 private:
  void separate() {
    if (components_ > 0) *to_++ = '/';
  }
  void append(std::string_view name) {
    // A `..` that stays can't be taken back, and so ends what is before it.
    names_ = name == ".." ? 0 : names_ + 1;
    separate();
    starts_[components_++] = to_;
    std::memmove(to_, name.data(), name.size());
    to_ += name.size();
  }
  void dropLast() {
    to_ = starts_[--components_];
    if (components_ > 0) --to_;
    --names_;
  }
  void appendRest(const char* rest) {
    separate();
    std::memmove(to_, rest, std::strlen(rest) + 1);
  }
  void close() {
    if (to_ == path_) *to_++ = '.';
    *to_ = '\0';
  }

  char* const path_;
  char* to_;
  const bool stopsBehindRemoval_;
  bool rooted_ = false, removed_ = false;
  char* starts_[gen_view_limit] = {};
  int components_ = 0;
  int names_ = 0;  // components at the end that a `..` takes back
};

}  // namespace

bool V_next_item(const char*& list, const char* separators, std::string& item) {
  if (!list) return false;
  list += std::strspn(list, separators);
  if (!*list) return false;
  const bool drive = gen_is_alnum(list[0]) && list[1] == ':' && gen_is_separator(list[2]);
  const std::size_t prefix = drive ? 2 : 0;
  item.assign(list, prefix + std::strcspn(list + prefix, separators));
  list += item.size();
  return true;
}

const char* V_rest_below(const char* path, const char* tree, const char* separators) {
  if (!path || !tree || !*tree) return nullptr;
  std::size_t length = std::strlen(tree);
  while (length > 0 && std::strchr(separators, tree[length - 1])) --length;
  if (std::strncmp(path, tree, length) != 0) return nullptr;
  const char* rest = path + length;
  if (*rest && !std::strchr(separators, *rest)) return nullptr;
  rest += std::strspn(rest, separators);
  return *rest ? rest : ".";
}

void V_compath(char* path) {
  if (path && Reduction(path, false).run() == Outcome::tooMany)
    gen_error("[V_compath]: too many directory components for \"%s\"", path);
}

void V2_compath(char* path) {
  if (!path || *path != '/')
    gen_exit_message(1, "INTERNAL ERROR: libvp: chdir: compath2: (1) [%s] not absolute path",
                     path ? path : "");
  if (Reduction(path, true).run() == Outcome::tooMany)
    gen_error("[V2_compath]: too many directory components for \"%s\"", path);
}
