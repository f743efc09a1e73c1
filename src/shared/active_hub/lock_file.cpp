#include "active_hub/lock_file.h"

#include <cstdint>

#include "indgen/access.h"
#include "indgen/path.h"
#include "indgen/report.h"
#include "indgen/whole_file.h"
#include "platform/clock.h"
#include "platform/file.h"

namespace {

constexpr unsigned kLockMode = 0660;
constexpr int kPause = 100;  // ms between two tries

gen_text lockPath(const char* path) {
  return gen_replace_extension(path, ".lock");
}

std::int64_t secondsNow() {
  return platform::unixMilliseconds() / 1000;
}

// Another user's lock guards nothing of this one's, and could otherwise keep it out for ever.
bool isForeign(const char* lock) {
  platform::FileStatus status;
  return platform::linkStatus(lock, status) == 0 && !status.isOwn;
}

void breakIfStale(const char* lock, int staleSeconds) {
  if (staleSeconds == kLockNeverStale || isForeign(lock)) return;
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

}  // namespace

bool lockFile(const char* path, int waitSeconds, int staleSeconds) {
  const gen_text lock = lockPath(path);
  breakIfStale(lock, staleSeconds);
  const std::int64_t start = secondsNow();
  while (!makeLock(lock) && !isForeign(lock)) {
    if (waitSeconds == 0) return false;
    platform::sleepMilliseconds(kPause);
    if (waitSeconds != kWaitForLock && start + waitSeconds <= secondsNow()) return false;
  }
  return true;
}

bool unlockFile(const char* path) {
  const gen_text lock = lockPath(path);
  if (!isForeign(lock)) V_unlink(lock);
  return true;
}
