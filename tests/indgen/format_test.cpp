#include "indgen/format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// Through a pointer, since the compiler knows only the C library's conversions.
gen_text (*volatile print)(const char* format, ...) = gen_asprintf;

template <class... Arguments>
std::string printed(const char* format, Arguments... arguments) {
  const gen_text text = print(format, arguments...);
  return text.get();
}

TEST(Format, TextsAndFields) {
  char* const none = nullptr;
  EXPECT_EQ(printed("%-5s|%*.*s|%.*s", "ab", -4, 1, "cd", -1, "ef"), "ab   |c   |ef");
  EXPECT_EQ(printed("%05s%s%.3s", "-a", none, none), "000-a(null)(nu");
  const char open[] = {'a', 'b'};
  EXPECT_EQ(printed("%.2s%c%3c", open, 'x', 'y'), "abx  y");
  EXPECT_EQ(printed("%%%y%F%r"), "%yFr");
  EXPECT_EQ(printed("a%"), "a");
  EXPECT_EQ(printed("a%-05.3l"), "a");
}

TEST(Format, IntegersWhereTheLibraryDiffers) {
  EXPECT_EQ(printed("%05d %#06x %#x %#X", -42, 255, 0, 171), "-0042 0x00ff 0x0 0XAB");
  EXPECT_EQ(printed("%#o %#.0o %#.4o", 8, 0, 8), "010 0 0010");
  EXPECT_EQ(printed("%.0d|%5.3d", 0, 7), "|  007");
  EXPECT_EQ(printed("%hd %hu %hx", 65535, 65537, 0x12345), "-1 1 2345");
  EXPECT_EQ(printed("%. d%. d", 0, 5), "5");  // a `.` without digits is 0, and blanks may follow
  EXPECT_EQ(printed("%ld %Li %d", -7, 8, INT_MIN), "-7 8 -2147483648");
  EXPECT_EQ(printed("%lld %llu %llx", LLONG_MIN, ULLONG_MAX, LLONG_MIN),
            "-9223372036854775808 18446744073709551615 8000000000000000");
  void* const pointer = reinterpret_cast<void*>(0xAB);
  EXPECT_EQ(printed("%p %#P", pointer, pointer), "ab 0XAB");
  short small[2] = {0, 7};
  EXPECT_EQ(printed("abcde%hn", small), "abcde");
  EXPECT_EQ(small[0] + small[1], 5 + 7);
}

TEST(Format, EqualsTheLibraryOverRandomFormats) {
  std::mt19937 generator(3);
  const auto pick = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(generator);
  };
  for (int round = 0; round < 20000; ++round) {
    const char conversion = "diuoxXseEfgG"[pick(0, 11)];
    const bool floating = std::strchr("eEfgG", conversion) != nullptr;
    std::string spec = "<%";
    for (const char flag : std::string(floating ? "-+ 0#" : conversion == 's' ? "-" : "-+ 0"))
      if (pick(0, 2) == 0) spec += flag;
    if (pick(0, 1)) spec += std::to_string(pick(1, 30));
    // Twelve digits print the values below exactly; a `0` under a precision is the library's own.
    if (floating || (pick(0, 1) && spec.find('0') == std::string::npos))
      spec += "." + std::to_string(floating ? pick(12, 30) : pick(0, 15));
    (spec += conversion) += '>';
    const int value = pick(INT_MIN, INT_MAX) >> pick(0, 31);
    const auto check = [format = spec.c_str()](auto argument) {
      char expected[200];
      std::snprintf(expected, sizeof expected, format, argument);
      EXPECT_EQ(printed(format, argument), expected) << format;
    };
    if (conversion == 's')
      check("a text");
    else if (floating)
      check(static_cast<double>(value % 1000000) / 64);
    else
      check(value);
  }
}

