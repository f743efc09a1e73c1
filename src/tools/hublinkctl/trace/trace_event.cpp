#include "tools/hublinkctl/trace/trace_event.h"

#include <charconv>

namespace trace {

int Event::number(std::string_view name) const {
  const Field* field = find(name);
  int result = -1;
  if (field && !field->isText && !field->isList)
    std::from_chars(field->value.data(), field->value.data() + field->value.size(), result);
  return result;
}

std::string Event::value(std::string_view name) const {
  const Field* field = find(name);
  return field && field->isText && !field->isList ? field->value : std::string();
}

std::string pluginLabel(int id, const std::string& name) {
  return name.empty() ? std::to_string(id) : name + "(" + std::to_string(id) + ")";
}

}  // namespace trace
