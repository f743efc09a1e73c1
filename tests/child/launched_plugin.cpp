// A plugin that the tests have the hub start. What it does stands on its command line behind the
// port that the hub puts there:
//
//   record FILE ...  first writes its arguments, PATH and HUB_TEST_VALUE to FILE, a line each
//   await FILE ...   first waits until FILE is there
//   provide NAME     registers NAME, takes every requester and stays until the hub goes
//   idle             connects, registers nothing and stays
//   vanish           connects and ends before it has negotiated
//   complain TEXT .. writes TEXT on its standard error
//   once FILE ...    makes FILE and goes on; if FILE is there, leaves the next word out
//   exit             ends at once, with the status 3
//   die              is killed by a signal
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

constexpr int kLifetime = 60000;  // ms after which it ends in any case

void record(const std::string& file, int argc, char** argv) {
  // Complete before it can be seen.
  {
    std::ofstream out(file + ".part");
    for (int i = 1; i < argc; ++i)
      if (i != 2) out << argv[i] << '\n';  // the port is another one each time
    for (const char* name : {"PATH", "HUB_TEST_VALUE"}) {
      const char* value = platform::environmentVariable(name);
      out << (value ? value : "(none)") << '\n';
    }
  }
  std::filesystem::rename(file + ".part", file);
}

void awaitFile(const std::string& file) {
  for (int waited = 0; waited < kLifetime && !std::filesystem::exists(file); waited += 5)
    platform::sleepMilliseconds(5);
}

int stay(HublinkPlugin& plugin) {
  plugin.serveUntil([] { return false; }, kLifetime);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint16_t port = hublinkPortArgument(argc, argv);
  std::vector<std::string> words(argv + std::min(argc, 3), argv + argc);
  words.insert(words.end(), 2, "");
  auto word = words.begin();
  const auto isPrelude = [](const std::string& text) {
    return text == "record" || text == "await" || text == "complain" || text == "once";
  };
  for (; isPrelude(*word); word += 2) {
    if (*word == "record") record(word[1], argc, argv);
    if (*word == "await") awaitFile(word[1]);
    if (*word == "complain") std::fputs(word[1].c_str(), stderr);
    if (*word == "once" && std::filesystem::exists(word[1]))
      ++word;
    else if (*word == "once")
      std::ofstream(word[1]) << "x";
  }
  if (*word == "exit") return 3;
  if (*word == "die") platform::killProcess(platform::currentProcess());
  std::string error;
  HublinkPlugin plugin;
  if (*word == "vanish") {
    const auto transport = makeCounted<STPTransport>();
    transport->connect("localhost", port);
    // The hub's record says that the connection has been taken.
    while (transport->isConnected() && !transport->redispatchUnclaimed(1, 2, STP_NEGOTIATION))
      transport->serviceOnce(1000);
    return 0;
  }
  if (!plugin.connect(port, error)) return 1;
  if (*word == "provide") plugin.registerService(word[1], {});
  return stay(plugin);
}