TEST(Format, FloatingPoint) {
  EXPECT_EQ(printed("%e %g %g %g", 1.5, 1e5, 1e6, 0.0001), "1.500000e+00 100000 1e+06 0.0001");
  EXPECT_EQ(printed("%f %+.1f %05f", HUGE_VAL, -HUGE_VAL, std::nan("")), "inf inf 00nan");
  EXPECT_EQ(printed("%f %e %g", -0.0, 0.0, 0.0), "0.000000 0.000000e+00 0");
  EXPECT_EQ(printed("%.0f %.2f %.2f %.1f", 0.5, 0.001, 0.005, 0.05), "1 0.00 0.01 0.1");
  EXPECT_EQ(printed("%.3f %.2e %.0e", 999.9996, 9.999, 9.5), "1000.000 1.00e+01 1e+01");
  EXPECT_EQ(printed("%#.0f %#g %.0g %G", 3.0, 1.0, 123.0, 1e-9), "3. 1.00000 1e+02 1E-09");
  EXPECT_EQ(printed("%08.2f %.3e %Lf", -3.14159, 5e-324, 1.0), "-0003.14 4.941e-324 1.000000");

  const std::string largest = printed("%.60f", 1.7976931348623157e308);
  EXPECT_EQ(largest.size(), 309u + 1 + 60);
  EXPECT_EQ(largest.substr(0, 15), "179769313486231");
  EXPECT_EQ(largest.find_first_not_of("0.", 57), std::string::npos);
  const std::string small = printed("%.70f", 0.1);
  EXPECT_EQ(small.find_first_not_of('0', 2 + 56), std::string::npos);
}

TEST(Format, AllocatesOnceUpTo1024Bytes) {
  static const auto standard = gen_alloc;
  static int allocations = 0;
  gen_alloc = [](std::size_t count, std::size_t size) {
    return ++allocations, standard(count, size);
  };
  for (const std::size_t length : {1024u, 1025u}) {
    const std::string text(length - 1, 'x');
    EXPECT_EQ(printed("%s!", text.c_str()), text + "!");
  }
  EXPECT_EQ(allocations, 1 + 2);
  gen_alloc = standard;
}

// Arguments that note which type they were asked for.
struct Arguments {
  std::vector<long double> values;
  std::size_t next = 0;
  std::string asked = {}, output = {};
};

template <class Value>
Value fetch(void* context, int code) {
  auto& arguments = *static_cast<Arguments*>(context);
  arguments.asked += static_cast<char>('0' + code);
  return static_cast<Value>(arguments.values.at(arguments.next++));
}

std::string printedByCallbacks(const char* format, Arguments& arguments) {
  const std::size_t count = gen_format_callbacks(
      format, &arguments, &arguments,
      [](void* context, const char* text, std::size_t length) {
        static_cast<Arguments*>(context)->output.append(text, length);
      },
      [](void*, int code) { return code == GEN_ARG_INT || code == GEN_ARG_UNSIGNED ? 4 : 8; },
      fetch<std::int32_t>, fetch<std::uint32_t>, fetch<std::int64_t>, fetch<std::uint64_t>,
      fetch<double>, fetch<long double>, [](void*) -> const char* { return nullptr; },
      [](void*, const char*) {});
  EXPECT_EQ(count, arguments.output.size());
  return arguments.output;
}

TEST(Format, CallbacksAreAskedForEachTypeAndRomanNumerals) {
  Arguments arguments{.values = {5, 1, 2, -3e9L, 3e9L, -4e18L, 5e18L, 70000, 6, 255, 1.5, 2.5, 65}};
  EXPECT_EQ(printedByCallbacks("%*d %u %ld %lu %Ld %llu %hd %hu %p %.1f %.1Lf %c", arguments),
            "    1 2 -3000000000 3000000000 -4000000000000000000 5000000000000000000 4464 6 ff 1.5 "
            "2.5 A");
  EXPECT_EQ(arguments.asked, "2234567231892");
  Arguments roman{.values = {1994, 3888, 4, 0, 4000, -5, 9}};
  EXPECT_EQ(printedByCallbacks("%r %R %5R|%r %r %R %-4r|", roman),
            "mcmxciv MMMDCCCLXXXVIII    IV|0 4000 -5 ix  |");
}

}  // namespace
