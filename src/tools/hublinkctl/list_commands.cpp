// The subcommands that show what a hub holds and what happens in it: list, show, monitor; and those
// by which its owner steps in: kick, stop.
#include <algorithm>

#include "indgen/find.h"
#include "indgen/printable.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/terminal.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/realm_client.h"
#include "tools/hublinkctl/status_client.h"
#include "tools/hublinkctl/table.h"

namespace hublinkctl {
namespace {

constexpr int kWatchStep = 1000;  // ms

struct Kind {
  const char* name;
  Listed what;
  std::vector<Column> columns;
};

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all{{"plugins",
                                      Listed::plugins,
                                      {{"PLUGIN", "plugin_id", Shown::count},
                                       {"PROGRAM", "program"},
                                       {"PROCESS", "process", Shown::count},
                                       {"ROAD", "road"},
                                       {"AGE", "since", Shown::age},
                                       {"SERVICES", "services", Shown::count},
                                       {"LINKS", "links", Shown::count},
                                       {"WAITING", "waiting", Shown::count},
                                       {"QUEUED", "queued_bytes", Shown::bytes},
                                       {"SLOW", "slow_since", Shown::age},
                                       {"STALLED", "stalled", Shown::count},
                                       {"MACHINE", "machine"}}},
                                     {"services",
                                      Listed::services,
                                      {{"SERVICE", "name"},
                                       {"STATE", "state"},
                                       {"PLUGIN", "plugin_id", Shown::count},
                                       {"WAITING", "waiting", Shown::count},
                                       {"PROGRAM", "program"},
                                       {"FILE", "file"},
                                       {"LINE", "line", Shown::count}}},
                                     {"links",
                                      Listed::links,
                                      {{"SERVICE", "service"},
                                       {"REQUESTER", "requester_id", Shown::count},
                                       {"PROVIDER", "provider_id", Shown::count},
                                       {"AGE", "since", Shown::age},
                                       {"PACKETS TO", "requester_packets", Shown::count},
                                       {"BYTES TO", "requester_bytes", Shown::bytes},
                                       {"PACKETS FROM", "provider_packets", Shown::count},
                                       {"BYTES FROM", "provider_bytes", Shown::bytes}}},
                                     {"launches",
                                      Listed::launches,
                                      {{"PROGRAM", "program"},
                                       {"SERVICE", "service"},
                                       {"PROCESS", "process", Shown::count},
                                       {"AGE", "since", Shown::age},
                                       {"LEFT", "until", Shown::left},
                                       {"WAITING", "waiting", Shown::count}}}};
  return all;
}

struct RealmKind {
  const char* name;
  RealmListed what;
  std::vector<Column> columns;
};

// The same of other machines.
const std::vector<RealmKind>& realmKinds() {
  static const std::vector<RealmKind> all{{"plugins",
                                           RealmListed::plugins,
                                           {{"MACHINE", "machine"},
                                            {"PLUGIN", "plugin_id", Shown::count},
                                            {"PROGRAM", "program"},
                                            {"STAND-IN", "stand_in", Shown::count},
                                            {"SERVICES", "services", Shown::count},
                                            {"LINKS", "links", Shown::count}}},
                                          {"services",
                                           RealmListed::services,
                                           {{"SERVICE", "name"},
                                            {"MACHINE", "machine"},
                                            {"STATE", "state"},
                                            {"PLUGIN", "plugin_id", Shown::count},
                                            {"PROGRAM", "program"},
                                            {"IMPORTED", "imported"}}},
                                          {"links",
                                           RealmListed::links,
                                           {{"SERVICE", "service"},
                                            {"FROM", "requester_machine"},
                                            {"REQUESTER", "requester_id", Shown::count},
                                            {"TO", "provider_machine"},
                                            {"PROVIDER", "provider_id", Shown::count},
                                            {"AGE", "since", Shown::age},
                                            {"PACKETS SENT", "sent_packets", Shown::count},
                                            {"BYTES SENT", "sent_bytes", Shown::bytes},
                                            {"PACKETS GOT", "received_packets", Shown::count},
                                            {"BYTES GOT", "received_bytes", Shown::bytes}}}};
  return all;
}

struct ListOptions {
  std::string what;  ///< empty: all of them
  std::string sort;
  std::vector<std::string> filters;
  bool reverse = false;
  bool watch = false;
  bool realm = false;  ///< of other machines
};

// Whether an item has, for each filter FIELD=TEXT, that text in that field.
bool fits(const Facts& item, const std::vector<std::string>& filters) {
  return std::all_of(filters.begin(), filters.end(), [&item](const std::string& filter) {
    const std::size_t place = filter.find('=');
    const Facts value = item.value(filter.substr(0, place), Facts());
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    return text.find(filter.substr(place + 1)) != std::string::npos;
  });
}

Facts arranged(const Facts& items, const ListOptions& how) {
  std::vector<Facts> kept;
  for (const Facts& item : items)
    if (fits(item, how.filters)) kept.push_back(item);
  if (!how.sort.empty())
    std::stable_sort(kept.begin(), kept.end(), [&](const Facts& a, const Facts& b) {
      return a.value(how.sort, Facts()) < b.value(how.sort, Facts());
    });
  if (how.reverse) std::reverse(kept.begin(), kept.end());
  return Facts(kept);
}

std::size_t width() {
  return static_cast<std::size_t>(std::max(platform::terminalSize().columns, 0));
}

// `Client` tells of `kinds`.
template <class Client, class Kinds>
bool listOnce(Session& session, Client& client, const Kinds& kinds, const ListOptions& how,
              bool json) {
  Facts object = Facts::object();
  std::string text;
  for (const auto& kind : kinds) {
    if (!how.what.empty() && how.what != kind.name) continue;
    const auto items = client.list(kind.what);
    if (!items) return false;
    const Facts shown = arranged(*items, how);
    object[kind.name] = shown;
    if (how.what.empty()) text += (text.empty() ? "" : "\n") + std::string(kind.name) + ":\n";
    const std::string table = tableOf(kind.columns, shown, width(), platform::unixMilliseconds());
    text += usesColours() ? coloured(table, shown) : table;
  }
  return json ? session.print(how.what.empty() ? object : object.front()) : session.printText(text);
}

template <class Client, class Kinds>
bool list(Session& session, const Kinds& kinds, const ListOptions& how, bool json) {
  Client client(session);
  if (!client.open()) return false;
  if (!how.watch) return listOnce(session, client, kinds, how, json);
  platform::installStopSignals();
  const bool clears = !json && platform::isTerminal(1);
  while (!platform::stopRequested()) {
    session.restartClock();
    if (clears && !session.printText("\x1b[H\x1b[2J")) return false;
    if (!listOnce(session, client, kinds, how, json)) return false;
    session.plugin().serveUntil([] { return platform::stopRequested(); }, kWatchStep);
    if (!session.plugin().isConnected()) return session.failGone();
  }
  return true;
}

// A plugin by its number, or a service by its name, with the links of either.
bool show(Session& session, const std::string& what) {
  StatusClient client(session);
  if (!client.open()) return false;
  const auto number = numberIn(what);
  const auto items = client.list(number ? Listed::plugins : Listed::services);
  const auto links = items ? client.list(Listed::links) : std::nullopt;
  if (!links) return false;
  Facts shown = Facts::array();
  for (const Facts& item : *items) {
    if (number ? item.at("plugin_id") != *number : item.at("name") != what) continue;
    shown.push_back(item);
  }
  if (shown.empty())
    return session.fail(ExitCode::no,
                        number ? "there is no plugin " + what
                               : "no service " + what + " is registered, awaited or described");
  Facts own = Facts::array();
  for (const Facts& link : *links)
    if (number ? link.at("requester_id") == *number || link.at("provider_id") == *number
               : link.at("service") == what)
      own.push_back(link);
  Facts facts = shown.front();
  if (shown.size() > 1) facts["providers"] = shown;
  facts["open_links"] = own;
  return session.print(facts);
}

std::string eventLine(const Facts& event) {
  const auto textOf = [&event](const char* name) {
    return event.at(name).is_null() ? std::string() : shownValue(event.at(name), Shown::text, 0);
  };
  std::string line = clockTime(event.at("time").get<std::int64_t>()) + "  " + textOf("kind");
  if (event.at("lost") != 0) line = "(" + event.at("lost").dump() + " lost)\n" + line;
  for (const char* id : {"plugin_id", "other_id"})
    if (!event.at(id).is_null())
      line += std::string(id[0] == 'p' ? "  plugin " : "  and ") + event.at(id).dump();
  if (const std::string text = textOf("text"); !text.empty()) line += "  " + text;
  if (const std::string detail = textOf("detail"); !detail.empty()) line += ": " + detail;
  return line + '\n';
}

bool monitor(Session& session, bool json) {
  StatusClient client(session);
  if (!client.open()) return false;
  platform::installStopSignals();
  bool isWritten = true;
  if (!client.subscribe([&](const Facts& event) {
        const std::string line = json ? jsonText(event) + '\n' : eventLine(event);
        if (isWritten) isWritten = session.printText(line);
      }))
    return false;
  while (isWritten && !platform::stopRequested())
    if (!session.serve(kWatchStep)) return false;
  return isWritten;
}

void addList(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command =
      app.add_subcommand("list", "Show the hub's plugins, services, links and launches in hand");
  prints(command, options);
  const auto how = std::make_shared<ListOptions>();
  std::vector<std::string> names;
  for (const Kind& kind : kinds()) names.emplace_back(kind.name);
  command->add_option("WHAT", how->what, "Only these: plugins, services, links or launches")
      ->type_name("")
      ->check(CLI::IsMember(names).description(""));
  command->add_option("--sort", how->sort, "In the order of this field, as --json names it")
      ->type_name("FIELD");
  command->add_flag("--reverse", how->reverse, "The other way round");
  const auto isFilter = [](const std::string& filter) {
    return filter.find('=') == std::string::npos ? "\"" + filter + "\" has no =" : std::string();
  };
  command->add_option("--filter", how->filters, "Only those with TEXT in this field")
      ->type_name("FIELD=TEXT")
      ->check(CLI::Validator(isFilter, ""));
  command->add_flag("--watch", how->watch, "Again and again, each second");
  command->add_flag("--realm", how->realm, "Of the other machines that the hub's bridge knows");
  runsOnHub(command, options, exitCode, [&options, how](Session& session) {
    if (!how->realm) return list<StatusClient>(session, kinds(), *how, options.json);
    if (how->what == kinds().back().name)
      return session.fail(ExitCode::usage, "launches of other machines aren't told");
    return list<RealmClient>(session, realmKinds(), *how, options.json);
  });
}

}  // namespace

