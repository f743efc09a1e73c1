// Locks between processes, made of a file that exists while somebody holds the lock.
//
// The lock of the file `path` is the empty file with the extension "lock" beside it. Nothing tells
// who made it: whoever unlocks takes it away. One that belongs to another user is as good as none:
// it keeps nobody out, and stays.
#pragma once

/// For `waitSeconds`: no limit.
inline constexpr int kWaitForLock = -1;
/// For `staleSeconds`: a lock is never taken for a forgotten one.
inline constexpr int kLockNeverStale = 1;

/// Takes the lock of `path`, trying about every 100 ms until `waitSeconds` have passed (0: one
/// try). A lock that is there and older than `staleSeconds` is first broken, with a warning. True
/// if the lock was got.
bool lockFile(const char* path, int waitSeconds, int staleSeconds);
/// Gives the lock of `path` back, whoever took it. Always true.
bool unlockFile(const char* path);
