#include "active_hub/active_hub_record.h"

#include <string>

#include "active_hub/lock_file.h"
#include "active_hub/md5_text.h"
#include "active_hub/own_place.h"
#include "indgen/access.h"
#include "indgen/directory.h"
#include "indgen/find.h"
#include "indgen/host.h"
#include "indgen/own_file.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "indgen/report.h"
#include "indgen/spawn.h"
#include "indgen/temporary.h"
#include "indgen/text.h"
#include "indgen/whole_file.h"
#include "libcxxutil/ut_options_database.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/process.h"

namespace {

constexpr const char* kTitle = "Hublink";
constexpr const char* kHubProgram = "hublink";
constexpr unsigned kDirectoryMode = 0750;
constexpr int kStaleSeconds = 60;
constexpr int kToolWait = 20;  // seconds

// Something else than a record, which can't be replaced by one.
bool isTaken(const char* path) {
  platform::FileStatus status;
  return platform::linkStatus(path, status) == 0 && !gen_is_own_file(path);
}

// Where the record lies, or would: the usual place, or else the user's own.
gen_text placeOf(const gen_text& name) {
  gen_text usual = recordPath(name);
  if (gen_is_own_file(usual)) return usual;
  gen_text own = ownPlaceOf(usual);
  const bool isThere = hasOwnPlace(usual) && gen_is_own_file(own);
  return isThere || gen_is_foreign(usual) ? std::move(own) : std::move(usual);
}

}  // namespace

gen_text recordName(const char* zone, const char* suffix, const char* programPath) {
  if (zone) return gen_strdup(zone);
  const gen_text directory = gen_full_path(programPath ? programPath : gen_program_dir());
  std::string key(directory);
  if (suffix) key += suffix;
  // A new build of the hub gets a record of its own.
  platform::FileStatus hub;
  if (V_stat(gen_join(directory, kHubProgram), &hub) == 0)
    key = std::to_string(hub.modifiedMilliseconds / 1000) + key;
  key += platform::userName();
  key += gen_host_name();
  return md5Text(key.c_str());
}

gen_text recordPath(const char* name) {
  std::string file = "svc";
  if (name && *name) file += std::string("_") + name;
  return gen_join(gen_temporary_directory(nullptr), file.c_str());
}

ActiveHubRecord::ActiveHubRecord(std::uint32_t port, const char* zone, const char* suffix,
                                 const char* programPath)
    : name(recordName(zone, suffix, programPath)), ownPort(static_cast<std::int32_t>(port)) {
  gen_make_directory_path(gen_temporary_directory(nullptr), kDirectoryMode);
  ut_options_database database(kTitle);
  database.add_or_replace_int32("Port", ownPort);
  database.add_or_replace_int32("Pid", platform::currentProcess());
  const auto write = [&database](std::FILE* stream) { return database.write(stream); };
  const auto writeTo = [&](gen_text place) {
    path = std::move(place);
    return gen_replace_file(path, write, true) == 0;
  };
  const gen_text usual = recordPath(name);
  if (writeTo(gen_strdup(usual)) ||
      (isTaken(usual) && makeOwnPlace(usual) && writeTo(ownPlaceOf(usual))))
    return;
  const std::string reason = whyNoPlace(usual);
  gen_error("failed when writing %s%s%s", path.get(), reason.empty() ? "" : ": ", reason.c_str());
}

bool ActiveHubRecord::lock() {
  return lockFile(recordPath(name), 0, kStaleSeconds);
}

void ActiveHubRecord::unlock() {
  unlockFile(recordPath(name));
}

bool ActiveHubRecord::remove() {
  return gen_remove_file_if(path, [this](const char* file) { return names(file); });
}

bool ActiveHubRecord::names(const char* file) const {
  const ActiveHub hub = readRecord(file);
  return hub.process == platform::currentProcess() && hub.port == ownPort;
}

ActiveHub readRecord(const char* path) {
  ut_options_database database(kTitle);
  if (!database.read(path, gen_open_own_file(path))) return {};
  return {database.int32_value("Port", -1), database.int32_value("Pid", -1)};
}

std::uint16_t ActiveHub::livePort() const {
  if (port < 0 || port > UINT16_MAX || !gen_process_exists(process)) return 0;
  return static_cast<std::uint16_t>(port);
}

gen_text activeHubPlace(const char* zone, const char* suffix, const char* programPath) {
  return placeOf(recordName(zone, suffix, programPath));
}

std::string whyNoActiveHub(const char* zone, const char* suffix, const char* programPath) {
  const gen_text path = recordPath(recordName(zone, suffix, programPath));
  const std::string reason = whyNoPlace(path);
  return reason.empty() ? whyNoLock(path) : reason;
}

ActiveHub readActiveHub(const char* zone, const char* suffix, const char* programPath) {
  const gen_text place = activeHubPlace(zone, suffix, programPath);
  return place ? readRecord(place) : ActiveHub();
}

std::uint16_t findActiveHub(const char* zone, const char* suffix, const char* programPath) {
  return readActiveHub(zone, suffix, programPath).livePort();
}

bool lockActiveHub(const char* zone, const char* suffix, const char* programPath) {
  return lockFile(recordPath(recordName(zone, suffix, programPath)), kToolWait, kStaleSeconds);
}

void unlockActiveHub(const char* zone, const char* suffix, const char* programPath) {
  unlockFile(recordPath(recordName(zone, suffix, programPath)));
}

void removeActiveHub(const char* zone, const char* suffix, const char* programPath) {
  const gen_text place = activeHubPlace(zone, suffix, programPath);
  if (gen_is_own_file(place)) V_unlink(place);
}
