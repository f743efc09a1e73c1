#include "tools/stpc/author_names.h"

#include <algorithm>
#include <iterator>
#include <map>

#include "tools/stpc/names.h"

namespace stpc {
namespace {

bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}
bool isLower(char c) {
  return c >= 'a' && c <= 'z';
}
char upper(char c) {
  return isLower(c) ? static_cast<char>(c - 'a' + 'A') : c;
}

// Those of C++ no catalogue has (names.h).
constexpr std::string_view kPythonWords[] = {
    "False",  "None",   "True",    "and",      "as",       "assert",      "async",
    "await",  "break",  "class",   "continue", "def",      "del",         "elif",
    "else",   "except", "finally", "for",      "from",     "global",      "if",
    "import", "in",     "is",      "lambda",   "nonlocal", "not",         "or",
    "pass",   "raise",  "return",  "try",      "while",    "with",        "yield",
    "self",   "match",  "case",    "type",     "builtins", "dataclasses", "typing"};

constexpr std::string_view kTypeScriptWords[] = {
    "arguments",   "await",    "break",      "case",    "catch",     "class",      "const",
    "constructor", "continue", "debugger",   "default", "delete",    "do",         "else",
    "enum",        "eval",     "export",     "extends", "false",     "finally",    "for",
    "function",    "if",       "implements", "import",  "in",        "instanceof", "interface",
    "let",         "new",      "null",       "package", "private",   "protected",  "prototype",
    "public",      "return",   "static",     "super",   "switch",    "then",       "this",
    "throw",       "true",     "try",        "typeof",  "undefined", "var",        "void",
    "while",       "with",     "yield"};

constexpr std::string_view kNamespaces[] = {"std", "hublink"};

// Types of the language that generated modules name.
constexpr std::string_view kTypeScriptTypes[] = {"Object", "Promise", "Uint8Array"};

// Functions of the C library that a spec may well be called like, and that are no namespaces.
constexpr std::string_view kSystemFunctions[] = {
    "abort",   "abs",    "accept", "access",  "alarm",  "bind",      "calloc",   "ceil",
    "clock",   "clone",  "close",  "connect", "crypt",  "daemon",    "div",      "dup",
    "exit",    "exp",    "floor",  "fork",    "free",   "gamma",     "index",    "kill",
    "link",    "listen", "log",    "malloc",  "mmap",   "mount",     "nice",     "open",
    "pause",   "pipe",   "poll",   "pow",     "printf", "profil",    "puts",     "raise",
    "rand",    "random", "read",   "realloc", "recv",   "remainder", "remove",   "rename",
    "revoke",  "rewind", "round",  "select",  "send",   "shutdown",  "signal",   "sin",
    "sleep",   "socket", "splice", "sqrt",    "stat",   "statx",     "symlink",  "sync",
    "syscall", "system", "tan",    "tee",     "time",   "trunc",     "truncate", "umask",
    "unlink",  "wait",   "write"};

template <class Table>
bool contains(const Table& table, std::string_view name) {
  return std::find(std::begin(table), std::end(table), name) != std::end(table);
}

// Collects the names of one scope, each with its place.
class Scope {
 public:
  Scope(std::string what, Error& error) : what_(std::move(what)), error_(error) {}

  /// A name that is there whatever the catalogue says, for which `reason` tells.
  void take(std::string_view name, const std::string& reason) {
    names_.emplace(std::string(name), ", which " + reason);
  }
  bool add(const std::string& name, const std::string& original, Position at) {
    const auto [place, isNew] = names_.emplace(name, ", and so would " + quoted(original));
    if (isNew) return true;
    error_ = {at, quoted(original) + " would be " + what_ + " " + quoted(name) + place->second};
    return false;
  }

 private:
  std::string what_;
  Error& error_;
  std::map<std::string, std::string> names_;  // with what is said of each
};

class NameCheck {
 public:
  NameCheck(const Catalogue& catalogue, Language language, Error& error)
      : catalogue_(catalogue), language_(language), error_(error), types_("the type", error) {}

  bool run(const std::vector<std::string_view>& taken) {
    if (language_ == Language::cpp && contains(kNamespaces, moduleName(catalogue_, language_))) {
      error_ = {{}, "a spec can't be called " + quoted(catalogue_.specName) + " in this language"};
      return false;
    }
    if (language_ == Language::typescript)
      for (const std::string_view type : kTypeScriptTypes) types_.take(type, "the language has");
    for (const Side& side : catalogue_.sides)
      if (!types_.add(sideType(catalogue_, side, language_), side.name, {})) return false;
    for (const Message& message : catalogue_.messages)
      if (!checkTypes(message)) return false;
    for (std::size_t side = 0; side < catalogue_.sides.size(); ++side)
      if (!checkOperations(side, taken)) return false;
    return true;
  }

