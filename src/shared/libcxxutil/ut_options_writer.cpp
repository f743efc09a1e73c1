#include "libcxxutil/ut_options_writer.h"

#include <string>

#include "indgen/text.h"
#include "libcxxutil/ut_macro_syntax.h"

namespace {

constexpr const char* kIndent = "    ";
constexpr std::size_t kIndentWidth = 4;

void put(std::FILE* stream, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stream);
}

// A quoted text that the reader takes for this one: it would end a string at a line end, and
// look for a macro behind a `$`.
std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char* at = text.c_str(); *at; ++at) {
    const bool macro = at[0] == '$' && (at[1] == '{' || ut_starts_name(at[1]));
    if (macro || *at == '\\' || *at == '"' || *at == '\'' || *at == '\n' || *at == '\r')
      result += '\\';
    result += *at == '\n' ? 'n' : *at == '\r' ? 'r' : *at;
  }
  return result += '"';
}

std::string written(const std::string& name) {
  for (const char c : name)
    if (!gen_is_alnum(c)) return quoted(name);
  return name;
}

std::string shown(const std::string& item) {
  return quoted(item);
}

std::string shown(std::int32_t item) {
  return std::to_string(item);
}

template <class Node>
std::string listed(const Node* node) {
  std::string result = "{ ";
  for (; node; node = node->next.get()) result += shown(node->value) + (node->next ? ", " : " }");
  return result;
}

std::string valueOf(const ut_attribute& a) {
  if (const auto* text = a.as<std::string>()) return shown(*text);
  if (const auto* number = a.as<std::int32_t>()) return shown(*number);
  if (const ut_str_node* list = ut_attribute_list::attribute_str_list(&a)) return listed(list);
  return listed(ut_attribute_list::attribute_int32_list(&a));
}

std::string flatValueOf(const ut_attribute& a) {
  const bool isList =
      a.type() == ut_attribute_type::str_list || a.type() == ut_attribute_type::int32_list;
  return isList ? "..." : valueOf(a);
}

// Goes through the blocks below `root` in order, by their links, so that depth costs no stack.
template <class Enter, class Leave>
void walk(const ut_attribute_list& root, const Enter& enter, const Leave& leave) {
  const ut_attribute_list* node = root.first_child();
  while (node) {
    enter(*node);
    if (node->first_child()) {
      node = node->first_child();
      continue;
    }
    leave(*node);
    while (!node->next_sibling() && node->parent() != &root) {
      node = node->parent();
      leave(*node);
    }
    node = node->next_sibling();
  }
}

template <class Put>
void eachAttribute(const ut_attribute_list& node, const Put& putAttribute) {
  for (const ut_attribute* a = node.first_attribute(); a; a = node.next_attribute(a))
    putAttribute(*a);
}

}  // namespace

void ut_write_blocks(const ut_attribute_list& root, std::FILE* stream) {
  std::string indent;
  const auto putAttribute = [&](const ut_attribute& a) {
    put(stream, indent + written(a.name()) + " = " + valueOf(a) + "\n");
  };
  eachAttribute(root, putAttribute);
  walk(
      root,
      [&](const ut_attribute_list& node) {
        put(stream, indent + written(node.name()) + " {\n");
        indent += kIndent;
        eachAttribute(node, putAttribute);
      },
      [&](const ut_attribute_list&) {
        indent.resize(indent.size() - kIndentWidth);
        put(stream, indent + "}\n");
      });
}

void ut_write_flat(const ut_attribute_list& root, std::FILE* stream) {
  std::string path;
  const auto putAttribute = [&](const ut_attribute& a) {
    put(stream, path + (path.empty() ? "" : ".") + a.name() + "=" + flatValueOf(a) + "\n");
  };
  eachAttribute(root, putAttribute);
  walk(
      root,
      [&](const ut_attribute_list& node) {
        if (!path.empty()) path += '.';
        path += node.name();
        eachAttribute(node, putAttribute);
      },
      [&](const ut_attribute_list& node) {
        path.resize(path.size() - std::string_view(node.name()).size());
        if (!path.empty()) path.pop_back();
      });
}
