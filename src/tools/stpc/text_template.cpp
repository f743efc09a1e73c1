#include "tools/stpc/text_template.h"

#include <cstdio>
#include <cstdlib>
#include <set>

namespace stpc {
namespace {

[[noreturn]] void failTemplate(const char* what, std::string_view name) {
  std::fprintf(stderr, "stpc: template %s: \"%.*s\"\n", what, static_cast<int>(name.size()),
               name.data());
  std::abort();
}

}  // namespace

std::string fillTemplate(std::string_view text, TemplateValues values) {
  std::string filled;
  std::set<std::string_view> used;
  while (true) {
    const std::size_t gap = text.find("${");
    filled += text.substr(0, gap);
    if (gap == std::string_view::npos) break;
    text.remove_prefix(gap + 2);
    const std::size_t end = text.find('}');
    if (end == std::string_view::npos) failTemplate("has a gap without an end", text);
    const std::string_view name = text.substr(0, end);
    text.remove_prefix(end + 1);
    const auto* value = values.begin();
    while (value != values.end() && value->first != name) ++value;
    if (value == values.end()) failTemplate("lacks a value for", name);
    used.insert(name);
    filled += value->second;
  }
  for (const auto& value : values)
    if (!used.contains(value.first)) failTemplate("has no gap for", value.first);
  return filled;
}

}  // namespace stpc
