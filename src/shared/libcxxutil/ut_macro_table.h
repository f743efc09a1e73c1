// Macros of the preprocessor: names with their values, told apart with case.
//
// The entries hang in a top-down splay tree, where every search brings the name it found to the
// root, so that the few macros which a file uses over and over are found at once. They also stand
// on a list in the order of their names, which owns them and which a merge walks.
#pragma once

#include <list>

#include "libcxxutil/ut_string.h"

class ut_macro_table {
 public:
  ut_macro_table() = default;
  ut_macro_table(const ut_macro_table&) = delete;
  ut_macro_table& operator=(const ut_macro_table&) = delete;

  /// Adds a macro, or replaces its value. A null value is stored as the empty text.
  void set(const ut_string& name, const ut_string& value);
  /// The value, valid until the next change of the table; null if there is no such macro.
  const ut_string* find(const ut_string& name);
  /// False if there was no such macro.
  bool remove(const ut_string& name);
  /// Sets every macro of `other` here.
  void merge(const ut_macro_table& other);

 private:
  struct Entry {
    ut_string name, value;
    Entry *left = nullptr, *right = nullptr;
    std::list<Entry>::iterator place;
  };

  int splay(const ut_string& name);

  std::list<Entry> entries_;
  Entry* root_ = nullptr;
};
