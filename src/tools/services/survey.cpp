#include "tools/services/survey.h"

#include <algorithm>
#include <iterator>

#include "indgen/format.h"
#include "indgen/quote.h"
#include "tools/services/block_places.h"
#include "tools/services/description_check.h"
#include "tools/services/program_check.h"

namespace services {
namespace {

using FileResult = ServiceDatabase::FileResult;

// The places in a file that are spoken of, in the order in which the hub comes to them.
struct Spots {
  std::vector<Place> refused;   // what the hub warns about and doesn't take
  std::vector<Place> services;  // those of the file's plugins, one plugin after the other
  std::vector<const ut_attribute_list*> plugins;
};

void visitEntries(const BlockPlaces& places, const ut_attribute_list& section, const char* block,
                  const char* required, std::vector<Place>& refused, std::vector<Place>* complete) {
  const ut_attribute_list* list = section.find_child(block);
  const ut_attribute_list* entry = list ? list->first_child() : nullptr;
  for (; entry; entry = entry->next_sibling()) {
    if (!entry->str_value(required))
      refused.push_back(places.of(*entry));
    else if (complete)
      complete->push_back(places.of(*entry));
  }
}

void visitSection(const BlockPlaces& places, const ut_attribute_list& section, Spots& spots) {
  if (!section.str_value("ExecName")) {
    spots.refused.push_back(places.of(section));
    return;
  }
  spots.plugins.push_back(&section);
  if (!PluginRecord::is_launch_timeout(section.int32_value("LaunchTimeout")))
    spots.refused.push_back(places.of(section, "LaunchTimeout"));
  visitEntries(places, section, "Arguments", "Arg", spots.refused, nullptr);
  visitEntries(places, section, "ServicesProvided", "ServiceName", spots.refused, &spots.services);
}

Spots spotsOf(const BlockPlaces& places) {
  Spots spots;
  const ut_attribute_list* services = places.root().find_child("Services");
  if (!services) return spots;
  if (services->str_value("ExecName")) {
    visitSection(places, *services, spots);
    return spots;
  }
  const ut_attribute_list* section = services->first_child();
  for (; section; section = section->next_sibling()) visitSection(places, *section, spots);
  return spots;
}

// The hub reports what reading the file brings up, and then what of it can't be taken.
void placeReports(std::vector<Finding>& findings, const BlockPlaces& places,
                  const std::vector<Place>& refused) {
  const std::size_t reading = std::min(findings.size(), places.reports().size());
  for (std::size_t i = 0; i < reading; ++i) findings[i].place = places.reports()[i].place;
  if (reading > 0 && !places.expected().empty()) {
    std::string& text = findings[reading - 1].text;
    text += (text.ends_with(':') ? " expected " : ": expected ") + places.expected();
  }
  const std::size_t taking = std::min(findings.size() - reading, refused.size());
  for (std::size_t i = 0; i < taking; ++i) findings[reading + i].place = refused[i];
}

void append(std::vector<Finding>& findings, std::vector<Finding> more) {
  findings.insert(findings.end(), std::make_move_iterator(more.begin()),
                  std::make_move_iterator(more.end()));
}

}  // namespace

void Survey::add_file(const std::string& path) {
  FileSurvey file;
  file.path = path;
  file.first_plugin = database_.plugins().size();
  {
    const ReportCapture capture(file.findings, [&] { return Place{path, 0}; });
    file.result = database_.add_file(path.c_str());
  }
  file.plugin_count = database_.plugins().size() - file.first_plugin;
  fileOfPlugin_.insert(fileOfPlugin_.end(), file.plugin_count, files_.size());
  files_.push_back(std::move(file));
  addOwnFindings(files_.back());
}

void Survey::add_trouble(const std::string& path, const char* reason) {
  FileSurvey file;
  file.path = path;
  file.result = FileResult::unreadable;
  file.findings.push_back({Severity::error, {path, 0}, reason});
  files_.push_back(std::move(file));
}

void Survey::add_empty_directory(const std::string& path) {
  FileSurvey directory;
  directory.path = path;
  directory.is_directory = true;
  directory.findings.push_back(
      {Severity::warning, {path, 0}, "holds no description file: name them like tool.kvs"});
  files_.push_back(std::move(directory));
}

std::size_t Survey::file_count() const {
  return static_cast<std::size_t>(std::count_if(
      files_.begin(), files_.end(), [](const FileSurvey& file) { return !file.is_directory; }));
}

const FileSurvey& Survey::file_of(const PluginRecord& plugin) const {
  return files_[fileOfPlugin_[static_cast<std::size_t>(plugin.id())]];
}

const PluginRecord* Survey::rival(const PluginRecord& plugin, const ServiceRecord& service) const {
  const PluginRecord* provider = database_.find_plugin(service.name.c_str());
  return provider && provider->id() != plugin.id() ? provider : nullptr;
}

std::size_t Survey::count(Severity severity) const {
  std::size_t count = 0;
  for (const FileSurvey& file : files_)
    count += static_cast<std::size_t>(
        std::count_if(file.findings.begin(), file.findings.end(),
                      [&](const Finding& finding) { return finding.severity == severity; }));
  return count;
}

bool Survey::all_is_well() const {
  return count(Severity::error) == 0 && count(Severity::warning) == 0;
}

std::vector<Survey::Contest> Survey::contestsOf(const FileSurvey& file) const {
  std::vector<Contest> contests;
  std::size_t index = 0;
  for (std::size_t i = 0; i < file.plugin_count; ++i) {
    const PluginRecord& plugin = database_.plugins()[file.first_plugin + i];
    for (const ServiceRecord& service : plugin.services()) {
      if (const PluginRecord* provider = rival(plugin, service))
        contests.push_back({index, &service, provider});
      ++index;
    }
  }
  return contests;
}

void Survey::addProgramFindings(FileSurvey& file, const BlockPlaces& places,
                                const std::vector<const ut_attribute_list*>& sections) const {
  for (std::size_t i = 0; i < std::min(file.plugin_count, sections.size()); ++i) {
    const PluginRecord& plugin = database_.plugins()[file.first_plugin + i];
    // One that is no program is for its requester to find.
    if (plugin.is_shared_object()) continue;
    const auto check = [&](const char* attribute, const std::string& program) {
      std::string trouble = troubleWithProgram(plugin, program);
      if (!trouble.empty())
        file.findings.push_back(
            {Severity::warning, places.of(*sections[i], attribute), std::move(trouble)});
    };
    check("ExecName", plugin.exec_name());
    if (plugin.ada_exec_name()) check("AdaExecName", *plugin.ada_exec_name());
  }
}

void Survey::addOwnFindings(FileSurvey& file) const {
  const Place whole{file.path, 0};
  if (file.result == FileResult::unreadable) {
    file.findings.push_back({Severity::error, whole, "can't be opened"});
    return;
  }
  const BlockPlaces places(file.path.c_str());
  const Spots spots = spotsOf(places);
  placeReports(file.findings, places, spots.refused);
  if (file.result == FileResult::without_services)
    file.findings.push_back(
        {Severity::warning, whole, "has no block \"Services\", so that nothing is taken from it"});
  append(file.findings, checkText(places));
  if (file.result == FileResult::malformed) return;
  append(file.findings, checkDescription(places));
  addProgramFindings(file, places, spots.plugins);
  for (const Contest& contest : contestsOf(file)) {
    const bool known = contest.index < spots.services.size();
    const gen_text service = gen_quote(contest.service->name.c_str());
    const gen_text provider = gen_quote(contest.provider->plugin_name().c_str());
    const std::string& path = file_of(*contest.provider).path;
    file.findings.push_back({Severity::warning, known ? spots.services[contest.index] : whole,
                             gen_asprintf("the service %s is already provided by %s in %s",
                                          service.get(), provider.get(), path.c_str())
                                 .get()});
  }
}

}  // namespace services
