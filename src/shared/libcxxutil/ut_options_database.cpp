#include "libcxxutil/ut_options_database.h"

#include <cstring>
#include <string>

#include "indgen/access.h"
#include "indgen/config_dirs.h"
#include "indgen/program.h"
#include "indgen/report.h"
#include "libcxxutil/ut_options_reader.h"
#include "libcxxutil/ut_options_writer.h"
#include "libcxxutil/ut_token_stream.h"

namespace {

constexpr bool kFatalErrors = false, kFilenameTokens = true;

}  // namespace

ut_options_database::ut_options_database(const char* title,
                                         const ut_preprocessor_callbacks* callbacks,
                                         bool owns_callbacks)
    : ut_attribute_list(nullptr),
      title_(title ? title : ""),
      callbacks_(callbacks),
      owns_callbacks_(owns_callbacks) {
  set_is_database();
  define_macro("_VESTREL_DIR", gen_program_dir());
  define_macro("__VESTREL_DIR__", gen_program_dir());
  // Files written for other systems test this name, and know one value of it.
  define_macro("__VESTREL_HOST__", "win32");
  if (gen_is_development_layout()) define_macro("__VESTREL_WIN32_DEV_HOST__", "1");
}

ut_options_database::~ut_options_database() {
  if (owns_callbacks_ && callbacks_ && callbacks_->destroy)
    callbacks_->destroy(callbacks_->context);
}

bool ut_options_database::read(const char* file) {
  return read(file, *this);
}

bool ut_options_database::read(const char* file, ut_attribute_list& node) {
  if (callbacks_ && callbacks_->include_filter &&
      !callbacks_->include_filter(callbacks_->context, file, 0))
    return true;
  ut_token_stream stream(kFatalErrors, kFilenameTokens, &macros_, callbacks_);
  return stream.open(file) ? parse(stream, node) : failToOpen();
}

bool ut_options_database::read(const char* file, std::FILE* stream) {
  ut_token_stream tokens(kFatalErrors, kFilenameTokens, &macros_, callbacks_);
  return tokens.open(file, stream) ? parse(tokens, *this) : failToOpen();
}

bool ut_options_database::failToOpen() {
  open_failed_ = true;
  return false;
}

bool ut_options_database::parse(ut_token_stream& stream, ut_attribute_list& node) {
  const bool parsed = ut_options_reader(stream, settings_, node).read();
  if (!parsed) parse_failed_ = true;
  files_read_.insert(files_read_.end(), stream.opened_files().begin(), stream.opened_files().end());
  return parsed;
}

bool ut_options_database::write(std::FILE* stream) const {
  if (settings_.raw_values)
    ut_write_flat(*this, stream);
  else
    ut_write_blocks(*this, stream);
  return std::ferror(stream) == 0;
}

bool ut_options_database::write_to_file(const char* path) const {
  std::FILE* stream = V_fopen(path, "wt");
  if (!stream) return false;
  const bool written = write(stream);
  const bool closed = std::fclose(stream) == 0;
  if (!written || !closed) gen_error("failed when writing %s", path);
  return written && closed;
}

void ut_options_database::define_macro(const char* name, const char* value) {
  macros_.set(name, value);
}

void ut_options_database::define_macro_text(const char* text) {
  if (!text) return;
  const char* split = std::strchr(text, '=');
  if (split)
    define_macro(std::string(text, split).c_str(), split + 1);
  else
    define_macro(text, "");
}

void ut_options_database::define_macro_int(const char* name, std::int32_t value) {
  define_macro(name, std::to_string(value).c_str());
}

void ut_options_database::define_macros_from(const ut_attribute_list& node) {
  for (const ut_attribute* a = node.first_attribute(); a; a = node.next_attribute(a))
    define_macro(attribute_name(a), attribute_str(a));
}

void ut_options_database::copy_macros_from(const ut_options_database& database) {
  macros_.merge(database.macros_);
}

const char* ut_options_database::macro_value(const char* name, bool complain) {
  const ut_string* value = macros_.find(name);
  if (!value && complain) gen_error("macro not defined(%s) ...", name ? name : "");
  return value ? value->c_str() : nullptr;
}

const char* ut_options_database::only_file() const {
  return files_read_.size() == 1 ? files_read_.front().c_str() : nullptr;
}
