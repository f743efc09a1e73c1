#include "indgen/format_field.h"

#include <algorithm>

namespace {

bool isSign(char c) {
  return c == '-' || c == '+' || c == ' ';
}

// Length of what stays in front of filling zeros: a sign and the mark of a hexadecimal number.
std::size_t prefixLength(const FieldText& text) {
  std::size_t length = isSign(text.at(0)) ? 1 : 0;
  const char mark = text.at(length + 1);
  if (text.at(length) == '0' && (mark == 'x' || mark == 'X')) length += 2;
  return length;
}

void pad(const FormatSpec& spec, char c, std::size_t count) {
  for (; count > 0; --count) spec.sink(spec.sinkContext, &c, 1);
}

}  // namespace

void FieldText::add(const char* text, std::size_t length) {
  if (length == 0) return;
  runs_[runCount_++] = {text, '\0', length};
  length_ += length;
}

void FieldText::repeat(char c, std::size_t count) {
  if (count == 0) return;
  runs_[runCount_++] = {nullptr, c, count};
  length_ += count;
}

char FieldText::at(std::size_t index) const {
  for (std::size_t i = 0; i < runCount_; ++i) {
    const Run& run = runs_[i];
    if (index < run.length) return run.text ? run.text[index] : run.repeated;
    index -= run.length;
  }
  return '\0';
}

void FieldText::print(const FormatSpec& spec, std::size_t begin, std::size_t end) const {
  std::size_t start = 0;
  for (std::size_t i = 0; i < runCount_ && start < end; start += runs_[i++].length) {
    const Run& run = runs_[i];
    const std::size_t from = std::max(begin, start), to = std::min(end, start + run.length);
    if (from >= to) continue;
    if (run.text)
      spec.sink(spec.sinkContext, run.text + (from - start), to - from);
    else
      pad(spec, run.repeated, to - from);
  }
}

std::size_t printField(const FormatSpec& spec, const FieldText& text) {
  std::size_t length = text.length();
  if (spec.precision >= 0) length = std::min(length, static_cast<std::size_t>(spec.precision));
  const std::size_t width = spec.width > 0 ? static_cast<std::size_t>(spec.width) : 0;
  const std::size_t total = std::max(width, length), padding = total - length;

  std::size_t prefix = 0;
  if (spec.zeroFill && !spec.isString) prefix = std::min(prefixLength(text), length);
  text.print(spec, 0, prefix);
  if (!spec.leftAlign) pad(spec, spec.zeroFill ? '0' : ' ', padding);
  text.print(spec, prefix, length);
  if (spec.leftAlign) pad(spec, ' ', padding);
  return total;
}
