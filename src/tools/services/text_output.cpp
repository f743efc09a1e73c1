#include <cstdio>

#include "indgen/printable.h"
#include "indgen/quote.h"
#include "tools/services/output.h"

namespace services {
namespace {

std::string quoted(const std::string& text) {
  return gen_printable(gen_quote(text.c_str()).get());
}

std::string joined(const std::vector<NameAndValue>& pairs) {
  std::string result;
  for (const NameAndValue& pair : pairs)
    result += ' ' + gen_printable(pair.name) + '=' + quoted(pair.value);
  return result;
}

std::string counted(std::size_t count, const char* what) {
  return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

class TextWriter {
 public:
  explicit TextWriter(const Survey& survey) : survey_(survey) {}

  std::string text() {
    for (const FileSurvey& file : survey_.files()) addFile(file);
    addSummary();
    return std::move(text_);
  }

 private:
  void addFile(const FileSurvey& file) {
    text_ += gen_printable(file.path) + '\n';
    for (std::size_t i = 0; i < file.plugin_count; ++i)
      addPlugin(survey_.database().plugins()[file.first_plugin + i]);
    for (const Finding& finding : file.findings) addFinding(finding);
    if (file.result == ServiceDatabase::FileResult::malformed)
      text_ += "  nothing is taken from this file\n";
    text_ += '\n';
  }

  void addPlugin(const PluginRecord& plugin) {
    text_ += "  plugin " + quoted(plugin.plugin_name()) + '\n';
    addLine("program", ' ' + quoted(plugin.executable_name()));
    if (plugin.ada_exec_name())
      addLine("choice",
              ' ' + quoted(plugin.exec_name()) + ", for Ada " + quoted(*plugin.ada_exec_name()));
    std::string arguments;
    for (const std::string& argument : plugin.arguments()) arguments += ' ' + quoted(argument);
    addLine("arguments", arguments);
    addLine("environment", joined(plugin.environment()));
    addLine("data", joined(plugin.plugin_data()));
    if (plugin.is_persistent()) addLine("persistent", " yes");
    if (plugin.is_shared_object()) addLine("shared object", " yes");
    if (const auto seconds = plugin.launch_timeout())
      addLine("launch timeout",
              *seconds == 0 ? " none" : ' ' + std::to_string(*seconds) + " seconds");
    for (const ServiceRecord& service : plugin.services()) addService(plugin, service);
  }

  void addService(const PluginRecord& plugin, const ServiceRecord& service) {
    std::string line = ' ' + quoted(service.name);
    if (service.priority != 0) line += ", priority " + std::to_string(service.priority);
    if (!service.service_data.empty()) line += ", data" + joined(service.service_data);
    if (const PluginRecord* rival = survey_.rival(plugin, service))
      line += ", already provided by " + quoted(rival->plugin_name()) + " in " +
              gen_printable(survey_.file_of(*rival).path);
    addLine("service", line);
  }

  // What is empty isn't spoken of.
  void addLine(const char* label, const std::string& value) {
    if (!value.empty()) text_.append("    ").append(label).append(":").append(value) += '\n';
  }

  void addFinding(const Finding& finding) {
    text_ += gen_printable(finding.place.file);
    if (finding.place.line > 0) text_ += ':' + std::to_string(finding.place.line);
    text_.append(": ").append(wordOf(finding.severity)).append(": ");
    text_ += gen_printable(finding.text) + '\n';
  }

  void addSummary() {
    std::size_t services = 0;
    for (const PluginRecord& plugin : survey_.database().plugins())
      services += plugin.services().size();
    text_ += counted(survey_.file_count(), "file") + ", " +
             counted(survey_.database().plugins().size(), "plugin") + ", " +
             counted(services, "service") + ": " +
             (survey_.all_is_well() ? "all is well"
                                    : counted(survey_.count(Severity::error), "error") + ", " +
                                          counted(survey_.count(Severity::warning), "warning")) +
             '\n';
  }

  const Survey& survey_;
  std::string text_;
};

}  // namespace

std::string textOf(const Survey& survey) {
  return TextWriter(survey).text();
}

}  // namespace services
