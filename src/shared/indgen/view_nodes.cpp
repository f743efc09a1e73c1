#include "indgen/view_nodes.h"

#include <array>
#include <string>

#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/text.h"
#include "indgen/viewpath.h"
#include "indgen/viewpath_locate.h"
#include "platform/file.h"

namespace {

constexpr const char* kSeparators = "/\\";

struct ViewNodes {
  std::array<gen_text, gen_view_limit> resolved, written;
  int count = 0;
  bool unresolved_view_nodes = false;
};
ViewNodes nodes;
bool usesViewpath = false;

void addEntry(std::string item) {
  const std::size_t last = item.find_last_not_of(kSeparators);
  item.resize(last == std::string::npos ? 1 : last + 1);
  const auto place = static_cast<std::size_t>(nodes.count++);
  std::string resolved;
  if (platform::resolvePath(item.c_str(), resolved) != 0) {
    resolved = item;
    nodes.unresolved_view_nodes = true;
  }
  nodes.resolved[place] = gen_strdup(resolved.c_str());
  if (item[0] == '/' && item != resolved) nodes.written[place] = gen_strdup(item.c_str());
}

}  // namespace

int gen_set_view_nodes(const char* text) {
  nodes = ViewNodes();
  std::string item;
  while (nodes.count < gen_view_limit && V_next_item(text, ":;,", item)) addEntry(item);
  return nodes.count;
}

int gen_view_nodes(const gen_text** resolved, const gen_text** written) {
  if (resolved) *resolved = nodes.resolved.data();
  if (written) *written = nodes.written.data();
  return nodes.count;
}

void gen_use_viewpath_nodes() {
  usesViewpath = true;
}

gen_text gen_view_relative_path(const char* path, int* index) {
  int unused;
  int& entry = index ? *index : unused;
  if (usesViewpath && gen_viewpath_active()) {
    entry = 0;
    return V_relative_path(path);
  }
  entry = -1;
  if (!path || nodes.count == 0) return {};
  gen_text joined;
  if (*path != '/' && !nodes.unresolved_view_nodes) {
    joined = gen_concat3(gen_getcwd(), "/", path);
    gen_clean_path(joined.data(), false);
    path = joined;
  }
  for (int i = 0; i < nodes.count; ++i) {
    const auto place = static_cast<std::size_t>(i);
    const char* rest = V_rest_below(path, nodes.resolved[place], kSeparators);
    if (!rest) rest = V_rest_below(path, nodes.written[place], kSeparators);
    if (!rest) continue;
    entry = i;
    return gen_strdup(rest);
  }
  return {};
}
