#include "indgen/command_line.h"

#include <cstring>

#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/text.h"

namespace {

const char* skipBlanks(const char* at) {
  while (gen_is_blank(*at)) ++at;
  return at;
}

const char* blankOrEnd(const char* at) {
  return at + std::strcspn(at, " \t");
}

bool endsWord(char c) {
  return !c || gen_is_blank(c);
}

// Only the quotes go: a directory's `\` separates names and escapes nothing.
gen_text unquotedDirectory(const char* from, const char* end) {
  const char quote = from < end ? *from : '\0';
  if (quote == '"' || quote == '\'') {
    ++from;
    if (end > from && end[-1] == quote) --end;
  }
  return gen_strndup(from, end - from);
}

// Goes behind a `cd` with its directory; false for one that leads to no command.
bool takeDirectory(const char*& command, gen_text& directory) {
  if (!gen_has_prefix(command, "cd ")) return true;
  const char* from = skipBlanks(command + std::strlen("cd "));
  const char* end = std::strchr(from, ';');
  if (!end) return false;
  command = skipBlanks(end + 1);
  if (!*command) return false;
  while (end > from && gen_is_blank(end[-1])) --end;
  directory = unquotedDirectory(from, end);
  return true;
}

void addArgument(std::string& line, const char* argument, bool last) {
  if (!std::strpbrk(argument, " \"&")) {
    line.append(argument).push_back(' ');
    return;
  }
  line += '"';
  for (const char* at = argument; *at; ++at) {
    if (*at == '"') line += '\\';
    line += *at;
  }
  if (line.back() == '\\') line += '\\';
  line += '"';
  if (!last) line += ' ';
}

std::string takeProgram(const char*& at) {
  const bool quoted = *at == '"';
  const char* from = quoted ? at + 1 : at;
  const char* end = quoted ? std::strchr(from, '"') : nullptr;
  if (!end) {
    at = end = blankOrEnd(from);
  } else {
    at = end + 1;
  }
  return {from, end};
}

std::string takeArgument(const char*& at) {
  std::string word;
  bool quoted = false;
  for (; *at && (quoted || !gen_is_blank(*at)); ++at) {
    if (quoted && gen_has_prefix(at, "\\\\\"") && endsWord(at[3])) {
      word += '\\';
      quoted = false;
      at += 2;
    } else if (gen_has_prefix(at, "\\\"")) {
      word += '"';
      ++at;
    } else if (*at == '"') {
      quoted = !quoted;
    } else {
      word += *at;
    }
  }
  return word;
}

}  // namespace

const char* gen_batch_processor(const char* name) {
  return gen_has_extension(name, "bat") ? gen_getenv("COMSPEC", nullptr) : nullptr;
}

gen_text gen_command_line(const char* program, const char* const* argv) {
  if (!argv || !argv[0]) return {};
  std::string line;
  const char* processor = gen_batch_processor(program);
  if (processor && gen_batch_processor(argv[0])) line.append(processor).append(" /c ");
  line.append("\"").append(argv[0]).append(argv[1] ? "\" " : "\"");
  for (const char* const* argument = argv + 1; *argument; ++argument)
    addArgument(line, *argument, !argument[1]);
  return gen_strdup(line.c_str());
}

bool gen_read_command(const char* command, gen_text& directory, gen_text& command_line) {
  if (!command) return false;
  gen_text place;
  command = skipBlanks(command);
  if (!takeDirectory(command, place) || !*command) return false;
  const bool quoted = *command == '"';
  const char* from = quoted ? command + 1 : command;
  const char* end = quoted ? std::strchr(from, '"') : blankOrEnd(from);
  if (!end) return false;
  const char* rest = quoted ? end + 1 : end;
  const gen_text shown = gen_strndup(command, rest - command);
  const char* processor = gen_batch_processor(gen_strndup(from, end - from));
  directory = std::move(place);
  command_line = processor ? gen_concat4(processor, " /c ", shown, rest) : gen_concat(shown, rest);
  return true;
}

std::vector<std::string> gen_cut_command_line(const char* command_line) {
  std::vector<std::string> arguments;
  if (!command_line) return arguments;
  const char* at = skipBlanks(command_line);
  if (*at) arguments.push_back(takeProgram(at));
  while (*(at = skipBlanks(at))) arguments.push_back(takeArgument(at));
  return arguments;
}
