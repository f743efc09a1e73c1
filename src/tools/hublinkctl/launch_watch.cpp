#include "tools/hublinkctl/launch_watch.h"

#include <algorithm>

namespace hublinkctl {

LaunchWatch::LaunchWatch(Session& session) : session_(session), client_(session) {}

bool LaunchWatch::watchProgram(const std::string& program) {
  programs_ = {program};
  return open() && subscribe();
}

bool LaunchWatch::watchService(const std::string& service) {
  service_ = service;
  if (!open()) return false;
  if (!isOpen_) return true;
  const auto services = client_.list(Listed::services);
  if (!services) return false;
  for (const Facts& item : *services)
    if (item.at("name") == service && item.at("program").is_string())
      programs_.push_back(item.at("program").get<std::string>());
  return subscribe();
}

bool LaunchWatch::open() {
  isOpen_ = client_.openIfOffered();
  return isOpen_ || session_.exitCode() == ExitCode::fine;
}

bool LaunchWatch::subscribe() {
  if (!isOpen_) return true;
  session_.onSilence([this] { return reason(); });
  return client_.subscribe([this](const Facts& event) { note(event); });
}

// Of several launches of one program the events don't tell which is which: they end in the order in
// which they began, as far as anybody can say.
void LaunchWatch::note(const Facts& event) {
  const std::string kind = event.value("kind", "");
  const std::string text = event.at("text").is_string() ? event["text"].get<std::string>() : "";
  const std::int32_t plugin =
      event.at("plugin_id").is_null() ? 0 : event["plugin_id"].get<std::int32_t>();
  const bool counts = std::find(programs_.begin(), programs_.end(), text) != programs_.end();
  if (kind == "launch begun" && counts) launches_.push_back({text, {}, 0, {}, false});
  for (Launch& launch : launches_) {
    const bool isOpen = launch.program == text && launch.failure.empty() && launch.pluginID == 0;
    if (isOpen && kind == "launch failed") {
      launch.failure = event.at("detail").is_string() ? event["detail"].get<std::string>() : kind;
      return;
    }
    if (isOpen && kind == "launch done") {
      launch.pluginID = plugin;
      return;
    }
    if (plugin == 0 || launch.pluginID != plugin) continue;
    if (kind == "service registered") launch.services.push_back(text);
    if (kind == "plugin gone") launch.isGone = true;
  }
}

std::string LaunchWatch::textOf(const Launch& launch) const {
  if (!launch.failure.empty()) return launch.program + ": " + launch.failure;
  if (launch.pluginID == 0) return launch.program + " was started and hasn't connected yet";
  std::string text = launch.program + " has connected as plugin " + std::to_string(launch.pluginID);
  if (service_.empty()) return text;
  if (launch.isGone) text += ", has gone,";
  if (launch.services.empty()) return text + " and registered nothing";
  for (std::size_t i = 0; i < launch.services.size(); ++i)
    text += (i == 0 ? " and registered " : ", ") + launch.services[i];
  return text + ", not " + service_;
}

std::string LaunchWatch::reason() const {
  if (isOpen_ && launches_.empty() && programs_.empty() && !service_.empty())
    return "no description file that the hub has read offers it";
  std::string text;
  for (const Launch& launch : launches_) text += (text.empty() ? "" : "; ") + textOf(launch);
  return text;
}

}  // namespace hublinkctl
