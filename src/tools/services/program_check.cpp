#include "tools/services/program_check.h"

#include <vector>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "indgen/quote.h"

namespace services {
namespace {

constexpr int kExecutable = 1;  // as V_access takes it

// A plugin's own directories stand behind PATH when it is started.
gen_text foundInLibraries(const PluginRecord& plugin, const char* program) {
  for (const NameAndValue& variable : plugin.environment()) {
    if (variable.name != "LIBPATH") continue;
    std::vector<char> item(variable.value.size() + 1);
    const char* list = variable.value.c_str();
    while ((list = gen_next_path_item(list, item.data(), item.size()))) {
      gen_text path = gen_join(item.data(), program);
      if (gen_file_kind(path) == 1) return path;
    }
  }
  return {};
}

}  // namespace

std::string troubleWithProgram(const PluginRecord& plugin, const std::string& program) {
  const bool bare = program.find('/') == std::string::npos;
  gen_text path = gen_join(gen_program_dir(), program.c_str());
  if (gen_file_kind(path) != 1 && bare) {
    path = gen_find_program(program.c_str(), false, false);
    if (!path) path = foundInLibraries(plugin, program.c_str());
  }
  const std::string name = gen_quote(program.c_str()).get();
  if (!path || gen_file_kind(path) != 1)
    return "the program " + name +
           (gen_is_absolute(program.c_str())
                ? " isn't there: write the name of a file that is"
                : " is neither beside the hub nor in PATH: write its full name, or put it there");
  if (V_access(path, kExecutable) != 0)
    return "the program " + name + " can't be executed: give " + path.get() +
           " the permission (chmod +x)";
  return {};
}

}  // namespace services
