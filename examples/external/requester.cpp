// A plugin that asks for the service "Converter" and has it convert temperatures.
//
//   converter_requester [-hl_connect_hublink_port PORT] CELSIUS...
//
// The provider may be started before or after it, or by the hub.
#include <cstdio>
#include <cstdlib>

#include "converter.h"
#include "hublink_plugin/hub_finder.h"

namespace {

class Requester : public converter::Requester {
 public:
  int served = 0;

 protected:
  void onServed(const converter::Served& message) override { served = message.requests; }
};

int fail(const std::string& why) {
  std::fprintf(stderr, "converter_requester: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  HublinkPlugin plugin;
  std::string error;
  if (!connectToHub(plugin, argc, argv, error)) return fail(error);
  const auto requester = hublink::find<Requester>(plugin, "Converter");
  if (!requester) return fail(requester.text());

  const int first = hublinkPortArgument(argc, argv) ? 3 : 1;
  for (int i = first; i < argc; ++i) {
    const double celsius = std::strtod(argv[i], nullptr);
    const auto reply = (*requester)->toFahrenheit({.celsius = celsius});
    if (!reply) return fail(reply.text());
    std::printf("%g C are %g F\n", celsius, reply->fahrenheit);
  }
  plugin.serveUntil([&] { return (*requester)->served == argc - first; }, hublink::kCallLimit);
  std::printf("the provider has served %d requests\n", (*requester)->served);
  return 0;
}
