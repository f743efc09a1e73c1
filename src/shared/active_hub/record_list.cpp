#include "active_hub/record_list.h"

#include <cstdio>
#include <map>

#include "active_hub/own_place.h"
#include "indgen/own_file.h"
#include "platform/file.h"

namespace {

constexpr const char* kPrefix = "svc_";
constexpr std::size_t kLargestRecord = 1024;  // bytes

// A parser would complain of what isn't a record.
bool looksLikeRecord(const char* path) {
  std::FILE* stream = gen_open_own_file(path);
  if (!stream) return false;
  char bytes[kLargestRecord];
  const std::string text(bytes, std::fread(bytes, 1, sizeof bytes, stream));
  std::fclose(stream);
  int port = 0, process = 0, end = 0;
  return std::sscanf(text.c_str(), " Port = %d Pid = %d %n", &port, &process, &end) == 2 &&
         static_cast<std::size_t>(end) == text.size();
}

void addFrom(const std::string& directory, std::map<std::string, ListedRecord>& found) {
  const std::string prefix = kPrefix;
  platform::DirectoryReader reader;
  if (reader.open(directory.c_str()) != 0) return;
  while (const char* entry = reader.next()) {
    const std::string file = entry;
    if (!file.starts_with(prefix) || found.contains(file)) continue;
    const std::string path = directory + file;
    if (!looksLikeRecord(path.c_str())) continue;
    found[file] = {file.substr(prefix.size()), path, readRecord(path.c_str())};
  }
}

}  // namespace

std::vector<ListedRecord> listRecords() {
  const std::string usual = recordPath("").get();
  const auto directoryOf = [](const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
  };
  std::map<std::string, ListedRecord> found;
  addFrom(directoryOf(usual), found);
  if (hasOwnPlace(usual.c_str())) addFrom(directoryOf(ownPlaceOf(usual.c_str()).get()), found);
  std::vector<ListedRecord> records;
  for (auto& [file, record] : found) records.push_back(std::move(record));
  return records;
}
