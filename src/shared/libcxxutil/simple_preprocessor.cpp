#include "libcxxutil/simple_preprocessor.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/format.h"
#include "indgen/program.h"
#include "indgen/report.h"
#include "libcxxutil/ut_macro_syntax.h"

namespace {

// More than any file system takes for a name.
constexpr std::size_t kLongestFileName = 65536;
// A question to the file system, in units of work.
constexpr std::size_t kTestedFileCost = 256;

std::string withoutTrailingBlanks(const char* begin, const char* end) {
  while (end > begin && gen_is_blank(end[-1])) --end;
  return {begin, end};
}

// Cuts a text at the first `#` outside quotes.
std::string withoutComment(const std::string& text) {
  char quote = '\0';
  const char* at = text.c_str();
  for (; *at && (quote || *at != '#'); ++at) {
    if (!quote)
      quote = *at == '"' || *at == '\'' ? *at : '\0';
    else if (at[0] == '\\' && at[1])
      ++at;
    else if (*at == quote)
      quote = '\0';
  }
  return withoutTrailingBlanks(text.c_str(), at);
}

// The name that stands behind blanks; `rest`, if given, becomes what follows it.
std::string leadingName(const char* text, const char** rest) {
  text = ut_skip_blanks(text);
  const char* end = ut_name_end(text);
  if (rest) *rest = end;
  return {text, end};
}

// Replaces every `pattern` that there was; false if the result is too long for a file's name.
bool replaceAll(std::string& text, std::string_view pattern, const char* value) {
  std::string result;
  std::size_t from = 0;
  for (std::size_t at; (at = text.find(pattern, from)) != std::string::npos;
       from = at + pattern.size()) {
    result.append(text, from, at - from).append(value);
    if (result.size() > kLongestFileName) return false;
  }
  result.append(text, from);
  text = std::move(result);
  return text.size() <= kLongestFileName;
}

}  // namespace

const simple_preprocessor::Directive simple_preprocessor::kDirectives[] = {
    {"include", &simple_preprocessor::include},  {"if", &simple_preprocessor::beginIf},
    {"ifdef", &simple_preprocessor::beginIfdef}, {"elif", &simple_preprocessor::elseIf},
    {"elsif", &simple_preprocessor::elseIf},     {"elseif", &simple_preprocessor::elseIf},
    {"else", &simple_preprocessor::otherwise},   {"endif", &simple_preprocessor::endIf},
    {"define", &simple_preprocessor::define},    {"undef", &simple_preprocessor::undefine},
    {"info", &simple_preprocessor::inform},      {"echo", &simple_preprocessor::inform},
    {"warning", &simple_preprocessor::warn},     {"error", &simple_preprocessor::fail},
};

simple_preprocessor::simple_preprocessor(char directive_char, ut_macro_table* parent_macros,
                                         const ut_preprocessor_callbacks* callbacks,
                                         ut_work_budget& budget, ErrorSink error_sink)
    : directive_char_(directive_char),
      budget_(budget),
      evaluator_(*this, budget),
      callbacks_(callbacks),
      parent_macros_(parent_macros),
      error_sink_(std::move(error_sink)) {}

bool simple_preprocessor::process_directive(const char* line) {
  include_pending_ = false;
  const char* keyword = line;
  if (*keyword == directive_char_) ++keyword;
  keyword = ut_skip_blanks(keyword);
  const char* text = ut_name_end(keyword);
  const std::string_view word(keyword, static_cast<std::size_t>(text - keyword));
  if (dispatch(word, withoutTrailingBlanks(text, text + std::strlen(text)))) return true;
  if (mayReport(std::strlen(line))) gen_error("illegal directive: \"%s\"", line);
  return false;
}

bool simple_preprocessor::dispatch(std::string_view keyword, const std::string& text) {
  for (const Directive& directive : kDirectives)
    if (directive.keyword == keyword) return (this->*directive.handler)(text);
  return false;
}

