#include "indgen/format.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "indgen/format_field.h"
#include "indgen/text.h"

namespace {

// Where the engine gets its arguments. Every call takes the next one.
class ArgumentSource {
 public:
  virtual ~ArgumentSource() = default;
  /// A plain int: a width, a precision or a character.
  virtual int plainInt() = 0;
  virtual std::int64_t signedInteger(const FormatSpec& spec) = 0;
  virtual std::uint64_t unsignedInteger(const FormatSpec& spec) = 0;
  virtual std::uint64_t pointer() = 0;
  virtual double floating(const FormatSpec& spec) = 0;
  virtual const char* text() = 0;
  /// Takes a text back after printing.
  virtual void releaseText(const char* text) = 0;
  /// Stores the number of characters so far through a pointer.
  virtual void storeCount(const FormatSpec& spec, std::size_t count) = 0;
  virtual bool hasRomanNumerals() const = 0;
};

constexpr int kMaxNumber = 1000000000;  // width and precision; leaves room to reckon in an int

// Reads and prints one format.
class Engine {
 public:
  Engine(ArgumentSource& arguments, void* sinkContext, gen_sink sink)
      : arguments_(arguments), sinkContext_(sinkContext), sink_(sink) {}

  std::size_t run(const char* format) {
    if (!format) format = "(null)";
    while (*format) {
      const std::size_t plain = std::strcspn(format, "%");
      if (plain > 0) sink_(sinkContext_, format, plain);
      count_ += plain;
      format += plain;
      if (*format == '%') format = convert(format + 1);
    }
    return count_;
  }

 private:
  const char* convert(const char* at) {
    FormatSpec spec;
    spec.sink = sink_;
    spec.sinkContext = sinkContext_;
    at = readFlags(at, spec);
    at = readWidth(at, spec);
    at = readPrecision(at, spec);
    while (*at == ' ') ++at;
    at = readModifier(at, spec);
    spec.conversion = *at;
    if (*at == '\0') return at;
    count_ += print(spec);
    return at + 1;
  }

  static const char* readFlags(const char* at, FormatSpec& spec) {
    for (;; ++at) {
      switch (*at) {
        case '-':
          spec.leftAlign = true;
          break;
        case '+':
          spec.plusSign = true;
          break;
        case '0':
          spec.zeroFill = true;
          break;
        case ' ':
          spec.spaceSign = true;
          break;
        case '#':
          spec.alternate = true;
          break;
        default:
          return at;
      }
    }
  }

  const char* readWidth(const char* at, FormatSpec& spec) {
    if (*at == '*') {
      const std::int64_t width = arguments_.plainInt();
      if (width < 0) spec.leftAlign = true;
      spec.width = static_cast<int>(std::min<std::int64_t>(width < 0 ? -width : width, kMaxNumber));
      return at + 1;
    }
    return gen_is_digit(*at) ? readNumber(at, spec.width) : at;
  }

  const char* readPrecision(const char* at, FormatSpec& spec) {
    if (*at != '.') return at;
    spec.hasPrecision = true;
    spec.precision = 0;
    if (*++at != '*') return readNumber(at, spec.precision);
    spec.precision = std::clamp(arguments_.plainInt(), FormatSpec::kNone, kMaxNumber);
    spec.hasPrecision = spec.precision != FormatSpec::kNone;
    return at + 1;
  }

  static const char* readNumber(const char* at, int& number) {
    std::int64_t value = 0;
    for (; gen_is_digit(*at); ++at)
      value = std::min<std::int64_t>(value * 10 + (*at - '0'), kMaxNumber);
    number = static_cast<int>(value);
    return at;
  }

  static const char* readModifier(const char* at, FormatSpec& spec) {
    const bool twice = at[0] == 'l' && at[1] == 'l';
    spec.longFlag = *at == 'l';
    spec.longLongFlag = *at == 'L' || twice;
    spec.shortFlag = *at == 'h';
    if (twice) return at + 2;
    return spec.longFlag || spec.longLongFlag || spec.shortFlag ? at + 1 : at;
  }

  std::size_t print(FormatSpec& spec) {
    switch (spec.conversion) {
      case 'd':
      case 'i':
        return printSigned(spec, arguments_.signedInteger(spec));
      case 'u':
        if (spec.hasPrecision) spec.zeroFill = false;
        return printUnsigned(spec, arguments_.unsignedInteger(spec));
      case 'o':
      case 'x':
      case 'X':
        return printUnsigned(spec, arguments_.unsignedInteger(spec));
      case 'p':
      case 'P':
        return printUnsigned(spec, arguments_.pointer());
      case 'c':
        return printCharacter(spec, static_cast<char>(arguments_.plainInt()));
      case 's':
        return printText(spec);
      case 'f':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
        return printFloating(spec, arguments_.floating(spec));
      case 'n':
        arguments_.storeCount(spec, count_);
        return 0;
      case 'r':
      case 'R':
        if (arguments_.hasRomanNumerals()) return printRoman(spec, arguments_.signedInteger(spec));
        [[fallthrough]];
      default:
        return printCharacter(spec, spec.conversion);
    }
  }

