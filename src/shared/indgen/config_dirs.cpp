#include "indgen/config_dirs.h"

#include <optional>

#include "indgen/access.h"
#include "indgen/directory.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "indgen/text.h"

namespace {

std::optional<bool> developmentLayout;
gen_text defaultsDirectory;
gen_text configDirectory;
gen_text userConfigDirectory;

bool hasDirectory(const char* name) {
  return gen_is_directory(gen_join(gen_program_dir(), name));
}

bool findDevelopmentLayout() {
  if (hasDirectory("target") || hasDirectory("defaults")) return false;
  return hasDirectory("../src/target") && hasDirectory("../src/configuration");
}

const char* byLayout(gen_text& directory, const char* installed, const char* development) {
  if (!directory)
    directory = gen_join(gen_program_dir(), gen_is_development_layout() ? development : installed);
  return directory;
}

// The file of that name in `directory`, if it can be used.
gen_text usableFile(const char* directory, const char* name, int mode) {
  gen_text path = gen_full_path(gen_join(directory, name));
  if (V_access(path, mode) != 0 || gen_is_directory(path)) return {};
  return path;
}

bool exists(const char* path) {
  return gen_file_kind(path) == 1;
}

}  // namespace

bool gen_is_development_layout() {
  if (!developmentLayout) developmentLayout = findDevelopmentLayout();
  return *developmentLayout;
}

const char* gen_defaults_dir() {
  return byLayout(defaultsDirectory, "defaults", "../src/configuration/defaults");
}

const char* gen_config_dir() {
  return byLayout(configDirectory, "config", "../src/configuration/kvx_internal");
}

const char* gen_user_config_dir(bool create, gen_text* error) {
  if (!userConfigDirectory) userConfigDirectory = gen_join(gen_user_home(), "KVX");
  if (create && gen_make_directory(userConfigDirectory, 0755) != 0 && error)
    *error = gen_concat("Couldn't create user config directory: ", userConfigDirectory);
  return userConfigDirectory;
}

void gen_set_user_config_dir(const char* path) {
  if (path && *path) gen_replace(userConfigDirectory, path);
}

void gen_reset_config_dirs() {
  userConfigDirectory = gen_text();
  configDirectory = gen_text();
  defaultsDirectory = gen_text();
}

gen_text gen_find_config_file(const char* name, int mode, bool defaults_only) {
  if (!name || !*name) return {};
  if (gen_is_absolute(name)) {
    const bool usable = V_access(name, mode) == 0 && !gen_is_directory(name);
    return usable ? gen_strdup(name) : gen_text();
  }
  gen_text found;
  if (!defaults_only) {
    found = usableFile(gen_user_config_dir(false, nullptr), name, mode);
    if (!found) found = usableFile(gen_config_dir(), name, mode);
  }
  return found ? std::move(found) : usableFile(gen_defaults_dir(), name, mode);
}

gen_text gen_select_config_file(const char* directory, const char* name, bool use_name,
                                bool check_override) {
  const gen_text own = gen_replace_extension(name, "cfg");
  if (check_override && own) {
    gen_text override = gen_full_path(gen_join(gen_join(directory, "override"), own));
    if (exists(override)) return override;
  }
  gen_text common = gen_full_path(gen_join(directory, "kvx.cfg"));
  if (use_name && own && !exists(common)) return gen_full_path(gen_join(directory, own));
  return common;
}
