// A plugin that provides the service "Converter" by the interface in converter.stp.
//
//   converter_provider [-hl_connect_hublink_port PORT]
//
// With a port it serves the hub that listens there, as when a hub has started it; without one it
// joins the hub of this machine's installation. It ends with its last requester.
#include <cstdio>

#include "converter_provider_impl.h"
#include "hublink_plugin/hub_finder.h"
#include "hublink_plugin/hublink_plugin.h"

namespace {

class Converter : public Converter_provider_Impl {
 protected:
  void ToFahrenheit(double celsius, double& fahrenheit) override {
    fahrenheit = celsius * 9 / 5 + 32;
    Served(++requests_);
  }

 private:
  std::int32_t requests_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  HublinkPlugin plugin;
  std::string error;
  const std::uint16_t port = hublinkPortArgument(argc, argv);
  if (port ? !plugin.connect(port, error) : !connectToHub(plugin, HubChoice(), error)) {
    std::fprintf(stderr, "converter_provider: %s\n", error.c_str());
    return 1;
  }
  int links = 0;
  const auto serve = [&](const std::shared_ptr<HublinkLink>& link) {
    ++links;
    const auto converter = makeCounted<Converter>();
    link->attach(converter.get());  // the link holds it until its end
    converter->sendNegotiate(false, nullptr, nullptr);
    link->onEnd([&] {
      if (--links == 0) plugin.stop();
    });
  };
  if (plugin.registerService("Converter", serve) == -1) {
    std::fputs("converter_provider: the hub has not registered the service\n", stderr);
    return 1;
  }
  plugin.run();
  return 0;
}
