// What the token stream needs of its preprocessor.
#pragma once

#include <optional>

#include "libcxxutil/ut_string.h"

class ut_simple_preprocessor_interface {
 public:
  virtual ~ut_simple_preprocessor_interface() = default;
  /// Handles one directive line; false for an illegal one, which has been reported.
  virtual bool process_directive(const char* line) = 0;
  /// Whether a false condition hides the lines that come.
  virtual bool is_skipping() const = 0;
  /// Whether the last directive was a valid `include`.
  virtual bool has_pending_include() const = 0;
  /// The file name of that `include`.
  virtual const char* pending_include() const = 0;
  /// Sets a macro of the preprocessor's own table.
  virtual void define_macro(const char* name, const char* value) = 0;
  /// The same from `NAME rest of line`; false, with nothing set, without a name.
  virtual bool define_macro_text(const char* text) = 0;
  /// Removes the macro `NAME` from the own table.
  virtual void undefine_macro_text(const char* text) = 0;
  /// A macro's value; nothing, with an error if `complain` is set, if there is none.
  virtual std::optional<ut_string> macro_value(const ut_string& key, bool complain) = 0;
  virtual std::optional<ut_string> macro_value(const char* name, bool complain) = 0;
};
