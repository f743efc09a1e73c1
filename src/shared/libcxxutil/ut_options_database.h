// A configuration: a tree of blocks that is read from text files and can be written back.
//
// The database is the root of its tree and holds the macros that its files see. It is used by one
// thread, and reads one file at a time. Callbacks stay their owner's unless the database was told
// to own them; then their `destroy` is called with it.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "libcxxutil/ut_attribute_list.h"
#include "libcxxutil/ut_macro_table.h"
#include "libcxxutil/ut_preprocessor_callbacks.h"

class ut_token_stream;

class ut_options_database : public ut_attribute_list {
 public:
  /// An empty tree; `title` is kept and nothing else. `callbacks` may be null.
  explicit ut_options_database(const char* title,
                               const ut_preprocessor_callbacks* callbacks = nullptr,
                               bool owns_callbacks = false);
  ~ut_options_database() override;

  const char* title() const { return title_.c_str(); }

  /// Settings of the format, all off at first. They hold for later reads and writes.
  struct Settings {
    bool raw_values = false;     ///< values without quotes are texts; writing gives the flat form
    bool size_suffixes = false;  ///< `K` and `M` behind a number multiply it
    bool integer_lists = false;  ///< lists of numbers, and `+=` with a number, can be read
  };
  Settings& settings() { return settings_; }
  void set_raw_values(bool on) { settings_.raw_values = on; }
  void set_size_suffixes(bool on) { settings_.size_suffixes = on; }
  void set_integer_lists(bool on) { settings_.integer_lists = on; }

  /// Parses `file` into the root, or into `node` of this tree. False if it can't be opened, which
  /// isn't reported, or at the first syntax error, which is; what was parsed before stays.
  bool read(const char* file);
  bool read(const char* file, ut_attribute_list& node);
  /// The same for a stream on `file`, which is closed.
  bool read(const char* file, std::FILE* stream);
  bool open_failed() const { return open_failed_; }
  bool parse_failed() const { return parse_failed_; }
  bool had_errors() const { return open_failed_ || parse_failed_; }
  /// Every file that was opened, includes too, in order.
  const std::vector<std::string>& files_read() const { return files_read_; }

  /// Writes the tree; false if the stream's error flag is set afterwards.
  bool write(std::FILE* stream) const;
  /// Makes or empties the file. False if it can't be opened, which isn't reported, or if writing
  /// fails, which is.
  bool write_to_file(const char* path) const;

  void define_macro(const char* name, const char* value);
  /// From `NAME=value`, or `NAME` for an empty value.
  void define_macro_text(const char* text);
  void define_macro_int(const char* name, std::int32_t value);
  /// Every attribute of `node` by name and text; one that isn't a `str` gets an empty value.
  void define_macros_from(const ut_attribute_list& node);
  void copy_macros_from(const ut_options_database& database);
  /// The value, valid until the macros change; null, with an error if `complain` is set, for none.
  const char* macro_value(const char* name, bool complain);

 private:
  const char* only_file() const override;
  bool parse(ut_token_stream& stream, ut_attribute_list& node);
  bool failToOpen();

  const std::string title_;
  ut_macro_table macros_;
  std::vector<std::string> files_read_;
  const ut_preprocessor_callbacks* callbacks_;
  const bool owns_callbacks_;
  bool open_failed_ = false, parse_failed_ = false;
  Settings settings_;
};
