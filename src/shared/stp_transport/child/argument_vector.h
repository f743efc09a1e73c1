// Argument vectors: texts in a row, closed by a null, as programs are started with.
#pragma once

#include <vector>

#include "indgen/memory.h"

/// Move-only owner of its texts. An empty one stands for none as well.
class ArgumentVector {
 public:
  ArgumentVector() : view_{nullptr} {}
  ArgumentVector(ArgumentVector&& other) noexcept;
  ArgumentVector& operator=(ArgumentVector&& other) noexcept;

  int count() const { return static_cast<int>(texts_.size()); }
  /// The texts with a null behind the last, valid until the next change.
  const char* const* data() const { return view_.data(); }
  /// The entry at an index below count(), or the closing null.
  const char* operator[](int index) const { return view_[static_cast<std::size_t>(index)]; }

 private:
  friend void insertArgument(ArgumentVector& vector, int index, const char* text);
  friend gen_text removeArgument(ArgumentVector& vector, int index);

  std::vector<gen_text> texts_;
  std::vector<const char*> view_;
};

/// A vector with copies of the first `count` texts, fewer if a null comes before.
ArgumentVector copyArguments(const char* const* vector, int count);

/// The words of a command line, cut at blanks and tabs outside quotes; `"` and `'` open and close
/// the same state. A word that both starts and ends in the same quote loses these two. A blank in
/// front gives an empty first word. With `dashFirst` the first word gets a `-` in front. No words
/// for null.
ArgumentVector splitArguments(const char* text, bool dashFirst);

/// A copy of `text` at `index`, later entries moved up. Nothing happens for null or unless `index`
/// is at least 0 and at most the count.
void insertArgument(ArgumentVector& vector, int index, const char* text);
/// The same for every entry of a null-closed list, which keep their order; a null list is empty.
void insertArguments(ArgumentVector& vector, int index, const char* const* list);
/// Takes the entry at `index` out, and gives it away; none unless `index` is at least 0 and below
/// the count.
gen_text removeArgument(ArgumentVector& vector, int index);
/// Empties the vector.
void freeArguments(ArgumentVector& vector);
