// The conditions of `%if`: 32-bit integer expressions over macros and functions.
//
// Operators of one precedence group to the right, and both sides of `&&` and `||` are computed.
// Comparisons are unsigned, shifts bring in zeros, arithmetic wraps. What names mean is asked of a
// client, which outlives the evaluator, as does the budget that the work is paid from.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libcxxutil/ut_string.h"
#include "libcxxutil/ut_work_budget.h"

/// How an expression is evaluated: for its value, or only for its form, with no word about macros
/// that are missing.
enum class ut_evaluation : bool { live, skipping };

class ut_simple_integer_evaluator_client_interface {
 public:
  virtual ~ut_simple_integer_evaluator_client_interface() = default;
  /// The value of a macro; nothing, with a complaint unless `mode` says skipping, if there is none.
  virtual std::optional<ut_string> macro_value(const char* name, ut_evaluation mode) = 0;
  /// The value of a function with the texts of its arguments.
  virtual std::uint32_t call_function(const char* name, int argc, const char* const* argv,
                                      ut_evaluation mode) = 0;
  /// Reports a macro whose value leads back to it.
  virtual void macro_recursion(const char* name) = 0;
};

class ut_simple_integer_evaluator {
 public:
  ut_simple_integer_evaluator(ut_simple_integer_evaluator_client_interface& client,
                              ut_work_budget& budget)
      : client_(client), budget_(budget) {}
  ut_simple_integer_evaluator(const ut_simple_integer_evaluator&) = delete;
  ut_simple_integer_evaluator& operator=(const ut_simple_integer_evaluator&) = delete;

  /// The value of an expression. Syntax errors are reported and count as 0; so do macros that refer
  /// to themselves. With the budget used up it is 0 without a word.
  std::uint32_t evaluate(const char* text, ut_evaluation mode);

 private:
  class Input;
  struct Token;

  std::uint32_t expression(Input& input, int floor);
  std::optional<std::uint32_t> primary(Input& input);
  std::optional<std::uint32_t> call(Input& input, const std::string& name);
  std::uint32_t macro(const std::string& name);
  std::uint32_t apply(const Token& operation, std::uint32_t left, std::uint32_t right) const;
  bool enter(Input& input);
  std::uint32_t syntaxError(const Input& input);

  ut_simple_integer_evaluator_client_interface& client_;
  ut_work_budget& budget_;
  ut_evaluation mode_ = ut_evaluation::live;
  int levels_ = 0;       // expressions that are being computed
  int macroLevels_ = 0;  // macro values among them
  bool abandoned_ = false;
  bool recursionReported_ = false;
};
