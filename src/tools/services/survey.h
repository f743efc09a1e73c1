// What the hub would know after reading some description files, and what there is to say about
// them.
//
// The hub's own database reads the files; the survey notes which plugins came from which file and
// adds what the hub keeps to itself: files that can't be opened or describe nothing, what it passes
// over in them, programs that it wouldn't find, and services that can't be had because an earlier
// plugin provides them.
#pragma once

#include <string>
#include <vector>

#include "service_database/service_database.h"
#include "tools/services/finding.h"

namespace services {

class BlockPlaces;

struct FileSurvey {
  std::string path;
  ServiceDatabase::FileResult result = ServiceDatabase::FileResult::accepted;
  std::size_t first_plugin = 0;  ///< the place of its first plugin in the database
  std::size_t plugin_count = 0;
  std::vector<Finding> findings;
  bool is_directory = false;  ///< one without description files, and nothing was read
};

class Survey {
 public:
  /// Reads one file.
  void add_file(const std::string& path);
  /// Reads nothing, but notes that `path` can't be had, and why.
  void add_trouble(const std::string& path, const char* reason);
  /// Notes that a directory holds no description file.
  void add_empty_directory(const std::string& path);

  const ServiceDatabase& database() const { return database_; }
  /// In the order in which they were read.
  const std::vector<FileSurvey>& files() const { return files_; }
  /// Of which directories without files are none.
  std::size_t file_count() const;
  /// The file that a plugin of the database came from.
  const FileSurvey& file_of(const PluginRecord& plugin) const;
  /// The plugin that has this service instead of `plugin`; null if `plugin` has it itself.
  const PluginRecord* rival(const PluginRecord& plugin, const ServiceRecord& service) const;
  /// Findings of one severity in all files.
  std::size_t count(Severity severity) const;
  /// No errors and no warnings.
  bool all_is_well() const;

 private:
  // A service that another plugin provides; `index` counts the services of its file.
  struct Contest {
    std::size_t index;
    const ServiceRecord* service;
    const PluginRecord* provider;
  };

  std::vector<Contest> contestsOf(const FileSurvey& file) const;
  void addProgramFindings(FileSurvey& file, const BlockPlaces& places,
                          const std::vector<const ut_attribute_list*>& sections) const;
  void addOwnFindings(FileSurvey& file) const;

  ServiceDatabase database_;
  std::vector<FileSurvey> files_;
  std::vector<std::size_t> fileOfPlugin_;
};

}  // namespace services
