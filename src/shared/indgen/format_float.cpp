// Floating-point conversions: digits generated in double arithmetic, and their forms `f`, `e`, `g`.
#include <algorithm>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "indgen/format_field.h"

namespace {

constexpr int kMaxPrecise = 56;      // digits from here on are printed as zeros
constexpr int kMaxExponent = 20000;  // stops the scaling of what never gets small
constexpr int kDefaultPrecision = 6;
constexpr double kDigitBlock = 1e8;  // the fraction gives its digits in blocks of 8
constexpr int kDigitBlockDigits = 8;

// The digits of a number without its sign and point.
struct Digits {
  char text[kMaxPrecise + 309 + 3 * kDigitBlockDigits];  // 309: places before the point of a double
  int count = 0;
  int exponent = 0;  // digits in front of the point: 1 for 1.5, 0 for 0.5
};

// Brings a value into [1, 1e8), or leaves a 0, and returns the exponent that it took out.
int scale(double& value) {
  int exponent = 0;
  if (value >= kDigitBlock) {
    constexpr struct {
      double limit, factor;
      int step;
    } kDown[] = {{1e108, 1e-100, 100}, {1e18, 1e-10, 10}, {1e8, 0.1, 1}};
    for (const auto& down : kDown)
      for (; value >= down.limit && exponent <= kMaxExponent; exponent += down.step)
        value *= down.factor;
  } else {
    constexpr struct {
      double limit, factor;
      int step;
    } kUp[] = {{1e-92, 1e100, 100}, {0.01, 1e10, 10}, {1.0, 10, 1}};
    for (const auto& up : kUp)
      for (; value < up.limit && value != 0; exponent -= up.step) value *= up.factor;
  }
  return exponent;
}

// Rounds to `count` digits by the digit behind them.
void roundDigits(Digits& digits, bool fixedMode) {
  char* const text = digits.text;
  if (digits.count <= 0) {
    const bool up = digits.count == 0 && text[0] >= '5';
    digits.count = up ? 1 : 0;
    if (up) {
      text[0] = '1';
      ++digits.exponent;
    }
    return;
  }
  if (text[digits.count] < '5') return;
  int last = digits.count - 1;
  for (++text[last]; last > 0 && text[last] > '9'; ++text[--last]) text[last] = '0';
  if (text[0] > '9') {
    text[0] = '1';
    ++digits.exponent;
    if (fixedMode) text[digits.count++] = '0';
  }
}

// `count` digits of a finite value: significant ones, or in fixed mode those behind the point.
Digits generateDigits(double value, int count, bool fixedMode) {
  Digits digits;
  digits.count = std::clamp(count, fixedMode ? 0 : 1, kMaxPrecise);
  value = std::fabs(value);
  digits.exponent = scale(value);

  double whole = 0;
  double fraction = std::modf(value, &whole);
  const char* const start = digits.text;
  char* const limit = digits.text + sizeof digits.text;
  char* end = std::to_chars(digits.text, limit, static_cast<std::uint32_t>(whole)).ptr;
  digits.exponent += static_cast<int>(end - start);
  if (fixedMode) digits.count += digits.exponent;

  while (end - start <= digits.count) {
    fraction = std::modf(fraction * kDigitBlock, &whole);
    auto block = static_cast<std::uint32_t>(whole);
    for (int i = kDigitBlockDigits; i-- > 0; block /= 10)
      end[i] = static_cast<char>('0' + block % 10);
    end += kDigitBlockDigits;
  }
  roundDigits(digits, fixedMode);
  return digits;
}

int usableDigits(const Digits& digits) {
  return std::min(digits.count, kMaxPrecise);
}

// Adds `count` digits from a position on, which may lie in front of the first digit; where there
// are none, zeros.
void addDigits(FieldText& text, const Digits& digits, int position, int count) {
  const int leading = std::clamp(-position, 0, count);
  const int available = std::max(usableDigits(digits) - (position + leading), 0);
  const int real = std::min(available, count - leading);
  text.repeat('0', static_cast<std::size_t>(leading));
  if (real > 0) text.add(digits.text + (position + leading), static_cast<std::size_t>(real));
  text.repeat('0', static_cast<std::size_t>(count - leading - real));
}

// Adds the point and `precision` digits from a position on; `trim` leaves out zeros at the end, and
// then the point too if nothing follows it.
void addFraction(FieldText& text, const FormatSpec& spec, const Digits& digits, int position,
                 bool trim) {
  int count = spec.precision;
  if (trim) {
    int significant = usableDigits(digits);
    while (significant > 0 && digits.text[significant - 1] == '0') --significant;
    count = std::clamp(significant - position, 0, count);
  }
  if (count > 0 || spec.alternate) {
    const char* const point = std::localeconv()->decimal_point;
    text.add(point, std::strlen(point));
  }
  addDigits(text, digits, position, count);
}

}  // namespace

std::size_t printFloating(FormatSpec spec, double value) {
  FieldText text;
  if (!std::isfinite(value)) {
    spec.precision = FormatSpec::kNone;
    text.add(std::isnan(value) ? "nan" : "inf", 3);
    return printField(spec, text);
  }

  if (!(value >= 0))
    text.add("-", 1);
  else if (spec.plusSign)
    text.add("+", 1);
  else if (spec.spaceSign)
    text.add(" ", 1);

  if (spec.precision == FormatSpec::kNone) spec.precision = kDefaultPrecision;
  const bool general = spec.conversion == 'g' || spec.conversion == 'G';
  const bool upper = spec.conversion == 'E' || spec.conversion == 'G';
  bool fixed = spec.conversion == 'f';
  if (general) spec.precision = std::max(spec.precision, 1);
  const Digits digits =
      generateDigits(value, fixed || general ? spec.precision : spec.precision + 1, fixed);
  if (general) {
    fixed = digits.exponent >= -3 && digits.exponent <= spec.precision;
    spec.precision -= fixed ? digits.exponent : 1;
  }
  const bool trim = general && !spec.alternate;

  char exponentText[8];
  if (fixed) {
    if (digits.exponent > 0)
      addDigits(text, digits, 0, digits.exponent);
    else
      text.repeat('0', 1);
    addFraction(text, spec, digits, digits.exponent, trim);
  } else {
    addDigits(text, digits, 0, 1);
    addFraction(text, spec, digits, 1, trim);
    const int exponent = digits.exponent - 1;
    char* end = exponentText;
    *end++ = upper ? 'E' : 'e';
    *end++ = exponent < 0 ? '-' : '+';
    if (std::abs(exponent) < 10) *end++ = '0';
    end = std::to_chars(end, exponentText + sizeof exponentText, std::abs(exponent)).ptr;
    text.add(exponentText, static_cast<std::size_t>(end - exponentText));
  }
  spec.precision = FormatSpec::kNone;
  return printField(spec, text);
}
