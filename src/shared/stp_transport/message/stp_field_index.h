// Where the fields of one level of an ascii text stand, for reading them by name in any order.
//
// An index takes two words for each field, less than three times the shortest text of a field.
#pragma once

#include <cstdint>
#include <vector>

class STPFieldIndex {
 public:
  /// Of a field's name in the text; never 0.
  using Offset = std::uint32_t;

  /// `text` outlives the index.
  explicit STPFieldIndex(const char* text) : text_(text) {}
  /// Takes in the fields from first to last; a colon stands behind each name.
  void add(Offset field) { fields_.push_back(field); }
  /// The level ends at `end`. Nothing is found before this has been called.
  void close(Offset end);

  bool empty() const { return fields_.empty(); }
  /// Whether `place` lies between the first field and the end, be it within a field.
  bool spans(Offset place) const { return fields_.front() <= place && place < end_; }
  bool hasFieldAt(Offset place) const;
  /// The first field of that name at or behind `from`; 0 if there is none.
  Offset find(const char* name, Offset from) const;

 private:
  const char* text_;
  std::vector<Offset> fields_;
  std::vector<Offset> byName_;
  Offset end_ = 0;
};
