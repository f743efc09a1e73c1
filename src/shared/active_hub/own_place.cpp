#include "active_hub/own_place.h"

#include "indgen/directory.h"
#include "indgen/own_file.h"
#include "indgen/text.h"
#include "platform/credentials.h"

namespace {

constexpr unsigned kOwnPlaceMode = 0700;

// Up to the last `/`: a zone may have anything else in its name.
std::string directoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

std::string ownPlace(const std::string& path) {
  return directoryOf(path) + "hublink_" + std::to_string(platform::currentUser());
}

}  // namespace

gen_text ownPlaceOf(const char* path) {
  const std::string name = std::string(path).substr(directoryOf(path).size());
  return gen_strdup((ownPlace(path) + "/" + name).c_str());
}

bool hasOwnPlace(const char* path) {
  return gen_is_own_directory(ownPlace(path).c_str());
}

bool makeOwnPlace(const char* path) {
  return hasOwnPlace(path) ||
         (gen_make_directory(ownPlace(path).c_str(), kOwnPlaceMode) == 0 && hasOwnPlace(path));
}

std::string whyNoPlace(const char* path) {
  if (!gen_is_foreign(path) || makeOwnPlace(path)) return {};
  return std::string(path) + " belongs to another user, and " + ownPlace(path) +
         " isn't a directory of this user's alone";
}
