#include "service_database/service_database.h"

#include <string_view>

#include "indgen/directory.h"
#include "libcxxutil/ut_options_database.h"

std::vector<std::string> ServiceDatabase::description_files(const char* directory) {
  std::vector<std::string> files;
  gen_dir_walker walker;
  if (!gen_walk_open(walker, directory)) return files;
  gen_walk_filter_files(walker, false, "kvs");
  gen_walk_filter_directories(walker, true, true, false);
  while (const char* path = gen_walk_next(walker)) files.emplace_back(path);
  return files;
}

void ServiceDatabase::read_directory(ServiceDatabase& database, const char* directory) {
  for (const std::string& path : description_files(directory)) database.read_file(path.c_str());
}

ServiceDatabase::FileResult ServiceDatabase::add_file(const char* path) {
  ut_options_database options("Available Services", nullptr, false);
  if (!options.read(path))
    return options.open_failed() ? FileResult::unreadable : FileResult::malformed;
  const ut_attribute_list* services = options.find_child("Services");
  if (!services) return FileResult::without_services;
  bool accepted = true;
  if (services->str_value("ExecName", nullptr)) {
    accepted = add_plugin(*services);
  } else {
    const ut_attribute_list* section = services->first_child();
    for (; section; section = section->next_sibling())
      if (!add_plugin(*section)) accepted = false;
  }
  return accepted ? FileResult::accepted : FileResult::section_refused;
}

bool ServiceDatabase::add_plugin(const ut_attribute_list& section) {
  std::optional<PluginRecord> record = PluginRecord::from_section(next_id_, section);
  if (!record) return false;
  ++next_id_;
  for (const ServiceRecord& service : record->services())
    providers_.try_emplace(service.name, plugins_.size());
  plugins_.push_back(std::move(*record));
  return true;
}

const PluginRecord* ServiceDatabase::find_plugin(const char* service_name) const {
  if (!service_name) return nullptr;
  const auto found = providers_.find(std::string_view(service_name));
  return found == providers_.end() ? nullptr : &plugins_[found->second];
}
