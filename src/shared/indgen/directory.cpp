#include "indgen/directory.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "indgen/access.h"
#include "indgen/path.h"
#include "indgen/text.h"
#include "indgen/viewpath.h"
#include "indgen/whole_file.h"

namespace {

// Without the separators at its end, but never nothing.
gen_text trimmed(const char* path) {
  std::size_t length = std::strlen(path);
  while (length > 1 && gen_is_separator(path[length - 1])) --length;
  return gen_strndup(path, static_cast<std::ptrdiff_t>(length));
}

bool isDots(const char* name) {
  return name[0] == '.' && (!name[1] || (name[1] == '.' && !name[2]));
}

bool isWanted(const gen_dir_walker& walker) {
  if (!walker.is_directory)
    return !walker.skip_files &&
           (!walker.extension || gen_has_extension(walker.name, walker.extension));
  if (walker.skip_directories) return false;
  if (walker.skip_dots && isDots(walker.name)) return false;
  return !(walker.skip_cvs && std::strcmp(walker.name, "CVS") == 0);
}

bool isDirectoryEntry(const gen_dir_walker& walker) {
  using Kind = platform::DirectoryReader::Kind;
  const Kind kind = walker.reader.kind();
  if (kind != Kind::unknown && !gen_viewpath_active()) return kind == Kind::directory;
  // Not gen_is_directory: a backslash at the end of this name is a part of it.
  platform::FileStatus status;
  return V_stat(walker.path, &status) == 0 && status.kind == platform::FileKind::directory;
}

bool isRealDirectory(const char* path) {
  platform::FileStatus status;
  return platform::linkStatus(path, status) == 0 && status.kind == platform::FileKind::directory;
}

}  // namespace

bool gen_is_directory(const char* path) {
  if (!path || !*path) return false;
  const std::size_t length = std::strlen(path);
  const bool open = gen_is_separator(path[length - 1]);
  gen_text asked;
  if (gen_is_root(path, length))
    asked = gen_concat(path, open ? "" : "/");
  else
    asked =
        gen_strndup(path, static_cast<std::ptrdiff_t>(open && length > 1 ? length - 1 : length));
  platform::FileStatus status;
  return V_stat(asked, &status) == 0 && status.kind == platform::FileKind::directory;
}

int gen_make_directory(const char* path, unsigned mode) {
  if (gen_plain_result(platform::makeDirectory(path, mode)) == 0) return 0;
  const int failure = errno;
  if (gen_is_directory(path)) return 0;
  errno = failure;
  return -1;
}

int gen_make_directory_path(const char* path, unsigned mode) {
  if (!path || !*path) return -1;
  if (gen_is_directory(path)) return 0;
  const gen_text own = trimmed(path);
  // Unlike gen_directory_name, which would make a directory of the part of a name before a `:`.
  const auto whole = static_cast<std::ptrdiff_t>(std::strlen(own));
  std::ptrdiff_t cut = whole;
  while (cut > 0 && !gen_is_separator(own.get()[cut - 1])) --cut;
  const bool hasParent = cut > 0 && cut < whole;
  if (hasParent && gen_make_directory_path(gen_strndup(own, cut), mode) != 0) return -1;
  return gen_make_directory(own, mode);
}

bool gen_walk_open(gen_dir_walker& walker, const char* directory) {
  gen_walk_close(walker);
  gen_walk_filter_files(walker, false, nullptr);
  gen_walk_filter_directories(walker, false, true, false);
  if (!gen_is_directory(directory) || walker.reader.open(directory) != 0) return false;
  walker.directory = gen_strdup(directory);
  return true;
}

void gen_walk_filter_files(gen_dir_walker& walker, bool skip_files, const char* extension) {
  walker.skip_files = skip_files;
  walker.extension = gen_strdup(extension);
}

void gen_walk_filter_directories(gen_dir_walker& walker, bool skip_directories, bool skip_dots,
                                 bool skip_cvs) {
  walker.skip_directories = skip_directories;
  walker.skip_dots = skip_dots;
  walker.skip_cvs = skip_cvs;
}

const char* gen_walk_next(gen_dir_walker& walker) {
  while ((walker.name = walker.reader.next())) {
    const char* directory = walker.directory;
    const bool open = gen_is_separator(directory[std::strlen(directory) - 1]);
    walker.path = gen_concat_char(directory, open ? '\0' : gen_preferred_separator, walker.name);
    walker.is_directory = isDirectoryEntry(walker);
    if (isWanted(walker)) return walker.path;
  }
  walker.path = gen_text();
  return nullptr;
}

void gen_walk_close(gen_dir_walker& walker) {
  walker.reader.close();
  walker.directory = gen_text();
  walker.path = gen_text();
  walker.extension = gen_text();
  walker.name = nullptr;
}

int gen_list_directory(const char* directory, std::vector<gen_text>* array) {
  int count = 0;
  gen_dir_walker walker;
  if (array) array->clear();
  if (array) array->reserve(32);
  if (gen_walk_open(walker, directory)) {
    for (; gen_walk_next(walker); ++count)
      if (array) array->push_back(std::move(walker.path));
  }
  if (array) array->emplace_back();
  return count;
}

bool gen_directory_is_empty(const char* directory) {
  gen_dir_walker walker;
  return !gen_walk_open(walker, directory) || !gen_walk_next(walker);
}

int gen_empty_directory(const char* path) {
  if (!gen_is_directory(path)) return -1;
  std::vector<gen_text> entries;
  int result = 0;
  const int count = gen_list_directory(path, &entries);
  for (int i = 0; i < count; ++i)
    if (gen_remove_tree(entries[static_cast<std::size_t>(i)]) != 0) result = -1;
  return result;
}

int gen_remove_tree(const char* path) {
  // What a link leads to belongs to somebody else.
  const gen_text own = path ? trimmed(path) : gen_text();
  if (!isRealDirectory(own)) return V_unlink(own);
  const int emptied = gen_empty_directory(own);
  const int removed = gen_plain_result(platform::removeDirectory(own));
  return emptied == 0 ? removed : -1;
}
