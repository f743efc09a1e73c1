// What a child has written on its standard error until somebody has heard enough: the beginning,
// where the cause mostly stands, and the end.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/error_catcher.h"

/// Bytes that are kept of the beginning and of the end.
inline constexpr std::size_t STP_FIRST_ERRORS = 1024, STP_LAST_ERRORS = 7168;

class ChildErrors {
 public:
  /// Begins anew, with no text; where the system gives no means, none will come.
  void open();
  /// For the child's standard error; -1 is the null device.
  int descriptor() const { return catcher_.descriptor(); }
  /// Takes what a wait has seen come. Costs no call when there is nothing.
  void collect();
  /// Takes what has come whether it was seen or not.
  void collectAll();
  /// Takes the last of it; what the child writes from here on is lost.
  void close();
  /// As it was written, with a line `[...]` where something is left out.
  std::string text() const;

 private:
  void keep(std::string_view text);

  platform::ErrorCatcher catcher_;
  std::string first_;
  std::string last_;
  bool isCut_ = false;
};