 private:
  bool checkTypes(const Message& message) {
    if (!types_.add(messageType(message), message.name, message.at)) return false;
    if (message.twoWay && !types_.add(replyType(message), message.name, message.at)) return false;
    return checkFields(message.fields, messageType(message)) &&
           checkFields(message.reply, replyType(message));
  }

  bool checkFields(const std::vector<Field>& fields, const std::string& outer) {
    Scope members("the field", error_);
    for (const Field& field : fields) {
      if (field.isCount()) continue;
      if (!members.add(fieldName(field, language_), field.name, field.at)) return false;
      if (field.kind != Field::Kind::block || field.isArrayBlock()) continue;
      const std::string type = blockType(outer, field);
      if (!types_.add(type, field.name, field.at) || !checkFields(field.fields, type)) return false;
    }
    return true;
  }

  bool checkOperations(std::size_t side, const std::vector<std::string_view>& taken) {
    Scope operations("the operation", error_);
    for (const std::string_view name : taken) operations.take(name, "every side has");
    for (const Message* message : catalogue_.sentBy(side))
      if (!operations.add(callName(*message, language_), message->name, message->at)) return false;
    for (const Message* message : catalogue_.receivedBy(side))
      if (!operations.add(handlerName(*message, language_), message->name, message->at))
        return false;
    return true;
  }

  const Catalogue& catalogue_;
  Language language_;
  Error& error_;
  Scope types_;
};

}  // namespace

std::vector<std::string> wordsOf(std::string_view name) {
  std::vector<std::string> words;
  bool begins = true;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '_') {
      begins = true;
      continue;
    }
    if (isUpper(c) && i > 0 && name[i - 1] != '_') {
      // The last capital of several begins the next word.
      const bool endsCapitals = i + 1 < name.size() && isLower(name[i + 1]);
      begins = begins || !isUpper(name[i - 1]) || endsCapitals;
    }
    if (begins) words.emplace_back();
    begins = false;
    words.back() += lowerCase(std::string(1, c));
  }
  return words;
}

std::string snakeCase(std::string_view name) {
  std::string text;
  for (const std::string& word : wordsOf(name)) text.append(text.empty() ? "" : "_").append(word);
  return text;
}

std::string pascalCase(std::string_view name) {
  std::string text;
  for (std::string word : wordsOf(name)) {
    word[0] = upper(word[0]);
    text += word;
  }
  return text;
}

std::string camelCase(std::string_view name) {
  const std::string first = wordsOf(name)[0];
  return first + pascalCase(name).substr(first.size());
}

std::string unreserved(const std::string& name, Language language) {
  const bool isReserved = language == Language::python       ? contains(kPythonWords, name)
                          : language == Language::typescript ? contains(kTypeScriptWords, name)
                                                             : !nameFault(name).empty();
  return isReserved ? name + "_" : name;
}

std::string fieldName(const Field& field, Language language) {
  switch (language) {
    case Language::python:
      return unreserved(snakeCase(field.name), language);
    case Language::typescript:
      return unreserved(camelCase(field.name), language);
    case Language::cpp:
      break;
  }
  return field.name;
}

std::string callName(const Message& message, Language language) {
  return unreserved(
      language == Language::python ? snakeCase(message.name) : camelCase(message.name), language);
}

std::string handlerName(const Message& message, Language language) {
  return language == Language::python ? "on_" + snakeCase(message.name)
                                      : "on" + pascalCase(message.name);
}

std::string messageType(const Message& message) {
  return pascalCase(message.name);
}

std::string replyType(const Message& message) {
  return messageType(message) + "Reply";
}

std::string blockType(const std::string& outer, const Field& block) {
  return outer + pascalCase(block.name);
}

std::string sideType(const Catalogue& catalogue, const Side& side, Language language) {
  const std::string name = pascalCase(side.name);
  return language == Language::cpp ? name : pascalCase(catalogue.specName) + name;
}

std::string moduleName(const Catalogue& catalogue, Language language) {
  const std::string name = lowerCase(catalogue.specName);
  if (language == Language::cpp && contains(kSystemFunctions, name)) return name + "_";
  return unreserved(name, language);
}

bool checkAuthorNames(const Catalogue& catalogue, Language language,
                      const std::vector<std::string_view>& taken, Error& error) {
  return NameCheck(catalogue, language, error).run(taken);
}

}  // namespace stpc
