// The subcommand hubs: all hubs of this user that run.
#include "active_hub/record_list.h"
#include "indgen/find.h"
#include "platform/clock.h"
#include "platform/terminal.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/table.h"

namespace hublinkctl {
namespace {

constexpr int kPatience = 1000;  // ms for each hub

// Null if no hub is there any more: its process's number is somebody else's by now.
Facts factsOf(const ListedRecord& record) {
  const std::uint16_t port = record.hub.livePort();
  if (port == 0) return {};
  HublinkPlugin plugin;
  std::string error;
  const HubSearch outcome = joinHubOnPort(plugin, port, error, kPatience);
  if (outcome == HubSearch::none || outcome == HubSearch::gone) return {};
  std::optional<PluginCounts> counts;
  if (outcome == HubSearch::joined) {
    plugin.setPersistent(false);
    counts = plugin.countPlugins(kPatience);
  }
  return {{"zone", record.name},           {"port", port},
          {"process", record.hub.process}, {"plugins", counts ? Facts(counts->total - 1) : Facts()},
          {"answers", counts.has_value()}, {"record", record.path}};
}

bool hubs(Session& session, bool json) {
  Facts found = Facts::array();
  for (const ListedRecord& record : listRecords())
    if (Facts facts = factsOf(record); !facts.is_null()) found.push_back(std::move(facts));
  if (json) return session.print(found);
  const auto width = static_cast<std::size_t>(platform::terminalSize().columns);
  return session.printText(tableOf({{"ZONE", "zone"},
                                    {"PORT", "port", Shown::count},
                                    {"PROCESS", "process", Shown::count},
                                    {"PLUGINS", "plugins", Shown::count},
                                    {"ANSWERS", "answers"}},
                                   found, width, 0));
}

}  // namespace

void addHubsCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command =
      app.add_subcommand("hubs", "List all hubs of this user that run, by their records");
  prints(command, options);
  addNote(command,
          "The zone of a hub that has none is a number made of its installation. Each is given a "
          "second\nto tell how many plugins it has.");
  runs(command, options, exitCode,
       [&options](Session& session) { return hubs(session, options.json); });
}

}  // namespace hublinkctl
