// What the hub can start: the plugins of all service description files, and which of them provides
// a service. The checker of description files reads them by this room too, so that it tells what
// the hub would know.
//
// A description file has the extension `kvs` and is an options file whose block `Services` is one
// plugin's section, or holds one section for each plugin. The database is filled once, at start, on
// the main thread, and only read from then on; it owns its records. Where several plugins provide
// one service the first one read has it: priorities play no part.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "service_database/plugin_record.h"

class ut_attribute_list;

class ServiceDatabase {
 public:
  /// How the reading of one file went.
  enum class FileResult : std::uint8_t {
    accepted,
    unreadable,        ///< can't be opened; nothing was reported
    malformed,         ///< a parse error, which was reported; nothing was taken
    without_services,  ///< no block `Services`; nothing was reported or taken
    section_refused,   ///< a section without `ExecName`, warned about; the others were taken
  };

  /// The paths of the description files in `directory`, without its sub-directories, in the order
  /// in which the system lists them; none if it is no directory.
  static std::vector<std::string> description_files(const char* directory);
  /// Adds what the files of `directory` describe. A bad file doesn't keep the others from being
  /// read; without the directory nothing happens.
  static void read_directory(ServiceDatabase& database, const char* directory);

  /// Adds the plugins of one file; true if it was read and each of its sections was taken.
  bool read_file(const char* path) { return add_file(path) == FileResult::accepted; }
  /// The same, telling what was in the way.
  FileResult add_file(const char* path);
  /// Adds the plugin of one section; false, with a warning, if it has no
  /// `ExecName`.
  bool add_plugin(const ut_attribute_list& section);

  /// The plugin that provides the service: the first one read that has it, the name compared with
  /// case. Null if there is none. Valid until the next plugin is added.
  const PluginRecord* find_plugin(const char* service_name) const;
  /// For each service the place of its plugin among plugins().
  using Providers = std::map<std::string, std::size_t, std::less<>>;
  const Providers& providers() const { return providers_; }
  /// In the order in which they were read; the place of each is its id.
  const std::vector<PluginRecord>& plugins() const { return plugins_; }

 private:
  std::int32_t next_id_ = 0;
  std::vector<PluginRecord> plugins_;
  Providers providers_;  // so that a question costs no walk over all of them
};
