#include "tools/services/block_places.h"

#include <cstring>

#include "libcxxutil/ut_options_database.h"

namespace services {
namespace {

// The macros that every file sees.
void definePredefined(ut_macro_table& macros) {
  ut_options_database database("");
  for (const char* name :
       {"_VESTREL_DIR", "__VESTREL_DIR__", "__VESTREL_HOST__", "__VESTREL_WIN32_DEV_HOST__"})
    if (const char* value = database.macro_value(name, false)) macros.set(name, value);
}

bool startsName(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '"';
}

}  // namespace

BlockPlaces::BlockPlaces(const char* file) {
  ut_macro_table macros;
  definePredefined(macros);
  ut_token_stream stream(false, true, &macros, nullptr);
  {
    const ReportCapture capture(reports_, [&] { return placeOf(stream.position()); });
    if (stream.open(file)) walk(stream);
  }
  lines_.emplace(file, macros, stream.opened_files().size());
  for (auto& [block, place] : places_) place = lines_->of_statement(place);
  for (Finding& report : reports_) report.place = lines_->of_report(report.place, report.text);
}

Place BlockPlaces::of(const ut_attribute_list& block) const {
  const auto place = places_.find(&block);
  return place == places_.end() ? Place() : place->second;
}

void BlockPlaces::walk(ut_token_stream& stream) {
  bool good = true;
  while (good) {
    if (stream.at_end_of_line()) current_ = scope_;
    char* token = stream.next_token();
    if (!token) return;
    good = statement(stream, token);
  }
}

bool BlockPlaces::statement(ut_token_stream& stream, char* token) {
  if (std::strcmp(token, ";") == 0) return true;
  std::string name;
  const char* operation = token;
  if (startsName(*token)) {
    const char* text = *token == '"' ? stream.unescape_string(token) : token;
    name = text ? text : "";
    if (stream.at_end_of_line()) return false;
    operation = stream.next_token();
  }
  switch (operation ? *operation : '\0') {
    case '.':
      return enter(name, false, stream);
    case '{':
      return enter(name, true, stream);
    case '}':
      return close();
    case '=':
    case '+':
      return value(name, stream);
    default:
      return false;
  }
}

bool BlockPlaces::enter(const std::string& name, bool open, ut_token_stream& stream) {
  ut_attribute_list* child = current_->find_child(name.c_str());
  if (!child) {
    child = current_->add_child(name.c_str());
    places_[child] = placeOf(stream.position());
  }
  current_ = child;
  if (!open) return true;
  child->set_block_open(true);
  scope_ = child;
  return true;
}

bool BlockPlaces::close() {
  if (scope_ == &root_) return false;
  scope_->set_block_open(false);
  do scope_ = scope_->parent();
  while (scope_ != &root_ && !scope_->block_open());
  current_ = scope_;
  return true;
}

bool BlockPlaces::value(const std::string& name, ut_token_stream& stream) {
  const char* token = stream.next_token();
  if (!token) return false;
  if (*token == '"') {
    current_->add_or_replace_str(name.c_str(), "");
    return true;
  }
  current_->add_or_replace_int32(name.c_str(), 0);
  if (*token == '-') return stream.next_token() != nullptr;
  // No item of a list holds a brace outside its quotes.
  if (*token == '{')
    while (token && *token != '}') token = stream.next_token();
  return token != nullptr;
}

}  // namespace services
