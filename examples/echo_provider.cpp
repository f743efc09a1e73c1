// An example plugin that provides the service "Echo": whatever arrives on a link goes back on it.
//
//   echo_provider [-hl_zone ZONE]
//
// A hub that starts it tells it its port behind -hl_connect_hublink_port; started by hand it finds
// the hub, or starts it. Its requesters end it: it stops when the last link has ended.
#include <cstdio>

#include "hublink_plugin/hub_finder.h"

namespace {

constexpr const char* kService = "Echo";

class EchoProvider {
 public:
  int run(int argc, char** argv) {
    std::string error;
    if (!connectToHub(plugin_, argc, argv, error)) {
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
  return EchoProvider().run(argc, argv);
}
