#include "active_hub/lock_file.h"

#include <cstdint>

#include "active_hub/own_place.h"
#include "indgen/access.h"
#include "indgen/own_file.h"
#include "indgen/path.h"
#include "indgen/report.h"
#include "indgen/whole_file.h"
#include "platform/clock.h"
#include "platform/file.h"

namespace {

// Whoever can write to a lock can keep it young.
constexpr unsigned kLockMode = 0600;
constexpr int kPause = 100;  // ms between two tries

gen_text lockPath(const char* path) {
  return gen_replace_extension(path, ".lock");
}

std::int64_t secondsNow() {
  return platform::unixMilliseconds() / 1000;
}

void breakIfStale(const char* lock, int staleSeconds) {
  if (staleSeconds == kLockNeverStale || gen_is_foreign(lock)) return;
  const auto isStale = [staleSeconds](const char* file) {
    platform::FileStatus status;
    return V_stat(file, &status) == 0 &&
           secondsNow() - staleSeconds > status.modifiedMilliseconds / 1000;
  };
  if (!isStale(lock)) return;
  gen_warning("Breaking lock on file %s because it is more than %d seconds old.\n", lock,
              staleSeconds);
  // Somebody else may have broken it, and taken it, since.
  gen_remove_file_if(lock, isStale);
}

// Not for writing: a lock in a lower tree of a view path holds as well.
bool makeLock(const char* lock) {
  const int descriptor = V_open(lock, platform::openCreate | platform::openExclusive, kLockMode);
  if (descriptor < 0) return false;
  platform::closeDescriptor(descriptor);
  return true;
}

// One try. Who finds the usual lock in another user's hands has the one in the user's own place
// instead. That other user may come and go, so once there is such a place everybody has both.
bool tryLock(const char* lock) {
  const bool made = makeLock(lock);
  if (!made && !gen_is_foreign(lock)) return false;
  if (made ? !hasOwnPlace(lock) : !makeOwnPlace(lock)) return true;
  const gen_text own = ownPlaceOf(lock);
  if (makeLock(own)) {
    if (made || gen_is_foreign(lock)) return true;
    V_unlink(own);
  } else if (made) {
    V_unlink(lock);
  }
  return false;
}

}  // namespace

bool lockFile(const char* path, int waitSeconds, int staleSeconds) {
  const gen_text lock = lockPath(path);
  breakIfStale(lock, staleSeconds);
  if (hasOwnPlace(lock)) breakIfStale(ownPlaceOf(lock), staleSeconds);
  const std::int64_t start = secondsNow();
  while (!tryLock(lock)) {
    if (waitSeconds == 0) return false;
    platform::sleepMilliseconds(kPause);
    if (waitSeconds != kWaitForLock && start + waitSeconds <= secondsNow()) return false;
  }
  return true;
}

std::string whyNoLock(const char* path) {
  return whyNoPlace(lockPath(path));
}

bool unlockFile(const char* path) {
  const gen_text lock = lockPath(path);
  if (hasOwnPlace(lock)) V_unlink(ownPlaceOf(lock));
  if (!gen_is_foreign(lock)) V_unlink(lock);
  return true;
}
