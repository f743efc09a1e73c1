#include "tools/hublinkctl/trace/trace_fields.h"

#include <algorithm>
#include <charconv>

namespace trace {
namespace {

constexpr std::string_view kSeparator = ", ";

bool isWord(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool takeName(std::string_view& text, std::string& name) {
  const auto end = std::find_if_not(text.begin(), text.end(), isWord);
  const auto length = static_cast<std::size_t>(end - text.begin());
  if (length == 0 || length == text.size() || text[length] != ':') return false;
  name = text.substr(0, length);
  text.remove_prefix(length + 1);
  return true;
}

bool takeNumber(std::string_view& text, std::string& value) {
  std::string_view rest = text;
  if (!take(rest, "0x")) return false;
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number, 16);
  if (error != std::errc()) return false;
  rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
  value = number <= UINT32_MAX ? std::to_string(static_cast<std::int32_t>(number))
                               : std::to_string(number);
  text = rest;
  return true;
}

// What may stand behind a complete field.
bool endsField(std::string_view rest) {
  std::string name;
  if (rest.empty()) return true;
  return take(rest, kSeparator) && takeName(rest, name) &&
         (rest.starts_with("0x") || rest.starts_with('"') || rest.starts_with('{'));
}

// A text up to the first quote behind which `ends` is content.
template <class Ends>
bool takeText(std::string_view& text, std::string& value, Ends ends) {
  if (!text.starts_with('"')) return false;
  for (std::size_t quote = text.find('"', 1); quote != text.npos;
       quote = text.find('"', quote + 1)) {
    const std::string_view rest = text.substr(quote + 1);
    if (!ends(rest)) continue;
    value = text.substr(1, quote - 1);
    text = rest;
    return true;
  }
  return false;
}

// The block of an array: its count, and elements each closed by a separator.
bool takeList(std::string_view& text, Field& field) {
  std::string_view rest = text;
  std::string count;
  if (!take(rest, "{count:") || !takeNumber(rest, count) || !take(rest, " data:")) return false;
  field.isList = true;
  field.isText = rest.starts_with('"');
  while (!(rest.starts_with('}') && endsField(rest.substr(1)))) {
    const auto endsItem = [](std::string_view behind) {
      if (!take(behind, kSeparator)) return false;
      return behind.starts_with('"') || (take(behind, "}") && endsField(behind));
    };
    std::string item;
    const bool taken = field.isText ? takeText(rest, item, endsItem) : takeNumber(rest, item);
    if (!taken || !take(rest, kSeparator)) return false;
    field.items.push_back(std::move(item));
  }
  text = rest.substr(1);
  return true;
}

bool takeField(std::string_view& text, Field& field) {
  std::string_view rest = text;
  if (!takeName(rest, field.name)) return false;
  if (rest.starts_with('"')) {
    field.isText = true;
    if (!takeText(rest, field.value, endsField)) return false;
  } else if (!takeNumber(rest, field.value) && !takeList(rest, field)) {
    return false;
  }
  if (!rest.empty() && !rest.starts_with(kSeparator)) return false;
  text = rest;
  return true;
}

}  // namespace

std::string_view readFields(std::string_view text, std::vector<Field>& fields) {
  while (!text.empty()) {
    std::string_view rest = text;
    Field field;
    if ((!fields.empty() && !take(rest, kSeparator)) || !takeField(rest, field)) return text;
    fields.push_back(std::move(field));
    text = rest;
  }
  return text;
}

}  // namespace trace
