#include "libcxxutil/ut_simple_integer_evaluator.h"

#include <array>
#include <cstring>

#include "indgen/number.h"
#include "indgen/quote.h"
#include "indgen/report.h"
#include "indgen/text.h"
#include "libcxxutil/ut_macro_syntax.h"

namespace {

// Expressions within expressions, and macros within macros, before the evaluator loses patience.
constexpr int kDeepestExpression = 1000;
constexpr int kDeepestMacro = 64;
constexpr int kMostArguments = 12;

// Precedences that aren't a binary operator's own.
constexpr int kNoOperator = 0;
constexpr int kSignFloor = 11;
constexpr int kNotFloor = 12;

enum class Kind {
  end = 0,
  bad = 1,
  identifier = 2,
  string = 3,
  number = 4,
  open = 5,
  close = 6,
  comma = 7,
  logical_or = 8,
  logical_and = 9,
  bit_or = 10,
  bit_xor = 11,
  bit_and = 12,
  comparison = 13,
  shift = 14,
  sum = 15,
  logical_not = 16,
};

// `value` and `value2` are the two outcomes of a comparison that count as true (-1 for less, 0 for
// equal, 1 for greater); a `value` of 1 tells `-` from `+` and `<<` from `>>`.
struct Operator {
  const char* text;
  Kind kind;
  int precedence, value, value2;
};

// Longer ones before those that they start with.
constexpr Operator kOperators[] = {
    {"||", Kind::logical_or, 2, 0, 0},
    {"&&", Kind::logical_and, 3, 0, 0},
    {"==", Kind::comparison, 7, 0, 0},
    {"!=", Kind::comparison, 7, -1, 1},
    {"<<", Kind::shift, 9, 1, 0},
    {">>", Kind::shift, 9, 0, 0},
    {"<=", Kind::comparison, 8, -1, 0},
    {">=", Kind::comparison, 8, 1, 0},
    {"<", Kind::comparison, 8, -1, -1},
    {">", Kind::comparison, 8, 1, 1},
    {"|", Kind::bit_or, 4, 0, 0},
    {"^", Kind::bit_xor, 5, 0, 0},
    {"&", Kind::bit_and, 6, 0, 0},
    {"+", Kind::sum, 10, 0, 0},
    {"-", Kind::sum, 10, 1, 0},
    {",", Kind::comma, 1, 0, 0},
    {"(", Kind::open, kNoOperator, 0, 0},
    {")", Kind::close, kNoOperator, 0, 0},
    {"!", Kind::logical_not, kNoOperator, 0, 0},
};

}  // namespace

struct ut_simple_integer_evaluator::Token {
  Kind kind = Kind::end;
  int precedence = kNoOperator;
  int value = 0, value2 = 0;  // of operators
  std::uint32_t number = 0;
  std::string text;  // of identifiers and strings
  const char* start = nullptr;
};

// A text with its tokens, of which the next can be looked at.
class ut_simple_integer_evaluator::Input {
 public:
  Input(const char* text, ut_work_budget& budget) : at_(text), taken_(text), budget_(budget) {}

  const Token& peek() {
    if (!looked_) scan();
    looked_ = true;
    return next_;
  }
  Token take() {
    peek();
    looked_ = false;
    taken_ = next_.start;
    return std::move(next_);
  }
  /// Start of the token that was taken last.
  const char* lastTaken() const { return taken_; }

 private:
  void scan();
  void scanString();
  bool scanOperator();

  const char* at_;
  const char* taken_;
  ut_work_budget& budget_;
  bool looked_ = false;
  Token next_;
};

void ut_simple_integer_evaluator::Input::scan() {
  const char* const before = at_;
  at_ = ut_skip_blanks(at_);
  next_ = Token();
  next_.start = at_;
  if (*at_ == '"') {
    scanString();
  } else if (ut_is_digit(*at_)) {
    next_.kind = Kind::number;
    next_.number = gen_strtoul(at_, nullptr, 0);
    at_ = ut_number_end(at_);
  } else if (ut_starts_name(*at_)) {
    at_ = ut_name_end(at_);
    next_.kind = Kind::identifier;
    next_.text.assign(next_.start, at_);
  } else if (*at_ != '\0' && !scanOperator()) {
    next_.kind = Kind::bad;
    ++at_;
  }
  budget_.spend(static_cast<std::size_t>(at_ - before) + 1);
}

void ut_simple_integer_evaluator::Input::scanString() {
  const char* end = ut_string_end(at_);
  next_.kind = Kind::string;
  next_.text.assign(at_ + 1, end);
  gen_unescape(next_.text.data());
  next_.text.resize(std::strlen(next_.text.c_str()));
  at_ = *end == '"' ? end + 1 : end;
}

bool ut_simple_integer_evaluator::Input::scanOperator() {
  for (const Operator& operation : kOperators) {
    if (!gen_has_prefix(at_, operation.text)) continue;
    next_.kind = operation.kind;
    next_.precedence = operation.precedence;
    next_.value = operation.value;
    next_.value2 = operation.value2;
    at_ += std::strlen(operation.text);
    return true;
  }
  return false;
}

std::uint32_t ut_simple_integer_evaluator::evaluate(const char* text, ut_evaluation mode) {
  mode_ = mode;
  abandoned_ = recursionReported_ = false;
  Input input(text ? text : "", budget_);
  const std::uint32_t value = expression(input, 0);
  return abandoned_ || budget_.exhausted() ? 0 : value;
}

