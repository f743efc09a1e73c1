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

class ut_options_reader {
 public:
  /// Reads into `node`.
  ut_options_reader(ut_token_stream& stream, const ut_options_database::Settings& settings,
                    ut_attribute_list& node);

  /// Runs to the end of the input, or to the first error, which is reported; false then.
  bool read();

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
  ut_attribute_list* child(const std::string& name);
  bool failed(const std::string& message);

  ut_token_stream& stream_;
  const ut_options_database::Settings& settings_;
  ut_attribute_list& base_;
  ut_attribute_list* scope_;
  ut_attribute_list* current_;
  int blocksMade_ = 0;
};