bool simple_preprocessor::is_skipping() const {
  return !conditions_.empty() && !conditions_.back().effective;
}

bool simple_preprocessor::include(const std::string& text) {
  const std::size_t open = text.find('"');
  if (open == std::string::npos) return false;
  const std::size_t close = text.find('"', open + 1);
  if (close == std::string::npos || close == open + 1) return false;
  if (is_skipping()) return true;
  std::optional<std::string> file = substituted(text.substr(open + 1, close - open - 1).c_str());
  if (!file) return false;
  include_file_ = std::move(*file);
  include_pending_ = true;
  return true;
}

bool simple_preprocessor::beginIf(const std::string& text) {
  const auto mode = is_skipping() ? ut_evaluation::skipping : ut_evaluation::live;
  pushCondition(evaluator_.evaluate(text.c_str(), mode) != 0);
  return true;
}

bool simple_preprocessor::beginIfdef(const std::string& text) {
  pushCondition(macro_value(leadingName(text.c_str(), nullptr).c_str(), false).has_value());
  return true;
}

bool simple_preprocessor::elseIf(const std::string& text) {
  if (conditions_.empty()) return unexpected("elif");
  const bool decided = conditions_.back().taken;
  const auto mode = decided || !parentEffective() ? ut_evaluation::skipping : ut_evaluation::live;
  const bool holds = evaluator_.evaluate(text.c_str(), mode) != 0;
  setBranch(holds && !decided);
  return true;
}

bool simple_preprocessor::otherwise(const std::string&) {
  if (conditions_.empty() || conditions_.back().else_seen) return unexpected("else");
  setBranch(!conditions_.back().taken);
  conditions_.back().else_seen = true;
  return true;
}

bool simple_preprocessor::endIf(const std::string&) {
  if (conditions_.empty()) return unexpected("endif");
  conditions_.pop_back();
  return true;
}

bool simple_preprocessor::define(const std::string& text) {
  return is_skipping() || define_macro_text(withoutComment(text).c_str());
}

bool simple_preprocessor::undefine(const std::string& text) {
  if (!is_skipping()) undefine_macro_text(text.c_str());
  return true;
}

bool simple_preprocessor::inform(const std::string& text) {
  if (!is_skipping() && mayReport(text.size())) gen_info("%s", text.c_str());
  return true;
}

bool simple_preprocessor::warn(const std::string& text) {
  if (!is_skipping() && mayReport(text.size())) gen_warning("%s", text.c_str());
  return true;
}

bool simple_preprocessor::fail(const std::string& text) {
  if (!is_skipping() && mayReport(text.size())) gen_error("%s", text.c_str());
  return true;
}

void simple_preprocessor::define_macro(const char* name, const char* value) {
  own_macros_.set(name, value);
}

bool simple_preprocessor::define_macro_text(const char* text) {
  const char* value;
  const std::string name = leadingName(text, &value);
  if (name.empty()) return false;
  define_macro(name.c_str(), ut_skip_blanks(value));
  return true;
}

void simple_preprocessor::undefine_macro_text(const char* text) {
  own_macros_.remove(leadingName(text, nullptr).c_str());
}

std::optional<ut_string> simple_preprocessor::macro_value(const ut_string& key, bool complain) {
  if (const ut_string* value = own_macros_.find(key)) return *value;
  const ut_string* inherited = parent_macros_ ? parent_macros_->find(key) : nullptr;
  if (inherited) return *inherited;
  if (callbacks_ && callbacks_->has_macro && callbacks_->macro_value &&
      callbacks_->has_macro(callbacks_->context, key)) {
    if (const char* value = callbacks_->macro_value(callbacks_->context, key))
      return ut_string(value);
  }
  if (complain && mayReport(static_cast<std::size_t>(key.length())))
    gen_error("macro not defined(%s) ...", key.c_str());
  return std::nullopt;
}

std::optional<ut_string> simple_preprocessor::macro_value(const char* name, bool complain) {
  return macro_value(ut_string(name), complain);
}

