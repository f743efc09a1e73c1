// Plugins that give a picture something to show: busy_plugins PORT COUNT [NAME].
//
// Every fifth provides a service, the others ask for these and exchange packets with them, until
// the hub goes or this process is ended. With NAME there is one more, whose service has this name,
// and which never reads the packets that another one sends it.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"

namespace {

constexpr int kStep = 10;  // ms between the packets of a link

using Plugins = std::vector<std::unique_ptr<HublinkPlugin>>;

HublinkPlugin* join(Plugins& plugins, std::uint16_t port) {
  plugins.push_back(std::make_unique<HublinkPlugin>());
  std::string error;
  return plugins.back()->connect(port, error, "127.0.0.1") ? plugins.back().get() : nullptr;
}

bool provide(HublinkPlugin* plugin, const std::string& name) {
  return plugin && plugin->registerService(name, [](const auto& link) {
    link->onPacket(
        [echo = link.get()](const auto* bytes, auto size) { echo->trySend(bytes, size); });
  }) >= 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const auto port = static_cast<std::uint16_t>(std::atoi(argv[1]));
  const int count = std::atoi(argv[2]);
  Plugins readers, deaf;
  std::vector<std::shared_ptr<HublinkLink>> links;
  std::shared_ptr<HublinkLink> flood;
  const auto takes = [&links](const ServiceReply& reply) {
    if (reply.link) links.push_back(reply.link);
  };
  for (int i = 0; i < count; ++i) {
    HublinkPlugin* plugin = join(readers, port);
    if (i % 5 == 0 && !provide(plugin, "Service " + std::to_string(i / 5))) return 1;
  }
  const int services = (count + 4) / 5;
  for (int i = 0; i < count; ++i) {
    if (i % 5 == 0) continue;
    ServiceQuery query;
    query.serviceName = "Service " + std::to_string(i * 7 % services);
    readers[static_cast<std::size_t>(i)]->requestService(query, takes);
  }
  if (argc > 3) {
    HublinkPlugin* plugin = join(deaf, port);
    if (!provide(plugin, argv[3])) return 1;
    ServiceQuery query;
    query.serviceName = argv[3];
    readers.back()->requestService(query,
                                   [&flood](const ServiceReply& reply) { flood = reply.link; });
    while (!flood)
      if (!plugin->serve(1) || !readers.back()->serve(1)) return 1;
  }
  const std::string packet(200, 'x'), large(100000, 'x');
  while (readers.front()->isConnected()) {
    for (const auto& link : links) link->trySend(packet.data(), packet.size());
    if (flood) flood->trySend(large.data(), large.size());
    for (const auto& plugin : readers) plugin->serve(0);
    platform::sleepMilliseconds(kStep);
  }
  return 0;
}
