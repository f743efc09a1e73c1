// The statements of a configuration file: takes tokens and builds the tree of blocks.
//
// A reader serves one file. The stream and the blocks belong to the caller. It walks the tree by
// the blocks' own links, so that nesting of any depth costs no stack.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libcxxutil/ut_options_database.h"
#include "libcxxutil/ut_token_stream.h"

/// Follows a reading, to tell people more of it than the tree does. The stream stands at what each
/// call is about.
class ut_options_observer {
 public:
  virtual ~ut_options_observer() = default;
  /// A block was made, or with `again` opened once more.
  virtual void opened(const ut_attribute_list& block, bool again) = 0;
  /// An attribute was set or added to.
  virtual void assigned(const ut_attribute_list& block, const std::string& name) = 0;
  /// A text had no closing quote, and so has ended with its line.
  virtual void unclosedText() = 0;
  /// A syntax error follows; `expected` is what would have been none, and may be empty.
  virtual void failed(const std::string& expected) = 0;
};

class ut_options_reader {
 public:
  /// Reads into `node`. The observer may be null.
  ut_options_reader(ut_token_stream& stream, const ut_options_database::Settings& settings,
                    ut_attribute_list& node, ut_options_observer* observer = nullptr);

  /// Runs to the end of the input, or to the first error, which is reported; false then.
  bool read();
  /// The innermost block that is open.
  const ut_attribute_list& scope() const { return *scope_; }

 private:
  bool statement(char* token);
  bool operate(const std::string& name, const char* operation);
  bool descend(const std::string& name);
  bool openBlock(const std::string& name);
  bool closeBlock();
  bool value(const std::string& name, bool append);
  bool list(const std::string& name, bool append);
  bool listItem(const std::string& name, char* token, bool number, bool append);
  bool parseNumber(const char* token, std::optional<std::int32_t>& result);
  std::string nameFrom(char* token);
  const char* textOf(char* token);
  ut_attribute_list* child(const std::string& name);
  bool failed(const std::string& message, const std::string& expected);

  ut_token_stream& stream_;
  const ut_options_database::Settings settings_;
  ut_attribute_list& base_;
  ut_attribute_list* scope_;
  ut_attribute_list* current_;
  ut_options_observer* observer_;
  int blocksMade_ = 0;
};
