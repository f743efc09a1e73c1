#include "stp_transport/message/stp_field_index.h"

#include <algorithm>

namespace {

// Compares the name of a field, which ends at its colon, with another that ends at `otherEnd`.
int compareNames(const char* field, const char* other, char otherEnd) {
  while (*field == *other && *field != ':' && *other != otherEnd) ++field, ++other;
  const int left = *field == ':' ? 0 : static_cast<unsigned char>(*field);
  const int right = *other == otherEnd ? 0 : static_cast<unsigned char>(*other);
  return left - right;
}

}  // namespace

void STPFieldIndex::close(Offset end) {
  end_ = end;
  byName_ = fields_;
  std::sort(byName_.begin(), byName_.end(), [this](Offset a, Offset b) {
    const int order = compareNames(text_ + a, text_ + b, ':');
    return order < 0 || (order == 0 && a < b);
  });
}

bool STPFieldIndex::hasFieldAt(Offset place) const {
  return std::binary_search(fields_.begin(), fields_.end(), place);
}

STPFieldIndex::Offset STPFieldIndex::find(const char* name, Offset from) const {
  const auto place = std::partition_point(byName_.begin(), byName_.end(), [&](Offset field) {
    const int order = compareNames(text_ + field, name, '\0');
    return order < 0 || (order == 0 && field < from);
  });
  const bool found = place != byName_.end() && compareNames(text_ + *place, name, '\0') == 0;
  return found ? *place : 0;
}
