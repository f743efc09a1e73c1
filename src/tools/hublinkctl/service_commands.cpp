// The subcommands that ask who provides a service: provider, wait.
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/launch_watch.h"

namespace hublinkctl {
namespace {

constexpr int kAskAgain = 50;  // ms

struct ProviderOptions {
  std::string service;
  std::string directory;
  bool start = false;
};

std::optional<std::int32_t> providerOf(Session& session, const ProviderOptions& query) {
  const char* directory = query.directory.empty() ? nullptr : query.directory.c_str();
  return session.ask<std::int32_t>([&](const auto& answered) {
    session.plugin().requestProvider(query.service, directory, query.start, answered, kNoLimit);
  });
}

bool told(Session& session, const ProviderOptions& query, std::int32_t plugin,
          const std::string& reason) {
  if (plugin != -1) return session.print({{"plugin", plugin}});
  return session.fail(ExitCode::no,
                      "nobody provides " + query.service + (reason.empty() ? "" : ": " + reason));
}

bool provider(Session& session, const ProviderOptions& query) {
  LaunchWatch watch(session);
  if (query.start && !watch.watchService(query.service)) return false;
  const auto plugin = providerOf(session, query);
  return plugin && told(session, query, *plugin, watch.reason());
}

// The last question has a chance to be answered before the time is up.
bool wait(Session& session, const ProviderOptions& query) {
  for (;;) {
    const auto plugin = providerOf(session, query);
    if (!plugin) return false;
    if (*plugin != -1 || session.left() <= 2 * kAskAgain) return told(session, query, *plugin, {});
    session.plugin().serveUntil([] { return false; }, kAskAgain);
  }
}

std::shared_ptr<ProviderOptions> addQuery(CLI::App* command) {
  auto query = std::make_shared<ProviderOptions>();
  command->add_option("SERVICE", query->service, "The service's name")->required()->type_name("");
  command
      ->add_option("--directory", query->directory,
                   "Only a provider with this working directory will do")
      ->type_name("DIRECTORY");
  return query;
}

}  // namespace

void addServiceCommands(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand("provider", "Tell which plugin provides a service");
  prints(command, options);
  auto query = addQuery(command);
  command->add_flag("--start", query->start,
                    "If nobody does, have the hub start the provider that it knows");
  runsOnHub(command, options, exitCode,
            [query](Session& session) { return provider(session, *query); });

  command = app.add_subcommand(
      "wait", "Ask again and again until a plugin provides a service, within the time limit");
  prints(command, options);
  query = addQuery(command);
  runsOnHub(command, options, exitCode,
            [query](Session& session) { return wait(session, *query); });
}

}  // namespace hublinkctl
