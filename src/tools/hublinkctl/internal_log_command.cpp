// The subcommand log-internal: the hub's own log, switched on and off while the hub runs.
#include "indgen/find.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/status_client.h"

namespace hublinkctl {

void addInternalLogCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "log-internal", "Have the hub write its own log, with a trace, to a file, or no longer");
  struct Switch {
    std::string file;
    bool off = false;
  };
  const auto to = std::make_shared<Switch>();
  CLI::Option* file = command->add_option("FILE", to->file, "Where, from its beginning")
                          ->type_name("")
                          ->check([](const std::string& name) {
                            return name.empty() ? std::string("FILE is empty") : std::string();
                          });
  command->add_flag("--off", to->off, "Write none any more")->excludes(file);
  runs(command, options, exitCode, [to](Session& session) {
    if (!to->off && to->file.empty())
      return session.fail(ExitCode::usage, "log-internal takes FILE or --off");
    // A relative name is the caller's: the hub works elsewhere.
    const gen_text path = to->off ? gen_text() : gen_full_path(to->file.c_str());
    StatusClient client(session);
    return session.join() && client.open() && client.setInternalLog(path);
  });
}

}  // namespace hublinkctl