  // A number from its parts: a sign or mark, zeros up to the precision, the digits.
  static std::size_t printDigits(FormatSpec& spec, const char* prefix, const char* digits,
                                 std::size_t length) {
    FieldText text;
    text.add(prefix, std::strlen(prefix));
    if (spec.precision > 0 && static_cast<std::size_t>(spec.precision) > length)
      text.repeat('0', static_cast<std::size_t>(spec.precision) - length);
    text.add(digits, length);
    spec.precision = FormatSpec::kNone;
    return printField(spec, text);
  }

  static std::size_t printSigned(FormatSpec& spec, std::int64_t value) {
    if (spec.hasPrecision) spec.zeroFill = false;
    const char* sign = value < 0 ? "-" : spec.plusSign ? "+" : spec.spaceSign ? " " : "";
    const auto bits = static_cast<std::uint64_t>(value);
    char digits[24];
    char* end = digits;
    if (value != 0 || spec.precision != 0)
      end = std::to_chars(digits, digits + sizeof digits, value < 0 ? 0 - bits : bits).ptr;
    return printDigits(spec, sign, digits, static_cast<std::size_t>(end - digits));
  }

  static std::size_t printUnsigned(FormatSpec& spec, std::uint64_t value) {
    const bool octal = spec.conversion == 'o', decimal = spec.conversion == 'u';
    const bool upper = spec.conversion == 'X' || spec.conversion == 'P';
    char digits[24];
    char* end = digits;
    if (octal && spec.alternate) *end++ = '0';
    char* const start = end;
    if (value != 0 || spec.precision != 0)
      end = std::to_chars(end, digits + sizeof digits, value, octal ? 8 : decimal ? 10 : 16).ptr;
    if (upper)
      for (char* at = start; at < end; ++at)
        if (*at >= 'a') *at = static_cast<char>(*at - 'a' + 'A');
    const char* mark = "";
    if (spec.alternate && !octal && !decimal) mark = upper ? "0X" : "0x";
    return printDigits(spec, mark, digits, static_cast<std::size_t>(end - digits));
  }

  static std::size_t printCharacter(const FormatSpec& spec, char c) {
    FieldText text;
    text.add(&c, 1);
    return printField(spec, text);
  }

  std::size_t printText(FormatSpec& spec) {
    spec.isString = true;
    const char* const argument = arguments_.text();
    const char* const shown = argument ? argument : "(null)";
    std::size_t length;
    if (spec.precision >= 0) {
      // The text may lack its zero within the precision.
      const auto bound = static_cast<std::size_t>(spec.precision);
      for (length = 0; length < bound && shown[length] != '\0';) ++length;
    } else {
      length = std::strlen(shown);
    }
    FieldText text;
    text.add(shown, length);
    const std::size_t printed = printField(spec, text);
    arguments_.releaseText(argument);
    return printed;
  }

  static std::size_t printRoman(FormatSpec& spec, std::int64_t value) {
    if (value < 1 || value > 3999) return printSigned(spec, value);
    static constexpr struct {
      int value;
      const char* letters;
    } kNumerals[] = {{1000, "m"}, {900, "cm"}, {500, "d"}, {400, "cd"}, {100, "c"},
                     {90, "xc"},  {50, "l"},   {40, "xl"}, {10, "x"},   {9, "ix"},
                     {5, "v"},    {4, "iv"},   {1, "i"}};
    char letters[16];  // the longest, of 3888, has 15
    char* end = letters;
    for (const auto& numeral : kNumerals)
      for (; value >= numeral.value; value -= numeral.value)
        for (const char* at = numeral.letters; *at; ++at)
          *end++ = spec.conversion == 'R' ? static_cast<char>(*at - 'a' + 'A') : *at;
    FieldText text;
    text.add(letters, static_cast<std::size_t>(end - letters));
    spec.precision = FormatSpec::kNone;
    return printField(spec, text);
  }

  ArgumentSource& arguments_;
  void* sinkContext_;
  gen_sink sink_;
  std::size_t count_ = 0;
};

class ListSource final : public ArgumentSource {
 public:
  explicit ListSource(std::va_list list) { va_copy(list_, list); }
  ListSource(const ListSource&) = delete;
  ListSource& operator=(const ListSource&) = delete;
  ~ListSource() override { va_end(list_); }

  int plainInt() override { return va_arg(list_, int); }

  std::int64_t signedInteger(const FormatSpec& spec) override {
    if (isWide(spec)) return va_arg(list_, long long);
    const int value = va_arg(list_, int);
    return spec.shortFlag ? static_cast<std::int16_t>(value) : value;
  }

