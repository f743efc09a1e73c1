// Reading the attributes of a block.
#include <cstring>

#include "indgen/number.h"
#include "indgen/quote.h"
#include "indgen/report.h"
#include "indgen/text.h"
#include "libcxxutil/ut_attribute_list.h"

namespace {

using StrList = ut_value_list<std::string>;
using Int32List = ut_value_list<std::int32_t>;

const char* textOr(const ut_attribute* a, const char* fallback) {
  const char* text = a ? ut_attribute_list::attribute_str(a) : nullptr;
  return text ? text : fallback;
}

std::int32_t numberOr(const ut_attribute* a, std::int32_t fallback) {
  const std::int32_t* number = a ? a->as<std::int32_t>() : nullptr;
  return number ? *number : fallback;
}

template <class List>
auto listOr(const ut_attribute* a, decltype(std::declval<List>().head()) fallback) {
  const List* list = a ? a->as<List>() : nullptr;
  return list ? list->head() : fallback;
}

bool isTrueWord(const char* text) {
  while (gen_is_space(*text)) ++text;
  for (const char* word : {"yes", "on", "1", "true"})
    if (gen_equal_nocase(text, word)) return true;
  return false;
}

}  // namespace

const char* ut_attribute_list::require_str(const char* name, const char* fallback) const {
  return textOr(require(name, ut_attribute_type::str), fallback);
}

const char* ut_attribute_list::str_value(const char* name, const char* fallback) const {
  return textOr(find(name), fallback);
}

std::int32_t ut_attribute_list::require_int32(const char* name, std::int32_t fallback) const {
  return numberOr(require(name, ut_attribute_type::int32), fallback);
}

std::int32_t ut_attribute_list::int32_value(const char* name, std::int32_t fallback) const {
  return numberOr(find(name), fallback);
}

bool ut_attribute_list::require_bool(const char* name, bool fallback) const {
  const ut_attribute* a = find(name);
  if (!a) {
    warnMissing(name, ut_attribute_type::int32);
    return fallback;
  }
  if (const char* text = attribute_str(a)) return isTrueWord(text);
  return numberOr(a, 0) != 0;
}

bool ut_attribute_list::bool_value(const char* name, bool fallback) const {
  return numberOr(find(name), fallback ? 1 : 0) != 0;
}

const ut_str_node* ut_attribute_list::require_str_list(const char* name,
                                                       const ut_str_node* fallback) const {
  return listOr<StrList>(require(name, ut_attribute_type::str_list), fallback);
}

const ut_str_node* ut_attribute_list::str_list_value(const char* name,
                                                     const ut_str_node* fallback) const {
  return listOr<StrList>(find(name), fallback);
}

const ut_int32_node* ut_attribute_list::require_int32_list(const char* name,
                                                           const ut_int32_node* fallback) const {
  return listOr<Int32List>(require(name, ut_attribute_type::int32_list), fallback);
}

const ut_int32_node* ut_attribute_list::int32_list_value(const char* name,
                                                         const ut_int32_node* fallback) const {
  return listOr<Int32List>(find(name), fallback);
}

const char* ut_attribute_list::require_filename(const char* name, const char* fallback) const {
  const ut_attribute* a = require(name, ut_attribute_type::str);
  return a ? checkedFilename(name, textOr(a, fallback)) : fallback;
}

const char* ut_attribute_list::filename_value(const char* name, const char* fallback) const {
  const char* value = str_value(name);
  return value ? checkedFilename(name, value) : fallback;
}

gen_text ut_attribute_list::require_quoted_str(const char* name, const char* fallback) const {
  const char* value = require_str(name);
  return value ? gen_quote(value) : gen_strdup(fallback);
}

gen_text ut_attribute_list::require_escaped_str(const char* name, const char* fallback) const {
  const char* value = require_str(name);
  return value ? gen_escape(value) : gen_strdup(fallback);
}

std::int32_t ut_attribute_list::int32_or_parsed(const char* name, std::int32_t fallback) const {
  const ut_attribute* a = find(name);
  if (!a) warnMissing(name, ut_attribute_type::int32);
  return parsedOr(a, fallback);
}

std::int32_t ut_attribute_list::int32_or_parsed_quiet(const char* name,
                                                      std::int32_t fallback) const {
  return parsedOr(find(name), fallback);
}

const char* ut_attribute_list::child_require_str(const char* child, const char* name,
                                                 const char* fallback) const {
  const ut_attribute_list* node = find_child(child);
  return node ? node->require_str(name, fallback) : fallback;
}

