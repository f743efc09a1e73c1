// Directives, macros and conditions of configuration files.
//
// One preprocessor serves one reading: its conditions stay in force across included files. Macros
// that the files set go into a table of its own; the database's table, which is searched behind it,
// the callbacks and the budget belong to others and outlive it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libcxxutil/ut_macro_table.h"
#include "libcxxutil/ut_preprocessor_callbacks.h"
#include "libcxxutil/ut_simple_integer_evaluator.h"
#include "libcxxutil/ut_simple_preprocessor_interface.h"

class simple_preprocessor : public ut_simple_preprocessor_interface,
                            public ut_simple_integer_evaluator_client_interface {
 public:
  /// Takes a message that is to be shown with the place in the file.
  using ErrorSink = std::function<void(const char* message)>;

  /// `parent_macros` and `callbacks` may be null.
  simple_preprocessor(char directive_char, ut_macro_table* parent_macros,
                      const ut_preprocessor_callbacks* callbacks, ut_work_budget& budget,
                      ErrorSink error_sink);

  bool process_directive(const char* line) override;
  bool is_skipping() const override;
  bool has_pending_include() const override { return include_pending_; }
  const char* pending_include() const override { return include_file_.c_str(); }
  void define_macro(const char* name, const char* value) override;
  bool define_macro_text(const char* text) override;
  void undefine_macro_text(const char* text) override;
  std::optional<ut_string> macro_value(const ut_string& key, bool complain) override;
  std::optional<ut_string> macro_value(const char* name, bool complain) override;

  std::optional<ut_string> macro_value(const char* name, ut_evaluation mode) override;
  std::uint32_t call_function(const char* name, int argc, const char* const* argv,
                              ut_evaluation mode) override;
  void macro_recursion(const char* name) override;

 private:
  struct Condition {
    bool effective, taken, else_seen;
  };
  using Handler = bool (simple_preprocessor::*)(const std::string& text);
  struct Directive {
    std::string_view keyword;
    Handler handler;
  };
  static const Directive kDirectives[];

  bool dispatch(std::string_view keyword, const std::string& text);
  bool include(const std::string& text);
  bool beginIf(const std::string& text);
  bool beginIfdef(const std::string& text);
  bool elseIf(const std::string& text);
  bool otherwise(const std::string& text);
  bool endIf(const std::string& text);
  bool define(const std::string& text);
  bool undefine(const std::string& text);
  bool inform(const std::string& text);
  bool warn(const std::string& text);
  bool fail(const std::string& text);

  void pushCondition(bool holds);
  void setBranch(bool holds);
  bool parentEffective() const;
  bool unexpected(const char* directive);
  bool mayReport(std::size_t length);
  std::optional<std::string> substituted(const char* name);
  std::uint32_t fileReadable(const char* name);
  std::uint32_t environmentNumber(const char* name);
  std::uint32_t equalsAny(int argc, const char* const* argv, ut_evaluation mode);

  const char directive_char_;
  bool include_pending_ = false;
  std::string include_file_;
  std::vector<Condition> conditions_;  // the innermost last
  ut_work_budget& budget_;
  ut_simple_integer_evaluator evaluator_;
  const ut_preprocessor_callbacks* callbacks_;
  ut_macro_table own_macros_;
  ut_macro_table* parent_macros_;
  const ErrorSink error_sink_;
};
