// Lines that go on: a backslash at the end of a line joins the next one to it.
#pragma once

#include <string>

/// Reads a line with those that continue it into `line`. `add` appends one physical line to `line`,
/// without its end; false at the end of the input. Gives false if there is nothing left.
template <class Add>
bool ut_read_continued_line(std::string& line, const Add& add) {
  line.clear();
  if (!add()) return false;
  // Of an empty line nothing is added: a backslash that then stands at the end was there before.
  for (std::size_t begin = 0; line.size() > begin && line.back() == '\\';) {
    line.pop_back();
    begin = line.size();
    if (!add()) break;
  }
  return true;
}