void addListCommands(CLI::App& app, Options& options, int& exitCode) {
  addList(app, options, exitCode);

  CLI::App* command =
      app.add_subcommand("show", "Show all that the hub knows of a plugin or a service");
  prints(command, options);
  const auto what = std::make_shared<std::string>();
  command->add_option("WHAT", *what, "A plugin's number, or a service's name")
      ->required()
      ->type_name("");
  runsOnHub(command, options, exitCode, [what](Session& session) { return show(session, *what); });

  command = app.add_subcommand("monitor", "Show what happens in the hub, as it happens");
  prints(command, options);
  runsOnHub(command, options, exitCode,
            [&options](Session& session) { return monitor(session, options.json); });

  command = app.add_subcommand("kick", "Disconnect a plugin");
  const auto plugin = std::make_shared<std::int32_t>(0);
  command->add_option("PLUGIN", *plugin, "The plugin's number")
      ->required()
      ->type_name("")
      ->check(within(1, 65535));
  runsOnHub(command, options, exitCode, [plugin](Session& session) {
    StatusClient client(session);
    return client.open() && client.kick(*plugin);
  });

  command = app.add_subcommand("stop", "Have the hub end, in order");
  const auto whenIdle = std::make_shared<bool>(false);
  command->add_flag("--when-idle", *whenIdle,
                    "Not before no plugin needs it any more; from now on nobody finds it");
  runsOnHub(command, options, exitCode, [whenIdle](Session& session) {
    StatusClient client(session);
    return client.open() && client.stop(*whenIdle);
  });
}

}  // namespace hublinkctl