std::uint32_t ut_simple_integer_evaluator::expression(Input& input, int floor) {
  if (!enter(input)) return 0;
  std::optional<std::uint32_t> value = primary(input);
  while (value) {
    const Token& next = input.peek();
    const bool isOperator = next.precedence != kNoOperator;
    if (next.kind == Kind::end || next.kind == Kind::close) break;
    if (isOperator && next.precedence < floor) break;
    if (!isOperator) {
      value = syntaxError(input);
      break;
    }
    const Token operation = input.take();
    const std::uint32_t right = expression(input, operation.precedence);
    value = apply(operation, *value, right);
  }
  --levels_;
  return value.value_or(0);
}

// Nothing after a syntax error, which ends the level that found it.
std::optional<std::uint32_t> ut_simple_integer_evaluator::primary(Input& input) {
  const Token token = input.take();
  switch (token.kind) {
    case Kind::number:
      return token.number;
    case Kind::open: {
      const std::uint32_t value = expression(input, 0);
      if (input.take().kind == Kind::close) return value;
      break;
    }
    case Kind::sum: {
      const std::uint32_t value = expression(input, kSignFloor);
      return token.value ? 0 - value : value;
    }
    case Kind::logical_not:
      return expression(input, kNotFloor) == 0 ? 1 : 0;
    case Kind::identifier:
      if (input.peek().kind == Kind::open) return call(input, token.text);
      return mode_ == ut_evaluation::skipping ? 0 : macro(token.text);
    default:
      break;
  }
  syntaxError(input);
  return std::nullopt;
}

std::optional<std::uint32_t> ut_simple_integer_evaluator::call(Input& input,
                                                               const std::string& name) {
  std::array<std::string, kMostArguments> arguments;
  std::array<const char*, kMostArguments> texts{};
  int count = 0;
  input.take();
  for (bool mayEnd = true;;) {
    Token token = input.take();
    if (token.kind == Kind::close && mayEnd) break;
    const bool isArgument = token.kind == Kind::identifier || token.kind == Kind::string;
    if (isArgument && count == kMostArguments && !abandoned_ && budget_.spend(kReportCost))
      gen_error("parse error: too many arguments");
    if (!isArgument || count == kMostArguments) {
      syntaxError(input);
      return std::nullopt;
    }
    arguments[static_cast<std::size_t>(count)] = std::move(token.text);
    ++count;
    mayEnd = input.peek().kind != Kind::comma;
    if (!mayEnd) input.take();
  }
  for (std::size_t i = 0; i < arguments.size(); ++i) texts[i] = arguments[i].c_str();
  return client_.call_function(name.c_str(), count, texts.data(), mode_);
}

std::uint32_t ut_simple_integer_evaluator::macro(const std::string& name) {
  if (abandoned_ || budget_.exhausted()) return 0;
  const std::optional<ut_string> value = client_.macro_value(name.c_str(), mode_);
  if (!value || value->length() == 0) return 0;
  if (!budget_.spend(static_cast<std::size_t>(value->length()))) return 0;
  const char* end;
  const std::uint32_t number = gen_strtoul(value->c_str(), &end, 0);
  if (*end == '\0') return number;
  if (macroLevels_ == kDeepestMacro) {
    // Once is enough: values that double would repeat it without end.
    if (!recursionReported_ && budget_.spend(kReportCost + name.size()))
      client_.macro_recursion(name.c_str());
    recursionReported_ = true;
    return 0;
  }
  ++macroLevels_;
  Input input(value->c_str(), budget_);
  const std::uint32_t result = expression(input, 0);
  --macroLevels_;
  return result;
}

std::uint32_t ut_simple_integer_evaluator::apply(const Token& operation, std::uint32_t left,
                                                 std::uint32_t right) const {
  constexpr std::uint32_t kShiftBits = 31;
  switch (operation.kind) {
    case Kind::logical_or:
      return left || right;
    case Kind::logical_and:
      return left && right;
    case Kind::bit_or:
      return left | right;
    case Kind::bit_xor:
      return left ^ right;
    case Kind::bit_and:
      return left & right;
    case Kind::comparison: {
      const int outcome = left < right ? -1 : left > right ? 1 : 0;
      return outcome == operation.value || outcome == operation.value2;
    }
    case Kind::shift:
      return operation.value ? left << (right & kShiftBits) : left >> (right & kShiftBits);
    case Kind::sum:
      return operation.value ? left - right : left + right;
    default:  // the comma
      return right;
  }
}

// Counts a level in; false if the evaluation is to come to its end.
bool ut_simple_integer_evaluator::enter(Input& input) {
  if (abandoned_ || budget_.exhausted()) return false;
  if (levels_ == kDeepestExpression) {
    if (budget_.spend(kReportCost)) gen_error("parse error: expression nested too deeply");
    syntaxError(input);
    abandoned_ = true;
    return false;
  }
  ++levels_;
  return true;
}

std::uint32_t ut_simple_integer_evaluator::syntaxError(const Input& input) {
  const char* near = input.lastTaken();
  if (!abandoned_ && budget_.spend(kReportCost + std::strlen(near)))
    gen_error("parse error: near: \"%s\"", near);
  return 0;
}
