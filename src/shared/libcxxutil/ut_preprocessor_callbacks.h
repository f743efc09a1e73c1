// What an embedding program may add to the reading of configuration files: macros of its own, and a
// say in which files are read.
//
// The record stays its owner's and outlives every database and stream that knows it. Functions that
// aren't needed stay null.
#pragma once

struct ut_preprocessor_callbacks {
  /// Passed first to each function.
  void* context = nullptr;
  /// Called at the end of a database that was told to own the record; may free it.
  void (*destroy)(void* context) = nullptr;
  /// Absent means that there is none.
  bool (*has_macro)(void* context, const char* name) = nullptr;
  /// The value, valid until the next call; null for none, as when the function is absent.
  const char* (*macro_value)(void* context, const char* name) = nullptr;
  /// Whether `file` is to be read while `depth` files are open; absent means yes.
  bool (*include_filter)(void* context, const char* file, int depth) = nullptr;
};