  std::uint64_t unsignedInteger(const FormatSpec& spec) override {
    if (isWide(spec)) return va_arg(list_, unsigned long long);
    const unsigned value = va_arg(list_, unsigned);
    return spec.shortFlag ? static_cast<std::uint16_t>(value) : value;
  }

  std::uint64_t pointer() override {
    return reinterpret_cast<std::uintptr_t>(va_arg(list_, void*));
  }

  double floating(const FormatSpec&) override { return va_arg(list_, double); }
  const char* text() override { return va_arg(list_, const char*); }
  void releaseText(const char*) override {}

  void storeCount(const FormatSpec& spec, std::size_t count) override {
    void* const place = va_arg(list_, void*);
    if (!place) return;
    if (isWide(spec))
      *static_cast<long long*>(place) = static_cast<long long>(count);
    else if (spec.shortFlag)
      *static_cast<std::int16_t*>(place) = static_cast<std::int16_t>(count);
    else
      *static_cast<int*>(place) = static_cast<int>(count);
  }

  bool hasRomanNumerals() const override { return false; }

 private:
  static bool isWide(const FormatSpec& spec) { return spec.longFlag && spec.longLongFlag; }

  std::va_list list_;
};

struct Callbacks {
  gen_size_of sizeOf;
  gen_get_int32 getInt32;
  gen_get_uint32 getUInt32;
  gen_get_int64 getInt64;
  gen_get_uint64 getUInt64;
  gen_get_double getDouble;
  gen_get_long_double getLongDouble;
  gen_get_string getString;
  gen_free_string freeString;
};

class CallbackSource final : public ArgumentSource {
 public:
  CallbackSource(const Callbacks& callbacks, void* context)
      : callbacks_(callbacks), context_(context) {}

  int plainInt() override { return static_cast<int>(fetchSigned(GEN_ARG_INT)); }

  std::int64_t signedInteger(const FormatSpec& spec) override {
    const std::int64_t value = fetchSigned(integerCode(spec));
    return spec.shortFlag ? static_cast<std::int16_t>(value) : value;
  }

  std::uint64_t unsignedInteger(const FormatSpec& spec) override {
    // The unsigned types' codes follow those of the signed ones.
    const std::uint64_t value = fetchUnsigned(integerCode(spec) + 1);
    return spec.shortFlag ? static_cast<std::uint16_t>(value) : value;
  }

  std::uint64_t pointer() override { return fetchUnsigned(GEN_ARG_POINTER); }

  double floating(const FormatSpec& spec) override {
    if (spec.longLongFlag && !spec.longFlag)
      return static_cast<double>(callbacks_.getLongDouble(context_, GEN_ARG_LONG_DOUBLE));
    return callbacks_.getDouble(context_, GEN_ARG_DOUBLE);
  }

  const char* text() override { return callbacks_.getString(context_); }
  void releaseText(const char* text) override {
    if (callbacks_.freeString) callbacks_.freeString(context_, text);
  }

  void storeCount(const FormatSpec&, std::size_t) override {
    pointer();
    gen_error("%%n format is not supported");
  }

  bool hasRomanNumerals() const override { return true; }

 private:
  static constexpr int kWide = 8;

  bool isWide(int code) const { return callbacks_.sizeOf(context_, code) == kWide; }

  int integerCode(const FormatSpec& spec) const {
    if ((spec.longFlag || spec.longLongFlag) && !isWide(GEN_ARG_INT)) {
      const int code = spec.longLongFlag ? GEN_ARG_LONG_LONG : GEN_ARG_LONG;
      if (isWide(code)) return code;
    }
    return GEN_ARG_INT;
  }

  std::int64_t fetchSigned(int code) {
    return isWide(code) ? callbacks_.getInt64(context_, code) : callbacks_.getInt32(context_, code);
  }
  std::uint64_t fetchUnsigned(int code) {
    return isWide(code) ? callbacks_.getUInt64(context_, code)
                        : callbacks_.getUInt32(context_, code);
  }

  const Callbacks& callbacks_;
  void* context_;
};

}  // namespace

std::size_t gen_format(const char* format, std::va_list arguments, void* sinkContext,
                       gen_sink sink) {
  ListSource source(arguments);
  return Engine(source, sinkContext, sink).run(format);
}

std::size_t gen_format_callbacks(const char* format, void* sinkContext, void* argumentContext,
                                 gen_sink sink, gen_size_of sizeOf, gen_get_int32 getInt32,
                                 gen_get_uint32 getUInt32, gen_get_int64 getInt64,
                                 gen_get_uint64 getUInt64, gen_get_double getDouble,
                                 gen_get_long_double getLongDouble, gen_get_string getString,
                                 gen_free_string freeString) {
  const Callbacks callbacks = {sizeOf,    getInt32,      getUInt32, getInt64,  getUInt64,
                               getDouble, getLongDouble, getString, freeString};
  CallbackSource source(callbacks, argumentContext);
  return Engine(source, sinkContext, sink).run(format);
}
