#include "indgen/path.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "indgen/text.h"

char gen_preferred_separator = '/';
char gen_extension_separator = '.';

namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool hasDrive(const char* path) {
  return path[0] != '\0' && path[1] == ':';
}

bool endsOpen(const char* directory) {
  const char last = directory[std::strlen(directory) - 1];
  return gen_is_separator(last) || last == ':';
}

gen_text joined(const char* directory, const char* name) {
  const char separator = endsOpen(directory) ? '\0' : gen_preferred_separator;
  gen_text result = gen_concat_char(directory, separator, name);
  gen_clean_path(result.data());
  return *result ? std::move(result) : gen_strdup(".");
}

// A pair of these characters is the least that can hold something to take out.
bool mayHoldRelatives(const char* path) {
  const auto counts = [](char c) { return c == '/' || c == '.'; };
  for (; *path; ++path)
    if (counts(path[0]) && counts(path[1])) return true;
  return false;
}

// Rewrites the `/`-separated components behind the root in place; the result is never longer.
void takeOutRelatives(char* path) {
  char* end = path;
  // Where the names that a `..` can take back begin: behind the `..` that stayed.
  char* floor = path;
  // Closing the last component may overwrite the zero that ends the path.
  const char* const pathEnd = path + std::strlen(path);
  const bool endedOpen = pathEnd > path && pathEnd[-1] == '/';
  for (const char* from = path; from < pathEnd;) {
    const char* stop = std::find(from, pathEnd, '/');
    const std::string_view component(from, static_cast<std::size_t>(stop - from));
    const bool up = component == "..";
    if (up && end > floor) {
      // Back over the last name and the `/` behind it.
      --end;
      while (end > floor && end[-1] != '/') --end;
    } else if (!component.empty() && component != ".") {
      std::memmove(end, component.data(), component.size());
      end += component.size();
      *end++ = '/';
      if (up) floor = end;
    }
    from = stop + 1;
  }
  if (end > path && !endedOpen) --end;
  *end = '\0';
}

// The start of the base name's extension, its separator included, or null.
const char* extensionMark(const char* path) {
  return std::strrchr(gen_base_name(path), gen_extension_separator);
}

const char* withoutMark(const char* extension) {
  return *extension == gen_extension_separator ? extension + 1 : extension;
}

}  // namespace

bool gen_is_separator(char c) {
  return c == '/' || c == '\\';
}

gen_text gen_join(const char* directory, const char* name) {
  if (!directory || !*directory) return gen_strdup(name);
  if (name && *name != '~' && gen_is_absolute(name)) return gen_strdup(name);
  return joined(directory, name);
}

gen_text gen_join_relative(const char* directory, const char* name) {
  if (!directory || !*directory) return gen_strdup(name);
  if (!name || !*name) return gen_strdup(directory);
  if (gen_is_absolute(name)) return gen_strdup(name);
  return joined(directory, name);
}

void gen_clean_path(char* path, bool host_form) {
  if (!path) return;
  char* rest = path;
  if (host_form) {
    std::replace(path, path + std::strlen(path), '\\', '/');
    if (path[0] == '/' && path[1] == '/' && path[2] && path[2] != '/') {
      rest = path + 2 + std::strcspn(path + 2, "/");
    } else if (isLetter(path[0]) && path[1] == ':') {
      path[0] = gen_upper_char(path[0]);
      rest = path + 2;
    }
  }
  if (mayHoldRelatives(rest)) takeOutRelatives(*rest == '/' ? rest + 1 : rest);
  if (host_form) std::replace(path, path + std::strlen(path), '/', gen_preferred_separator);
}

const char* gen_base_name(const char* path) {
  if (!path) return nullptr;
  const char* base = path;
  for (; *path; ++path)
    if (gen_is_separator(*path) || *path == ':') base = path + 1;
  return base;
}

gen_text gen_directory_name(const char* path) {
  const char* base = gen_base_name(path);
  if (base == path) return {};
  std::ptrdiff_t length = base - path - 1;
  const bool root = length == 0 || (length == 2 && hasDrive(path));
  if (root || path[length] == ':') ++length;
  return gen_strndup(path, length);
}

bool gen_is_absolute(const char* path) {
  return path && (gen_is_separator(*path) || *path == '~' || hasDrive(path));
}

const char* gen_extension(const char* path) {
  const char* base = gen_base_name(path);
  if (!base) return nullptr;
  const char* mark = extensionMark(path);
  if (!mark) return nullptr;
  const char* extension = mark + 1;
  // The least that can stand before the second number is "x.so.1.".
  if (!gen_is_digit(*extension) || extension - base < 7) return extension;
  const char* number = mark;
  while (number > base && gen_is_digit(number[-1])) --number;
  if (number == mark || number - base < 5) return extension;
  for (const char* library : {"so", "sa"}) {
    const char kind[] = {gen_extension_separator, library[0], library[1], gen_extension_separator};
    if (std::memcmp(number - 4, kind, sizeof kind) == 0) return library;
  }
  return extension;
}

bool gen_has_extension(const char* path, const char* extension) {
  const char* own = gen_extension(path);
  if (!own || !extension) return own != nullptr;
  return gen_equal_nocase(own, withoutMark(extension));
}

gen_text gen_replace_extension(const char* path, const char* extension) {
  if (!path) return {};
  const char* mark = extensionMark(path);
  gen_text stem = mark ? gen_strndup(path, mark - path) : gen_strdup(path);
  if (!extension) return stem;
  return gen_concat_char(stem, gen_extension_separator, withoutMark(extension));
}

gen_text gen_add_extension(const char* path, const char* extension) {
  if (!path || !extension) return gen_strdup(path);
  const std::size_t length = std::strlen(path);
  const bool marked = length > 0 && path[length - 1] == gen_extension_separator;
  return gen_concat_char(path, marked ? '\0' : gen_extension_separator, withoutMark(extension));
}

namespace {

const char* firstName(const char* path) {
  while (gen_is_separator(*path)) ++path;
  return path;
}

const char* behindName(const char* name) {
  const char* end = name + std::strcspn(name, "/\\:");
  return *end == ':' ? end + 1 : end;
}

}  // namespace

gen_text gen_first_component(const char* path) {
  if (!path) return {};
  const char* name = firstName(path);
  return *name ? gen_strndup(name, behindName(name) - name) : gen_text();
}

const char* gen_rest_components(const char* path) {
  return path ? behindName(firstName(path)) : nullptr;
}

const char* gen_next_path_item(const char* list, char* buffer, std::size_t size) {
  if (!list || !*list) return nullptr;
  const std::size_t length = std::strcspn(list, ":");
  if (buffer && size > 0) {
    const std::size_t kept = std::min(length, size - 1);
    std::memcpy(buffer, list, kept);
    buffer[kept] = '\0';
  }
  return list[length] ? list + length + 1 : list + length;
}

bool gen_is_root(const char* path, std::size_t length) {
  if (!path) return false;
  length = strnlen(path, length);
  if (length >= 2 && isLetter(path[0]) && path[1] == ':')
    return length == 2 || (length == 3 && gen_is_separator(path[2]));
  if (length < 5 || !gen_is_separator(path[0]) || !gen_is_separator(path[1])) return false;
  const std::string_view names(path + 2, length - 2);
  const std::size_t server = names.find_first_of("/\\");
  if (server == 0 || server == std::string_view::npos) return false;
  const std::string_view share = names.substr(server + 1);
  const std::size_t end = share.find_first_of("/\\");
  return end == std::string_view::npos ? !share.empty() : end > 0 && end + 1 == share.size();
}
