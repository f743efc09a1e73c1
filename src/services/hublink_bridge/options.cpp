#include "services/hublink_bridge/options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "active_hub/plugin_options.h"
#include "services/hublink_bridge/names.h"

namespace bridge {

namespace {

constexpr double kMostGrace = 3600;  // seconds
constexpr double kMilliseconds = 1000;

// The first line of a file.
bool readPassword(const std::string& file, std::string& password) {
  std::ifstream stream(file);
  return static_cast<bool>(std::getline(stream, password));
}

// A name of the right form, or a text that says what is wrong.
CLI::Validator nameOf(bool (*isName)(std::string_view), const char* what) {
  return CLI::Validator(
      [isName, what](std::string& text) {
        return isName(text) ? std::string() : "\"" + text + "\" is no name of a " + what;
      },
      "NAME");
}

// A number of seconds, which "nan" is not.
CLI::Validator seconds(double most) {
  return CLI::Validator(
      [most](std::string& text) {
        double value = -1;
        if (CLI::detail::lexical_cast(text, value) && value >= 0 && value <= most)
          return std::string();
        return "\"" + text + "\" is no number of seconds up to " +
               std::to_string(std::lround(most));
      },
      "");
}

// The hub and those who start plugins for it write options with one dash and a long name, and some
// that mean nothing here.
std::vector<std::string> ownArguments(int argc, char** argv, Options& options) {
  options.hub = hubChoiceArguments(argc, argv);
  options.hubPort = hublinkPortArgument(argc, argv);
  std::vector<std::string> own;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word(argv[i]);
    if (word.starts_with("-hl_")) {
      if (word != plugin_options::kDebugStartup) ++i;
    } else {
      own.emplace_back(word);
    }
  }
  return {own.rbegin(), own.rend()};  // as CLI11 takes them
}

}  // namespace

bool readOptions(int argc, char** argv, Options& options, int& exitCode) {
  CLI::App app(
      "Joins the hub of this machine with those of other machines, through a NATS server.\n"
      "Which hub is meant: -hl_zone NAME or -hl_hub PROGRAM; without these, that of this "
      "installation.",
      "hublink-bridge");
  app.set_version_flag("--version", "hublink-bridge " HUBLINK_VERSION);
  app.set_config("--config", "", "File with these options, a line each: name = value");
  // A bound that is misspelt there would be none.
  app.allow_config_extras(CLI::config_extras_mode::error);
  options.machine = ownMachineName();
  std::string passwordFile;
  double grace = static_cast<double>(options.grace) / kMilliseconds;
  bool leavesHub = false;
  app.add_option("--realm", options.realm, "The realm: only bridges of one realm meet")
      ->required()
      ->check(nameOf(isRealmName, "realm: 1 to 32 letters, digits, _ and -"));
  app.add_option("--name", options.machine, "This hub's name in the realm")
      ->check(nameOf(isMachineName, "machine: 1 to 64 letters, digits, _, - and @"))
      ->capture_default_str();
  app.add_option("--nats", options.nats.urls, "URLs of the NATS server or cluster")
      ->required()
      ->delimiter(',');
  app.add_option("--export", options.exports,
                 "Services that others may use; * and ? in a name fit any text and one byte. One "
                 "that is to be started if it isn't running has to be named in full")
      ->delimiter(',');
  app.add_option("--import", options.imports, "Services of others that may be used; else all")
      ->delimiter(',');
  app.add_option("--export-value", options.exportValues,
                 "Names of values that others may ask of plugins that they have a link with")
      ->delimiter(',');
  app.add_option("--grace", grace, "Seconds that links outlast a cut")
      ->check(seconds(kMostGrace))
      ->capture_default_str();
  app.add_option("--tls-ca", options.nats.tlsCA, "File of the authorities that sign the server")
      ->check(CLI::ExistingFile);
  auto* certificate =
      app.add_option("--tls-cert", options.nats.tlsCert, "File of this client's certificate")
          ->check(CLI::ExistingFile);
  auto* key = app.add_option("--tls-key", options.nats.tlsKey, "File of the key to it")
                  ->check(CLI::ExistingFile);
  certificate->needs(key);
  key->needs(certificate);
  app.add_option("--credentials", options.nats.credentials, "File with a NATS user's credentials")
      ->check(CLI::ExistingFile);
  auto* user = app.add_option("--user", options.nats.user, "A NATS user with a password");
  app.add_option("--password-file", passwordFile, "File whose first line is that password")
      ->check(CLI::ExistingFile)
      ->needs(user);
  app.add_flag("--leave-hub", leavesHub,
               "Start no hub and keep none up: wait for one, and serve it as long as it is there");
  try {
    app.parse(ownArguments(argc, argv, options));
  } catch (const CLI::ParseError& error) {
    exitCode = app.exit(error) == 0 ? 0 : 2;
    return false;
  }
  if (!passwordFile.empty() && !readPassword(passwordFile, options.nats.password)) {
    std::fprintf(stderr, "hublink-bridge: %s can't be read\n", passwordFile.c_str());
    exitCode = 2;
    return false;
  }
  options.grace = static_cast<std::int64_t>(grace * kMilliseconds);
  options.keepsHub = !leavesHub && options.hubPort == 0;
  options.nats.clientName = "hublink-bridge " + options.machine + " of " + options.realm;
  return true;
}

}  // namespace bridge
