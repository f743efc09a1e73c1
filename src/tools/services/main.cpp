// The checker of service description files: reads them as the hub does, and tells what the hub
// would know and what is wrong with them.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <unordered_set>
#include <vector>

#include "indgen/config_dirs.h"
#include "indgen/directory.h"
#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "tools/services/output.h"
#include "tools/services/survey.h"
#include "tools/tool_options.h"

namespace {

constexpr int kGood = 0;
constexpr int kFindings = 1;
constexpr int kTrouble = 2;

struct Arguments {
  std::vector<std::string> paths;
  bool json = false;
};

// A file that is named twice, or is in a directory that is named too, counts once.
class Reader {
 public:
  explicit Reader(services::Survey& survey) : survey_(survey) {}

  void read(const std::string& path) {
    const int kind = gen_file_kind(path.c_str());
    if (kind < 0)
      survey_.add_trouble(path, "there is no such file or directory");
    else if (kind == 0)
      readDirectory(path);
    else
      readFile(path);
  }

 private:
  void readDirectory(const std::string& path) {
    gen_dir_walker walker;
    if (!gen_walk_open(walker, path.c_str())) return survey_.add_trouble(path, "can't be listed");
    const std::vector<std::string> files = ServiceDatabase::description_files(path.c_str());
    if (files.empty()) survey_.add_empty_directory(path);
    for (const std::string& file : files) readFile(file);
  }

  void readFile(const std::string& path) {
    if (seen_.insert(gen_full_path(path.c_str()).get()).second) survey_.add_file(path);
  }

  services::Survey& survey_;
  std::unordered_set<std::string> seen_;
};

int check(Arguments arguments) {
  if (arguments.paths.empty())
    arguments.paths.emplace_back(gen_join(gen_defaults_dir(), "services").get());
  services::Survey survey;
  Reader reader(survey);
  for (const std::string& path : arguments.paths) reader.read(path);
  const std::string output = arguments.json ? jsonOf(survey) : textOf(survey);
  const bool printed = std::fwrite(output.data(), 1, output.size(), stdout) == output.size() &&
                       std::fflush(stdout) == 0;
  if (!printed) return kTrouble;
  return survey.all_is_well() ? kGood : kFindings;
}

}  // namespace

int main(int argc, char** argv) {
  gen_install_new_handler();
  gen_initialise();
  Arguments arguments;
  CLI::App app(
      "Reads service description files as the hub does, and prints what the hub would know and "
      "what is wrong with them.",
      "hublink-services");
  addToolOptions(app);
  app.add_option("DIRECTORY|FILE", arguments.paths,
                 "What to read; without any, the directory of this installation")
      ->type_name("");
  app.add_flag("--json", arguments.json, "Print for machines");
  app.footer(
      "Of a directory the files with the extension kvs are read, in the order in which the system "
      "lists them: of several plugins that provide a service, the first one read has it.\n"
      "Exit codes: 0 all is well, 1 there are errors or warnings, 2 wrong usage or no output.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kGood : kTrouble;
  }
  return check(std::move(arguments));
}
