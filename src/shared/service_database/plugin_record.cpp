#include "service_database/plugin_record.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "indgen/report.h"
#include "libcxxutil/ut_attribute_list.h"
#include "service_database/prefer_ada.h"

namespace {

// The texts of a block, which may be missing. Other kinds of attributes are nothing to a plugin.
std::vector<NameAndValue> pairsOf(const ut_attribute_list* block) {
  std::vector<NameAndValue> pairs;
  if (!block) return pairs;
  for (const ut_attribute* a = block->first_attribute(); a; a = block->next_attribute(a))
    if (const char* value = block->attribute_str(a))
      pairs.push_back({block->attribute_name(a), value});
  return pairs;
}

std::optional<std::int32_t> launchTimeoutOf(const ut_attribute_list& section) {
  const ut_attribute* a = section.find_attribute("LaunchTimeout");
  if (!a || section.attribute_type(a) != ut_attribute_type::int32) return std::nullopt;
  const std::int32_t seconds = section.attribute_int32(a);
  if (PluginRecord::is_launch_timeout(seconds)) return seconds;
  gen_warning(
      "\"%s\": the int32 attribute \"LaunchTimeout\" is %d, which counts as none: write 0 to %d",
      section.full_name(true).c_str(), seconds, PluginRecord::kMostLaunchTimeout);
  return std::nullopt;
}

std::vector<std::string> argumentsOf(const ut_attribute_list* block) {
  std::vector<std::string> arguments;
  const ut_attribute_list* child = block ? block->first_child() : nullptr;
  for (; child; child = child->next_sibling())
    if (const char* text = child->require_str("Arg", nullptr)) arguments.emplace_back(text);
  return arguments;
}

std::vector<ServiceRecord> servicesOf(const ut_attribute_list* block) {
  std::vector<ServiceRecord> services;
  const ut_attribute_list* child = block ? block->first_child() : nullptr;
  for (; child; child = child->next_sibling()) {
    const char* name = child->require_str("ServiceName", nullptr);
    if (!name) continue;
    services.push_back(
        {child->int32_value("Priority", 0), name, pairsOf(child->find_child("ServiceData"))});
  }
  return services;
}

// `"file", line N`
void takePosition(const std::string& position, std::string& file, std::int32_t& line) {
  constexpr std::string_view kLine = "\", line ";
  const std::size_t end = position.rfind(kLine);
  if (end == position.npos || position.front() != '"') return;
  file = position.substr(1, end - 1);
  line = std::atoi(position.c_str() + end + kLine.size());
}

}  // namespace

std::optional<PluginRecord> PluginRecord::from_section(std::int32_t id,
                                                       const ut_attribute_list& section) {
  const char* exec_name = section.require_str("ExecName", nullptr);
  if (!exec_name) return std::nullopt;
  PluginRecord record;
  record.id_ = id;
  takePosition(section.position(), record.file_, record.line_);
  record.exec_name_ = exec_name;
  if (const char* ada = section.str_value("AdaExecName", nullptr)) record.ada_exec_name_ = ada;
  record.plugin_name_ = section.str_value("PluginName", exec_name);
  record.persistent_ = section.bool_value("Persistent", false);
  record.shared_object_ = section.bool_value("SharedObject", false);
  record.launch_timeout_ = launchTimeoutOf(section);
  record.plugin_data_ = pairsOf(section.find_child("PluginData"));
  record.environment_ = pairsOf(section.find_child("Environment"));
  record.arguments_ = argumentsOf(section.find_child("Arguments"));
  record.services_ = servicesOf(section.find_child("ServicesProvided"));
  return record;
}

bool PluginRecord::provides(const char* service_name) const {
  if (!service_name) return false;
  return std::any_of(services_.begin(), services_.end(),
                     [&](const ServiceRecord& service) { return service.name == service_name; });
}

const std::string& PluginRecord::executable_name() const {
  return ada_exec_name_ && isPreferAda() ? *ada_exec_name_ : exec_name_;
}
