// The names of fields by which two sides that know nothing of each other in advance read and write:
// this side's own list, and for each of its names the number that it has in the peer's.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace hublinkctl {

struct FieldNames {
  std::vector<std::string> own;         ///< sorted by byte
  std::vector<std::int32_t> peerTags;   ///< by the number of the own name; -1 if the peer lacks it
  std::vector<std::string> peersNames;  ///< the peer's list

  /// The own number of a name that is in the list.
  std::int32_t number(const std::string& name) const {
    return static_cast<std::int32_t>(std::lower_bound(own.begin(), own.end(), name) - own.begin());
  }
};

}  // namespace hublinkctl
