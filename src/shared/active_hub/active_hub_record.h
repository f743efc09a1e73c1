// The record by which tools find a shared hub: a small file in the temporary directory that holds
// the hub's port and process.
//
// Where it lies follows from what every tool can work out for itself: a zone name that they agree
// on, or else the directory of the installation, the age of the hub in it, the user and the
// machine. So each user and each installation has a hub of its own. `zone` and `programPath` may be
// null, `suffix` null or empty; without a `programPath` the directory of the running program
// counts. A lock beside the file guards its removal. A file that belongs to another user, or is a
// link, is no record: if it can't be replaced, the record goes to the user's own place
// (own_place.h), which is looked into whenever there is no record in the usual one.
//
// The file is a text of attributes, one on a line: `Port` and `Pid`.
#pragma once

#include <cstdint>
#include <string>

#include "active_hub/active_hub.h"
#include "indgen/memory.h"

/// The name of the record: a copy of `zone` if there is one, else the digest of all that makes an
/// installation.
gen_text recordName(const char* zone, const char* suffix, const char* programPath);
/// The path of the record of this name, where nobody else has put something.
gen_text recordPath(const char* name);

/// The hub's own hold on its record. The file isn't kept open, and outlives this object.
class ActiveHubRecord {
 public:
  /// Writes the record, whole or not at all, for this user alone to read. A failure is reported and
  /// leaves a hub that nobody can find.
  ActiveHubRecord(std::uint32_t port, const char* zone, const char* suffix,
                  const char* programPath);
  /// Takes the lock without waiting; one older than 60 seconds is broken. True if it was got.
  bool lock();
  void unlock();
  /// Deletes the record if it still names this hub: another one may have taken it over. True if it
  /// was deleted. The lock has to be held.
  bool remove();
  /// Where it was written; null if it couldn't be.
  const char* file() const { return path; }

 private:
  bool names(const char* file) const;

  gen_text name;
  gen_text path;  // where it was written
  std::int32_t ownPort;
};

// --- For tools that look for a hub ---

/// What the record in this very file says. Another user's file says nothing to this one, and
/// neither does a link, whoever may have put it into a directory that all users share.
ActiveHub readRecord(const char* path);
/// The path at which the record lies, or would lie now.
gen_text activeHubPlace(const char* zone, const char* suffix, const char* programPath);
/// What another user has put in the way of every record of this name, or of its lock; empty if
/// there can be both.
std::string whyNoActiveHub(const char* zone, const char* suffix, const char* programPath);
ActiveHub readActiveHub(const char* zone, const char* suffix, const char* programPath);
/// The port of a hub that runs, or 0. A record whose process has gone stays where it is.
std::uint16_t findActiveHub(const char* zone, const char* suffix, const char* programPath);
/// Takes the lock, so that the hub can't take its record away; tries for up to 20 seconds.
bool lockActiveHub(const char* zone, const char* suffix, const char* programPath);
void unlockActiveHub(const char* zone, const char* suffix, const char* programPath);
/// Deletes the record, whichever hub it names. The lock has to be held.
void removeActiveHub(const char* zone, const char* suffix, const char* programPath);
