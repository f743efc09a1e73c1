// The subcommand ping: round trips through the hub to a provider that sends back what it gets.
#include <algorithm>
#include <random>
#include <vector>

#include "indgen/format.h"
#include "platform/clock.h"
#include "tools/hublinkctl/commands.h"
#include "tools/hublinkctl/service_link.h"

namespace hublinkctl {
namespace {

constexpr std::size_t kLargestPacket = std::size_t{128} << 20;

struct PingOptions {
  std::string service;
  int count = 10;
  std::size_t size = 64;  // bytes
};

std::string noEcho(const HublinkLink& link) {
  return gen_asprintf("plugin %d doesn't send back what it gets", link.peerPluginID()).get();
}

// One round trip, in which the bytes must come back as they went.
bool exchange(Session& session, HublinkLink& link, const HublinkLink::Packet& sent) {
  HublinkLink::Packet answer;
  session.restartClock();
  link.send(sent.data(), sent.size());
  const bool came = link.receive(answer, session.left());
  if (!came && session.plugin().isConnected() && !link.isUp())
    return session.fail(ExitCode::no, "the provider has ended the link");
  if (!came) {
    // If the hub answers, it isn't what the packet is waiting for.
    session.restartClock();
    if (session.count()) session.fail(ExitCode::noAnswer, "no answer in time: " + noEcho(link));
    return false;
  }
  return answer == sent ||
         session.fail(ExitCode::no, "a packet came back changed: " + noEcho(link));
}

// `sorted` holds one duration at least.
double percentile(const std::vector<double>& sorted, std::size_t percent) {
  return sorted[(sorted.size() - 1) * percent / 100];
}

bool ping(Session& session, const PingOptions& options) {
  const std::shared_ptr<HublinkLink> link = openLink(session, options.service);
  if (!link) return false;
  std::minstd_rand random;
  HublinkLink::Packet packet(options.size);
  std::vector<double> microseconds;
  for (int i = 0; i < options.count; ++i) {
    for (unsigned char& byte : packet) byte = static_cast<unsigned char>(random());
    const std::uint64_t start = platform::monotonicNanoseconds();
    if (!exchange(session, *link, packet)) return false;
    microseconds.push_back(static_cast<double>(platform::monotonicNanoseconds() - start) / 1000);
  }
  std::sort(microseconds.begin(), microseconds.end());
  return session.print({{"plugin", link->peerPluginID()},
                        {"packets", options.count},
                        {"bytes", options.size},
                        {"min_microseconds", microseconds.front()},
                        {"median_microseconds", percentile(microseconds, 50)},
                        {"p99_microseconds", percentile(microseconds, 99)},
                        {"max_microseconds", microseconds.back()}});
}

}  // namespace

void addPingCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App* command = app.add_subcommand(
      "ping", "Time round trips through the hub to a provider that sends back what it gets");
  prints(command, options);
  const auto how = std::make_shared<PingOptions>();
  command
      ->add_option("SERVICE", how->service,
                   "The service's name; its provider is started if the hub knows one")
      ->required()
      ->type_name("");
  command->add_option("--count", how->count, "Round trips, each with the whole time limit")
      ->type_name("N")
      ->capture_default_str()
      ->check(within(1, 10000000));
  command->add_option("--size", how->size, "Bytes of a packet")
      ->type_name("N")
      ->capture_default_str()
      ->check(within(std::size_t{0}, kLargestPacket));
  runsOnHub(command, options, exitCode, [how](Session& session) { return ping(session, *how); });
}

}  // namespace hublinkctl