const char* ut_attribute_list::child_require_str(const char* child, const char* grandchild,
                                                 const char* name, const char* fallback) const {
  const ut_attribute_list* node = find_child(child, grandchild);
  return node ? node->require_str(name, fallback) : fallback;
}

const char* ut_attribute_list::child_str_value(const char* child, const char* name,
                                               const char* fallback) const {
  const ut_attribute_list* node = find_child(child);
  return node ? node->str_value(name, fallback) : fallback;
}

std::int32_t ut_attribute_list::child_require_int32(const char* child, const char* name,
                                                    std::int32_t fallback) const {
  const ut_attribute_list* node = find_child(child);
  return node ? node->require_int32(name, fallback) : fallback;
}

std::int32_t ut_attribute_list::child_require_int32(const char* child, const char* grandchild,
                                                    const char* name, std::int32_t fallback) const {
  const ut_attribute_list* node = find_child(child, grandchild);
  return node ? node->require_int32(name, fallback) : fallback;
}

std::int32_t ut_attribute_list::child_int32_value(const char* child, const char* name,
                                                  std::int32_t fallback) const {
  const ut_attribute_list* node = find_child(child);
  return node ? node->int32_value(name, fallback) : fallback;
}

bool ut_attribute_list::child_bool_value(const char* child, const char* name, bool fallback) const {
  const ut_attribute_list* node = find_child(child);
  return node ? node->bool_value(name, fallback) : fallback;
}

const ut_attribute* ut_attribute_list::first_attribute() const {
  return attributes_.empty() ? nullptr : attributes_.data();
}

const ut_attribute* ut_attribute_list::next_attribute(const ut_attribute* a) const {
  return a && a != &attributes_.back() ? a + 1 : nullptr;
}

const char* ut_attribute_list::attribute_str(const ut_attribute* a) {
  const std::string* text = a->as<std::string>();
  return text ? text->c_str() : nullptr;
}

std::int32_t ut_attribute_list::attribute_int32(const ut_attribute* a) {
  return numberOr(a, -1);
}

const ut_str_node* ut_attribute_list::attribute_str_list(const ut_attribute* a) {
  return listOr<StrList>(a, nullptr);
}

const ut_int32_node* ut_attribute_list::attribute_int32_list(const ut_attribute* a) {
  return listOr<Int32List>(a, nullptr);
}

ut_attribute_list::Strings ut_attribute_list::attribute_strings(const ut_attribute* a, bool copy,
                                                                int* count) {
  Strings result;
  if (const char* text = attribute_str(a)) result.texts.push_back(text);
  for (const ut_str_node* node = attribute_str_list(a); node; node = node->next.get())
    result.texts.push_back(node->value.c_str());
  if (count) *count = static_cast<int>(result.texts.size());
  if (result.texts.empty()) return result;
  if (copy) {
    result.copies.assign(result.texts.begin(), result.texts.end());
    result.texts.clear();
    for (const std::string& text : result.copies) result.texts.push_back(text.c_str());
  }
  result.texts.push_back(nullptr);
  return result;
}

// The attribute of this name and kind; null, with a warning, if there is none.
const ut_attribute* ut_attribute_list::require(const char* name, ut_attribute_type type) const {
  const ut_attribute* a = find(name);
  if (a && a->type() == type) return a;
  warnMissing(name, type);
  return nullptr;
}

void ut_attribute_list::warnMissing(const char* name, ut_attribute_type type) const {
  gen_warning("\"%s\": is missing required %s attribute \"%s\"", full_name(true).c_str(),
              ut_attribute_type_word(type), name ? name : "");
}

const char* ut_attribute_list::checkedFilename(const char* name, const char* value) const {
  const bool letter = gen_is_alnum(value[0]) && !(value[0] >= '0' && value[0] <= '9');
  if (letter && value[1] == ':' && value[2] != '/' && value[2] != '\\')
    gen_warning("filename attribute \"%s\" appears to not have been backslashed \"%s\"", name,
                value);
  return value;
}

std::int32_t ut_attribute_list::parsedOr(const ut_attribute* a, std::int32_t fallback) const {
  const char* text = a ? attribute_str(a) : nullptr;
  if (!text) return numberOr(a, fallback);
  const char* end;
  const auto number = static_cast<std::int32_t>(gen_strtoul(text, &end, 0));
  return end != text && *end == '\0' && number != -1 ? number : fallback;
}
