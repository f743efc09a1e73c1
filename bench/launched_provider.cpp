#include "bench/launched_provider.h"

#include <cstdio>
#include <map>
#include <string>

#include "bench/loopback.h"
#include "bench/waiting_socket.h"
#include "hublink_plugin/hub_finder.h"

namespace {

int fail(const std::string& text) {
  std::fprintf(stderr, "%s: %s\n", launched_provider::kProgram, text.c_str());
  return 1;
}

// Whoever holds the other end decides for how long, and can't leave this process behind.
int hang(std::uint16_t port) {
  const LoopbackSocket holder = LoopbackSocket::connectedTo(port);
  if (!holder || !platform::makeBlocking(holder.get(), kTransferLimit))
    return fail("there is nothing to hang at");
  unsigned char byte = 0;
  WaitingSocket(holder.get()).receiveSome(&byte, 1, true);
  return 0;
}

class LaunchedProvider {
 public:
  int run(int argc, char** argv, const std::string& service, const std::string& needs) {
    std::string error;
    if (!connectToHub(plugin_, argc, argv, error)) return fail(error);
    if (!needs.empty()) {
      ServiceQuery query;
      query.serviceName = needs;
      const ServiceReply reply = plugin_.requestService(query, kStartLimit);
      if (!reply.link) return fail(needs + ": " + outcomeText(reply.outcome));
    }
    const auto serve = [this](const std::shared_ptr<HublinkLink>& link) { serveLink(*link); };
    if (plugin_.registerService(service, serve) == -1) return fail(service + " isn't registered");
    plugin_.run();
    return 0;
  }

 private:
  void serveLink(HublinkLink& link) {
    ++links_;
    link.onEnd([this] {
      if (--links_ == 0) plugin_.stop();
    });
  }

  int links_ = 0;
  HublinkPlugin plugin_;
};

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, std::string> told;
  for (int i = 1; i + 1 < argc; ++i) told[argv[i]] = argv[i + 1];
  const std::string& port = told[launched_provider::kHangs];
  if (!port.empty()) return hang(static_cast<std::uint16_t>(std::stoi(port)));
  return LaunchedProvider().run(argc, argv, told[launched_provider::kService],
                                told[launched_provider::kNeeds]);
}
