// The subcommands that look beyond this machine: bridge, machines. `list --realm` has the rest.
#include <algorithm>

#include "platform/clock.h"
#include "platform/terminal.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/realm_client.h"
#include "tools/hublinkctl/table.h"

namespace hublinkctl {
namespace {

bool bridge(Session& session) {
  RealmClient client(session);
  const auto facts = client.open() ? client.bridge() : std::nullopt;
  return facts && session.print(*facts);
}

bool machines(Session& session, bool json) {
  RealmClient client(session);
  const auto found = client.open() ? client.list(RealmListed::machines) : std::nullopt;
  if (!found) return false;
  if (json) return session.print(*found);
  const auto width = static_cast<std::size_t>(std::max(platform::terminalSize().columns, 0));
  return session.printText(tableOf({{"MACHINE", "name"},
                                    {"VERSION", "version"},
                                    {"AGE", "since", Shown::age},
                                    {"HEARD", "heard", Shown::age},
                                    {"ROUND TRIP US", "round_trip", Shown::count},
                                    {"SERVICES", "services", Shown::count},
                                    {"LINKS", "links", Shown::count}},
                                   *found, width, platform::unixMilliseconds()));
}

}  // namespace

void addRealmCommands(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "bridge", "Tell how the bridge that joins the hub with other machines does");
  prints(command, options);
  runsOnHub(command, options, exitCode, [](Session& session) { return bridge(session); });

  command = app.add_subcommand("machines", "List the other machines of the bridge's realm");
  prints(command, options);
  runsOnHub(command, options, exitCode,
            [&options](Session& session) { return machines(session, options.json); });
}

}  // namespace hublinkctl
