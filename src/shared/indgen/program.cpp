#include "indgen/program.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "indgen/directory.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/report.h"
#include "indgen/text.h"
#include "indgen/view_nodes.h"
#include "indgen/viewpath.h"
#include "platform/host.h"

gen_text program_path;
bool gen_big_endian = false;

namespace {

gen_text programDirectory;
gen_text userHome;
bool userHomeKnown = false;

void takeProgramPath() {
  const std::string path = platform::executablePath();
  if (!path.empty()) program_path = gen_strdup(path.c_str());
}

// Reports of what still runs after this go without the names, and its files without a view.
void releaseNames() {
  V_free_vpath();
  gen_set_view_nodes(nullptr);
  program_name = gen_text();
  program_path = gen_text();
  programDirectory = gen_text();
  userHome = gen_text();
  userHomeKnown = false;
}

bool isBigEndian() {
  const unsigned char bytes[] = {1, 0};
  std::uint16_t value;
  std::memcpy(&value, bytes, sizeof value);
  if (value != 1 && value != 256) gen_exit_message(1, "Could not determine host endianness");
  return value == 256;
}

gen_text findUserHome() {
  const std::string config = platform::userConfigDirectory();
  if (!config.empty() && gen_make_directory_path(config.c_str(), 0700) == 0)
    return gen_strdup(config.c_str());
  const char* profile = gen_getenv("USERPROFILE", nullptr);
  if (gen_is_directory(profile)) return gen_strdup(profile);
  const gen_text users = gen_join(gen_program_dir(), "../Users");
  const std::string user = platform::userName();
  gen_text own = gen_join(users, user.empty() ? "default" : user.c_str());
  if (gen_make_directory(users, 0755) != 0 || gen_make_directory(own, 0755) != 0) return {};
  return own;
}

}  // namespace

void gen_initialise() {
  gen_install_new_handler();
  takeProgramPath();
  program_name = gen_replace_extension(gen_base_name(program_path), nullptr);
  gen_viewpathing(0);
  static const int registered = std::atexit(releaseNames);
  static_cast<void>(registered);
  gen_big_endian = isBigEndian();
}

const char* gen_program_dir() {
  if (programDirectory) return programDirectory;
  if (!program_path) takeProgramPath();
  const gen_text found = gen_find_program(program_path, false, true);
  // An executable that was replaced while it runs is missed by the search, but its place is known.
  programDirectory = gen_directory_name(found ? found : program_path);
  if (!programDirectory) programDirectory = gen_strdup(".");
  return programDirectory;
}

const char* gen_user_home() {
  if (!userHomeKnown) userHome = findUserHome();
  userHomeKnown = true;
  return userHome;
}
