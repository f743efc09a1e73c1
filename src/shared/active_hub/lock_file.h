// Locks between processes, made of a file that exists while somebody holds the lock.
//
// The lock of the file `path` is the empty file with the extension "lock" beside it. Nothing tells
// who made it: whoever unlocks takes it away. One that belongs to another user is as good as none
// and stays; the lock in the user's own place (own_place.h) then keeps his other processes out.
#pragma once

#include <string>

/// For `waitSeconds`: no limit.
inline constexpr int kWaitForLock = -1;
/// For `staleSeconds`: a lock is never taken for a forgotten one.
inline constexpr int kLockNeverStale = 1;

/// Takes the lock of `path`, trying about every 100 ms until `waitSeconds` have passed (0: one
/// try). A lock that is there and older than `staleSeconds` is first broken, with a warning. True
/// if the lock was got, or another user is in the way of every one.
bool lockFile(const char* path, int waitSeconds, int staleSeconds);
/// What another user has put in the way of every lock of `path`; empty if there can be one.
std::string whyNoLock(const char* path);
/// Gives the lock of `path` back, whoever took it. Always true.
bool unlockFile(const char* path);
