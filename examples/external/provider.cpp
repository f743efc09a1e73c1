// A plugin that provides the service "Converter" by the interface in converter.stp.
//
//   converter_provider [-hl_connect_hublink_port PORT]
//
// With a port it serves the hub that listens there, as when a hub has started it; without one it
// joins the hub of this machine's installation. It ends with its last requester.
#include <cstdio>

#include "converter.h"
#include "hublink_plugin/hub_finder.h"

namespace {

// One for each requester.
class Converter : public converter::Provider {
 public:
  explicit Converter(HublinkPlugin* plugin) : plugin_(*plugin) { ++served_; }
  ~Converter() override {
    if (--served_ == 0) plugin_.stop();
  }

 protected:
  hublink::Result<converter::ToFahrenheitReply> onToFahrenheit(
      const converter::ToFahrenheit& call) override {
    if (call.celsius < -273.15) return hublink::refuse("it doesn't get as cold as that");
    served({.requests = ++requests_});
    return converter::ToFahrenheitReply{.fahrenheit = call.celsius * 9 / 5 + 32};
  }

 private:
  static inline int served_ = 0;
  HublinkPlugin& plugin_;
  int requests_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  HublinkPlugin plugin;
  std::string error;
  if (!connectToHub(plugin, argc, argv, error)) {
    std::fprintf(stderr, "converter_provider: %s\n", error.c_str());
    return 1;
  }
  if (plugin.registerService("Converter", hublink::serveWith<Converter>(&plugin)) == -1) {
    std::fputs("converter_provider: the hub has not registered the service\n", stderr);
    return 1;
  }
  plugin.run();
  return 0;
}
