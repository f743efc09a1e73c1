#include <nlohmann/json.hpp>

#include "tools/services/output.h"

namespace services {
namespace {

// Keeps the order in which the members are written.
using Json = nlohmann::ordered_json;

// A list, not an object: the order is the file's.
Json pairsOf(const std::vector<NameAndValue>& pairs) {
  Json list = Json::array();
  for (const NameAndValue& pair : pairs)
    list.push_back({{"name", pair.name}, {"value", pair.value}});
  return list;
}

Json serviceOf(const Survey& survey, const PluginRecord& plugin, const ServiceRecord& service) {
  Json json{{"name", service.name},
            {"priority", service.priority},
            {"data", pairsOf(service.service_data)},
            {"already_provided_by", nullptr}};
  if (const PluginRecord* rival = survey.rival(plugin, service))
    json["already_provided_by"] = {
        {"id", rival->id()}, {"name", rival->plugin_name()}, {"file", survey.file_of(*rival).path}};
  return json;
}

Json pluginOf(const Survey& survey, const PluginRecord& plugin) {
  Json services = Json::array();
  for (const ServiceRecord& service : plugin.services())
    services.push_back(serviceOf(survey, plugin, service));
  Json ada = nullptr, launchTimeout = nullptr;
  if (plugin.ada_exec_name()) ada = *plugin.ada_exec_name();
  if (plugin.launch_timeout()) launchTimeout = *plugin.launch_timeout();
  return {{"id", plugin.id()},
          {"name", plugin.plugin_name()},
          {"file", survey.file_of(plugin).path},
          {"program", plugin.executable_name()},
          {"exec_name", plugin.exec_name()},
          {"ada_exec_name", ada},
          {"arguments", plugin.arguments()},
          {"environment", pairsOf(plugin.environment())},
          {"data", pairsOf(plugin.plugin_data())},
          {"persistent", plugin.is_persistent()},
          {"shared_object", plugin.is_shared_object()},
          {"launch_timeout", launchTimeout},
          {"services", services}};
}

Json findingOf(const Finding& finding) {
  Json line = nullptr;
  if (finding.place.line > 0) line = finding.place.line;
  return {{"severity", wordOf(finding.severity)},
          {"file", finding.place.file},
          {"line", line},
          {"text", finding.text}};
}

const char* wordOf(ServiceDatabase::FileResult result) {
  switch (result) {
    case ServiceDatabase::FileResult::accepted:
      return "accepted";
    case ServiceDatabase::FileResult::unreadable:
      return "unreadable";
    case ServiceDatabase::FileResult::malformed:
      return "malformed";
    case ServiceDatabase::FileResult::without_services:
      return "without services";
    case ServiceDatabase::FileResult::section_refused:
      return "section refused";
  }
  return "";
}

}  // namespace

std::string jsonOf(const Survey& survey) {
  Json files = Json::array(), plugins = Json::array(), findings = Json::array();
  for (const FileSurvey& file : survey.files()) {
    files.push_back(
        {{"path", file.path}, {"result", file.is_directory ? "no files" : wordOf(file.result)}});
    for (const Finding& finding : file.findings) findings.push_back(findingOf(finding));
  }
  for (const PluginRecord& plugin : survey.database().plugins())
    plugins.push_back(pluginOf(survey, plugin));
  const Json json{{"all_is_well", survey.all_is_well()},
                  {"errors", survey.count(Severity::error)},
                  {"warnings", survey.count(Severity::warning)},
                  {"files", files},
                  {"plugins", plugins},
                  {"findings", findings}};
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace services
