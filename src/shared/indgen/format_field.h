// What the conversions of formatted printing share: the flags and sizes read behind a `%`,
// and the one step through which every conversion puts its text into its field.
//
// Nothing here owns text: a field's text is a row of runs that the conversion keeps alive while it
// is printed, so that no precision, however large, needs memory.
#pragma once

#include <cstddef>

#include "indgen/format.h"

struct FormatSpec {
  static constexpr int kNone = -1;

  int width = kNone;
  int precision = kNone;
  bool zeroFill = false;
  bool leftAlign = false;
  bool plusSign = false;
  bool spaceSign = false;
  bool alternate = false;
  bool isString = false;
  bool longFlag = false;      ///< `l` and `ll`
  bool longLongFlag = false;  ///< `L` and `ll`
  bool shortFlag = false;     ///< `h`
  bool hasPrecision = false;
  char conversion = '\0';
  gen_sink sink = nullptr;
  void* sinkContext = nullptr;
};

/// The text of one conversion.
class FieldText {
 public:
  /// Adds characters, which must stay alive until the field is printed.
  void add(const char* text, std::size_t length);
  /// Adds `count` times the same character.
  void repeat(char c, std::size_t count);

  std::size_t length() const { return length_; }
  /// The character at `index`, 0 behind the end.
  char at(std::size_t index) const;
  /// Gives the characters from `begin` up to `end` to the sink of `spec`.
  void print(const FormatSpec& spec, std::size_t begin, std::size_t end) const;

 private:
  static constexpr std::size_t kMaxRuns = 10;  // a floating-point number has the most
  struct Run {
    const char* text;  // null for a repeated character
    char repeated;
    std::size_t length;
  };
  Run runs_[kMaxRuns];
  std::size_t runCount_ = 0;
  std::size_t length_ = 0;
};

/// Prints a text in the field of `spec`, cut to its precision. Returns the characters printed.
std::size_t printField(const FormatSpec& spec, const FieldText& text);

/// Prints a number under `f`, `e`, `E`, `g` or `G`.
std::size_t printFloating(FormatSpec spec, double value);
