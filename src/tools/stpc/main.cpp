// The interface compiler: reads a catalogue and writes the classes of its sides, in the hub's own
// style or in that of a language's authors.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "indgen/whole_file.h"
#include "tools/stpc/author_names.h"
#include "tools/stpc/catalogue_parser.h"
#include "tools/stpc/emit.h"
#include "tools/stpc/emit_cpp.h"
#include "tools/stpc/emit_python.h"
#include "tools/stpc/emit_typescript.h"
#include "tools/tool_options.h"

namespace {

namespace fs = std::filesystem;

constexpr int kGood = 0;
constexpr int kBadCatalogue = 1;
constexpr int kTrouble = 2;

struct Arguments {
  std::string catalogue;
  std::string output;
  std::vector<std::string> sides;
  bool check = false;
  std::string language;  // empty: the hub's own style
};

// How a spec is written for the authors of a language.
struct Style {
  const char* name;
  stpc::Language language;
  std::vector<stpc::OutputFile> (*emit)(const stpc::Catalogue& catalogue,
                                        const std::string& catalogueName);
  std::vector<std::string_view> (*namesOfSides)();
};
const Style kStyles[] = {
    {"cpp", stpc::Language::cpp, stpc::emitCpp, stpc::namesOfCppSides},
    {"python", stpc::Language::python, stpc::emitPython, stpc::namesOfPythonSides},
    {"typescript", stpc::Language::typescript, stpc::emitTypeScript, stpc::namesOfTypeScriptSides},
};

std::optional<std::string> readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text{std::istreambuf_iterator<char>(file), {}};
  return file.bad() ? std::nullopt : std::optional(std::move(text));
}

// A file that is right already stays untouched, and what was built from it stays good.
bool writeFile(const fs::path& path, const std::string& text) {
  if (readFile(path) == text) return true;
  return gen_replace_file(path.c_str(), [&text](std::FILE* file) {
           return std::fwrite(text.data(), 1, text.size(), file) == text.size();
         }) == 0;
}

int troubleWith(const char* what, const std::string& name) {
  std::fprintf(stderr, "stpc: %s %s\n", what, name.c_str());
  return kTrouble;
}

int handOver(const stpc::OutputFile& file, const Arguments& arguments) {
  const fs::path path = fs::path(arguments.output) / file.name;
  if (!arguments.check)
    return writeFile(path, file.text) ? kGood : troubleWith("can't write", path.string());
  if (readFile(path) == file.text) return kGood;
  std::fprintf(stderr, "%s: stale, generate it again from %s\n", path.c_str(),
               arguments.catalogue.c_str());
  return kBadCatalogue;
}

int badCatalogue(const Arguments& arguments, const stpc::Error& error) {
  std::fprintf(stderr, "%s:%d:%d: %s\n", arguments.catalogue.c_str(), error.at.line,
               error.at.column, error.text.c_str());
  return kBadCatalogue;
}

int handOverAll(const std::vector<stpc::OutputFile>& files, const Arguments& arguments) {
  int worst = kGood;
  for (const stpc::OutputFile& file : files) worst = std::max(worst, handOver(file, arguments));
  return worst;
}

int compile(const Arguments& arguments) {
  const std::optional<std::string> source = readFile(arguments.catalogue);
  if (!source) return troubleWith("can't read", arguments.catalogue);
  stpc::Catalogue catalogue;
  stpc::Error error;
  if (!stpc::parseCatalogue(*source, catalogue, error)) return badCatalogue(arguments, error);
  const std::string baseName = fs::path(arguments.catalogue).filename().string();
  for (const Style& style : kStyles) {
    if (style.name != arguments.language) continue;
    if (!stpc::checkAuthorNames(catalogue, style.language, style.namesOfSides(), error))
      return badCatalogue(arguments, error);
    return handOverAll(style.emit(catalogue, baseName), arguments);
  }
  std::vector<std::size_t> wanted;
  for (const std::string& name : arguments.sides) {
    std::size_t i = 0;
    while (i < catalogue.sides.size() && catalogue.sides[i].name != name) ++i;
    if (i == catalogue.sides.size()) return troubleWith("there is no side", name);
    wanted.push_back(i);
  }
  if (wanted.empty()) wanted = {0, 1};
  int worst = kGood;
  for (const std::size_t side : wanted)
    worst = std::max(worst, handOverAll(stpc::emitSide(catalogue, side, baseName), arguments));
  return worst;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app("Writes the classes of the sides of an interface from its catalogue.", "stpc");
  addToolOptions(app);
  app.add_option("CATALOGUE", arguments.catalogue, "The file that describes the interface")
      ->required();
  app.add_option("--output", arguments.output, "The directory to write to")
      ->required()
      ->type_name("DIR");
  std::vector<std::string> languages;
  for (const Style& style : kStyles) languages.emplace_back(style.name);
  CLI::Option* language =
      app.add_option("--language", arguments.language,
                     "Write both sides for this language's authors, not in the hub's own style")
          ->type_name("NAME")
          ->check(CLI::IsMember(languages));
  app.add_option("--side", arguments.sides, "Write this side only; may be given again")
      ->type_name("NAME")
      ->excludes(language)
      ->allow_extra_args(false);
  app.add_flag("--check", arguments.check,
               "Write nothing; say which files aren't as they would be written");
  app.footer("Exit codes: 0 good, 1 a bad catalogue or a stale file, 2 wrong usage or no access.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kGood : kTrouble;
  }
  return compile(arguments);
}
