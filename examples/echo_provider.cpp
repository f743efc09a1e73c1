// An example plugin that provides the service "Echo": whatever arrives on a link goes back on it.
//
//   echo_provider -hl_connect_hublink_port PORT
//
// Its requesters end it: it stops when the last link has ended.
#include <cstdio>

#include "hublink_plugin/hublink_plugin.h"

namespace {

constexpr const char* kService = "Echo";

class EchoProvider {
 public:
  int run(std::uint16_t port) {
    std::string error;
    if (!plugin_.connect(port, error)) {
      std::fprintf(stderr, "echo_provider: %s\n", error.c_str());
      return 1;
    }
    std::printf("provider: connected as plugin %d\n", plugin_.pluginID());
    const std::int32_t serviceRN =
        plugin_.registerService(kService, [this](const auto& link) { serveLink(link); });
    if (serviceRN == -1) {
      std::fprintf(stderr, "echo_provider: the hub has not registered %s\n", kService);
      return 1;
    }
    std::printf("provider: registered %s, its RN is %d\n", kService, serviceRN);
    plugin_.run();
    std::printf("provider: done\n");
    return 0;
  }

 private:
  void serveLink(const std::shared_ptr<HublinkLink>& link) {
    std::printf("provider: accepted plugin %d, link from RN %d to RN %d\n", link->peerPluginID(),
                link->localRN(), link->remoteRN());
    ++links_;
    HublinkLink* echo = link.get();  // the handlers don't outlive it
    link->onPacket(
        [echo](const unsigned char* bytes, std::size_t size) { echo->send(bytes, size); });
    link->onEnd([this, echo] {
      std::printf("provider: was told that the link with plugin %d has ended\n",
                  echo->peerPluginID());
      if (--links_ == 0) plugin_.stop();
    });
  }

  HublinkPlugin plugin_;
  int links_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  const std::uint16_t port = hublinkPortArgument(argc, argv);
  if (port == 0) {
    std::fprintf(stderr, "Usage: %s -hl_connect_hublink_port <port>\n", argv[0]);
    return 1;
  }
  return EchoProvider().run(port);
}
