// The subcommands that speak any interface: introspect, call, listen.
#include "platform/process.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/interface/introspection.h"
#include "tools/hublinkctl/status_client.h"

namespace hublinkctl {
namespace {

constexpr int kListenStep = 1000;  // ms

bool openInterface(InterfaceClient& client, const std::string& service,
                   const std::string& catalogue) {
  return client.open(service) && (catalogue.empty() || client.readCatalogue(catalogue));
}

bool introspectService(Session& session, const std::string& service, const std::string& catalogue,
                       bool json) {
  InterfaceClient client(session);
  if (!openInterface(client, service, catalogue) || !client.learnMessages()) return false;
  const Facts description = describe(client);
  return json ? session.print(description) : session.printText(textOfInterface(description));
}

// The messages between a plugin and the hub are the same for all; what a plugin has of its own, it
// offers as services.
bool introspectPlugin(Session& session, std::int32_t pluginID, bool json) {
  Facts plugin, services;
  {
    StatusClient status(session);
    if (!status.open()) return false;
    const auto plugins = status.list(Listed::plugins);
    const auto all = plugins ? status.list(Listed::services) : std::nullopt;
    if (!all) return false;
    for (const Facts& one : *plugins)
      if (one.at("plugin_id") == pluginID) plugin = one;
    if (plugin.is_null())
      return session.fail(ExitCode::no, "there is no plugin " + std::to_string(pluginID));
    services = *all;
  }
  Facts facts = {{"plugin", pluginID}, {"version", plugin.at("version")}};
  if (!json && !session.print(facts)) return false;
  facts["services"] = Facts::array();
  for (const Facts& service : services) {
    if (service.at("plugin_id") != pluginID) continue;
    session.restartClock();
    InterfaceClient client(session);
    if (!client.open(service.at("name").get<std::string>()) || !client.learnMessages()) {
      if (!session.plugin().isConnected()) return false;
      continue;
    }
    const Facts description = describe(client);
    if (json)
      facts["services"].push_back(description);
    else if (!session.printText('\n' + textOfInterface(description)))
      return false;
  }
  return !json || session.print(facts);
}

struct CallOptions {
  std::string service, message, catalogue;
  std::vector<std::string> arguments, awaited;
};

bool call(Session& session, const CallOptions& options, bool json) {
  InterfaceClient client(session);
  if (!openInterface(client, options.service, options.catalogue) || !client.learnMessages())
    return false;
  bool isWritten = true;
  bool isDone = options.awaited.empty();
  const auto show = [&](const std::string& name, const Facts& values) {
    if (isWritten) isWritten = session.printText(messageLine(name, values, json));
  };
  const auto answer = client.call(options.message, options.arguments, options.awaited,
                                  [&](const std::string& name, const Facts& values) {
                                    if (isDone) return;
                                    show(name, values);
                                    isDone = name == options.awaited.back();
                                  });
  if (!answer) return false;
  if (options.awaited.empty())
    return answer->is_null() ||
           (json ? session.print(*answer) : session.printText(textOfAnswer(*answer)));
  if (!answer->is_null()) show(options.message, *answer);
  return client.await([&] { return isDone || !isWritten; },
                      options.service + " hasn't sent " + options.awaited.back()) &&
         isWritten;
}

struct ListenOptions {
  std::string service, catalogue;
  std::vector<std::string> names;
  int count = 0;  // 0: without end
};

bool listen(Session& session, const ListenOptions& options, bool json) {
  InterfaceClient client(session);
  if (!openInterface(client, options.service, options.catalogue)) return false;
  platform::installStopSignals();
  bool isWritten = true;
  int shown = 0;
  const auto isFull = [&] { return options.count != 0 && shown == options.count; };
  if (!client.listen(options.names, [&](const std::string& name, const Facts& values) {
        if (!isWritten || isFull()) return;
        isWritten = session.printText(messageLine(name, values, json));
        ++shown;
      }))
    return false;
  while (isWritten && !isFull() && !platform::stopRequested())
    if (!client.serve(kListenStep)) return false;
  return isWritten;
}

void addCatalogue(CLI::App* command, std::string& file) {
  command->add_option("--catalogue", file, "The interface's catalogue, for what the provider sends")
      ->type_name("FILE");
}

void addService(CLI::App* command, std::string& service) {
  command
      ->add_option("SERVICE", service,
                   "The service's name; its provider is started if the hub knows one")
      ->required()
      ->type_name("");
}

void addIntrospect(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command =
      app.add_subcommand("introspect", "Show the messages of an interface and their fields");
  prints(command, options);
  const auto what = std::make_shared<std::string>(), catalogue = std::make_shared<std::string>();
  command
      ->add_option("WHAT", *what, "A service's name, or a plugin's number for all of its services")
      ->required()
      ->type_name("");
  addCatalogue(command, *catalogue);
  addNote(
      command,
      "A provider tells which messages it takes, but not which ones it sends: those are in the\n"
      "catalogue alone. It sees a connection that asks, and goes again.");
  runsOnHub(command, options, exitCode, [&options, what, catalogue](Session& session) {
    const auto number = numberIn(*what);
    return number ? introspectPlugin(session, *number, options.json)
                  : introspectService(session, *what, *catalogue, options.json);
  });
}

void addCall(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command =
      app.add_subcommand("call", "Send a message of any interface, and show the answer");
  prints(command, options);
  const auto how = std::make_shared<CallOptions>();
  addService(command, how->service);
  command->add_option("MESSAGE", how->message, "The message's name, as introspect shows it")
      ->required()
      ->type_name("");
  const auto isArgument = [](const std::string& argument) {
    return argument.find('=') == std::string::npos ? "\"" + argument + "\" has no ="
                                                   : std::string();
  };
  command
      ->add_option("FIELD=VALUE", how->arguments,
                   "A text as it stands, all else as JSON; a field left out is 0 or null")
      ->type_name("")
      ->check(CLI::Validator(isArgument, ""));
  command
      ->add_option("--wait", how->awaited,
                   "Show this message that the provider sends, and end with it; given several "
                   "times, show them all and end with the last one")
      ->type_name("MESSAGE")
      ->allow_extra_args(false);
  addCatalogue(command, how->catalogue);
  addNote(command,
          "Blocks are objects and arrays are arrays of JSON; no count of an array is given.");
  runsOnHub(command, options, exitCode,
            [&options, how](Session& session) { return call(session, *how, options.json); });
}

void addListen(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand("listen", "Show what a provider sends on a link to it");
  prints(command, options);
  const auto how = std::make_shared<ListenOptions>();
  addService(command, how->service);
  command->add_option("MESSAGE", how->names, "Only these; otherwise all")->type_name("");
  command->add_option("--count", how->count, "End after this many")
      ->type_name("N")
      ->check(within(1, 1000000000));
  addCatalogue(command, how->catalogue);
  addNote(
      command,
      "Without a catalogue the fields are read by what they tell of themselves: their names and\n"
      "sizes. A message's own name is known then only if it is given here; and an array whose\n"
      "elements are fields stands under the name of its count. A two-way message gets an empty\n"
      "answer.");
  runsOnHub(command, options, exitCode,
            [&options, how](Session& session) { return listen(session, *how, options.json); });
}

}  // namespace

void addInterfaceCommands(CLI::App& app, Options& options, int& exitCode) {
  addIntrospect(app, options, exitCode);
  addCall(app, options, exitCode);
  addListen(app, options, exitCode);
}

}  // namespace hublinkctl