std::optional<ut_string> simple_preprocessor::macro_value(const char* name, ut_evaluation mode) {
  return macro_value(ut_string(name), mode == ut_evaluation::live);
}

std::uint32_t simple_preprocessor::call_function(const char* name, int argc,
                                                 const char* const* argv, ut_evaluation mode) {
  const std::string_view function(name);
  const bool asksFile = function == "fileexists" || function == "file_exists";
  if (asksFile || function == "defined" || function == "notempty" || function == "env") {
    if (argc != 1) {
      if (mayReport(function.size())) gen_error("too many arguments %s", name);
      return 0;
    }
    if (asksFile) return fileReadable(argv[0]);
    if (function == "env") return environmentNumber(argv[0]);
    const std::optional<ut_string> value = macro_value(argv[0], false);
    return value && (function == "defined" || value->length() > 0);
  }
  if (function == "streq") {
    if (argc >= 2) return equalsAny(argc, argv, mode);
    if (mayReport(function.size())) gen_error("too few arguments %s", name);
    return 0;
  }
  if (mayReport(function.size())) gen_error("unknown function: %s", name);
  return 0;
}

void simple_preprocessor::macro_recursion(const char* name) {
  error_sink_(gen_asprintf("macro recursion detected for: \"%s\"", name));
}

void simple_preprocessor::pushCondition(bool holds) {
  conditions_.push_back({holds && !is_skipping(), holds, false});
}

void simple_preprocessor::setBranch(bool holds) {
  Condition& top = conditions_.back();
  top.effective = holds && parentEffective();
  top.taken = top.taken || holds;
}

bool simple_preprocessor::parentEffective() const {
  return conditions_.size() < 2 || conditions_[conditions_.size() - 2].effective;
}

// The directive is a legal one all the same.
bool simple_preprocessor::unexpected(const char* directive) {
  if (mayReport(0)) gen_error("unexpected directive: %s", directive);
  return true;
}

bool simple_preprocessor::mayReport(std::size_t length) {
  return budget_.spend(kReportCost + length);
}

// A file's name with the directories in it put in; nothing if that gets too long.
std::optional<std::string> simple_preprocessor::substituted(const char* name) {
  std::string result = name;
  if (result.find("_DIR") == std::string::npos) return result;
  const std::optional<ut_string> program = macro_value("_VESTREL_DIR", false);
  const std::optional<ut_string> own = macro_value("__DIR__", false);
  const char* programDirectory = program ? program->c_str() : gen_program_dir();
  const char* ownDirectory = own ? own->c_str() : gen_getcwd();
  const bool fits = replaceAll(result, "${__VESTREL_DIR__}", programDirectory) &&
                    replaceAll(result, "${_VESTREL_DIR}", programDirectory) &&
                    replaceAll(result, "${__DIR__}", ownDirectory) &&
                    replaceAll(result, "_VESTREL_DIR", programDirectory);
  if (!fits || !budget_.spend(result.size())) return std::nullopt;
  return result;
}

std::uint32_t simple_preprocessor::fileReadable(const char* name) {
  if (!budget_.spend(kTestedFileCost)) return 0;
  const std::optional<std::string> file = substituted(name);
  return file && V_access(file->c_str(), platform::accessRead) == 0;
}

std::uint32_t simple_preprocessor::environmentNumber(const char* name) {
  const char* value = callbacks_ && callbacks_->macro_value
                          ? callbacks_->macro_value(callbacks_->context, name)
                          : nullptr;
  return gen_strtoul(value, nullptr, 0);
}

std::uint32_t simple_preprocessor::equalsAny(int argc, const char* const* argv,
                                             ut_evaluation mode) {
  const std::optional<ut_string> value = macro_value(argv[0], mode);
  if (!value) return 0;
  return std::any_of(argv + 1, argv + argc, [&](const char* text) {
    const std::optional<ut_string> other = macro_value(text, false);
    return budget_.spend(static_cast<std::size_t>(value->length())) &&
           *value == (other ? other->c_str() : text);
  });
}
