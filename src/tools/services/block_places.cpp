#include "tools/services/block_places.h"

#include <fstream>
#include <string_view>

#include "libcxxutil/ut_options_database.h"
#include "tools/services/exact_lines.h"

namespace services {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// The macros that every file sees.
void definePredefined(ut_macro_table& macros) {
  ut_options_database database("");
  for (const char* name :
       {"_VESTREL_DIR", "__VESTREL_DIR__", "__VESTREL_HOST__", "__VESTREL_WIN32_DEV_HOST__"})
    if (const char* value = database.macro_value(name, false)) macros.set(name, value);
}

bool isMarked(const std::string& file) {
  char first[kByteOrderMark.size()] = {};
  std::ifstream(file, std::ios::binary).read(first, sizeof first);
  return std::string_view(first, sizeof first) == kByteOrderMark;
}

}  // namespace

BlockPlaces::BlockPlaces(const char* file) {
  ut_macro_table macros;
  definePredefined(macros);
  ut_token_stream stream(false, true, &macros, nullptr);
  {
    const ReportCapture capture(reports_, [&] { return placeOf(stream.position()); });
    if (stream.open(file)) read(stream);
  }
  for (const std::string& opened : stream.opened_files())
    if (isMarked(opened)) markedFiles_.push_back(opened);
  ExactLines lines(file, macros, stream.opened_files().size());
  const auto makeExact = [&](Place& place) { place = lines.of_statement(place); };
  for (auto& [block, known] : places_) {
    makeExact(known.place);
    for (auto& [name, place] : known.attributes) makeExact(place);
  }
  for (Place& place : unclosedTexts_) makeExact(place);
  for (Again& again : openedAgain_) makeExact(again.place);
  for (Finding& report : reports_) report.place = lines.of_report(report.place, report.text);
}

Place BlockPlaces::of(const ut_attribute_list& block) const {
  const auto known = places_.find(&block);
  return known == places_.end() ? Place() : known->second.place;
}

Place BlockPlaces::of(const ut_attribute_list& block, const char* attribute) const {
  const auto known = places_.find(&block);
  if (known == places_.end()) return {};
  const auto place = known->second.attributes.find(attribute);
  return place == known->second.attributes.end() ? known->second.place : place->second;
}

void BlockPlaces::read(ut_token_stream& stream) {
  stream_ = &stream;
  ut_options_reader reader(stream, {}, root_, this);
  if (reader.read() && !stream.cut_short()) noteEnd(reader.scope());
  stream_ = nullptr;
}

void BlockPlaces::noteEnd(const ut_attribute_list& scope) {
  if (&scope == &root_) return;
  unclosedBlock_ = &scope;
  for (const ut_attribute_list* block = &scope; block != &root_; block = block->parent())
    if (block->block_open()) ++unclosedBlocks_;
}

void BlockPlaces::opened(const ut_attribute_list& block, bool again) {
  const Place place = placeOf(stream_->position());
  if (again)
    openedAgain_.push_back({&block, place});
  else
    places_[&block].place = place;
}

void BlockPlaces::assigned(const ut_attribute_list& block, const std::string& name) {
  places_[&block].attributes[name] = placeOf(stream_->position());
}

void BlockPlaces::unclosedText() {
  unclosedTexts_.push_back(placeOf(stream_->position()));
}

}  // namespace services
