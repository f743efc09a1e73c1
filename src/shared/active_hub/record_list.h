// All records of this user: in the temporary directory, and in the user's own place beside it.
//
// Other files lie there too, some of which only look like records. They are passed over without a
// word, and large ones unread.
#pragma once

#include <string>
#include <vector>

#include "active_hub/active_hub_record.h"

struct ListedRecord {
  std::string name;  ///< the zone, or the digest of an installation
  std::string path;
  ActiveHub hub;  ///< which may have gone
};
/// By name. Of two of one name the one that counts comes alone: that of the usual place.
std::vector<ListedRecord> listRecords();
