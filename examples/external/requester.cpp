// A plugin that asks for the service "Converter" and has it convert temperatures.
//
//   converter_requester [-hl_connect_hublink_port PORT] CELSIUS...
//
// The provider may be started before or after it, or by the hub.
#include <cstdio>
#include <cstdlib>

#include "converter_requester_impl.h"
#include "hublink_plugin/hub_finder.h"
#include "hublink_plugin/hublink_plugin.h"

namespace {

constexpr int kPatience = 10000;  // ms for any one answer
constexpr int kAskAgain = 50;     // ms

class Requester : public Converter_requester_Impl {
 public:
  std::int32_t served = 0;

 protected:
  void Served(std::int32_t requests) override { served = requests; }
};

ServiceReply findConverter(HublinkPlugin& plugin) {
  ServiceQuery query;
  query.serviceName = "Converter";
  ServiceReply reply = plugin.requestService(query, kPatience);
  for (int waited = 0; reply.outcome == ServiceReply::Outcome::notFound && waited < kPatience;
       waited += kAskAgain) {
    plugin.serveUntil([] { return false; }, kAskAgain);
    reply = plugin.requestService(query, kPatience);
  }
  return reply;
}

int fail(const char* what, const char* why) {
  std::fprintf(stderr, "converter_requester: %s: %s\n", what, why);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  HublinkPlugin plugin;
  std::string error;
  const std::uint16_t port = hublinkPortArgument(argc, argv);
  if (port ? !plugin.connect(port, error) : !connectToHub(plugin, HubChoice(), error))
    return fail("no hub", error.c_str());
  const ServiceReply reply = findConverter(plugin);
  if (!reply.link) return fail("asked for Converter", outcomeText(reply.outcome));

  const auto requester = makeCounted<Requester>();
  reply.link->attach(requester.get());
  STPStatus status;
  requester->negotiate(nullptr, &status);
  if (!status.good()) return fail("negotiation", status.message);
  const int first = port ? 3 : 1;
  for (int i = first; i < argc; ++i) {
    const double celsius = std::strtod(argv[i], nullptr);
    double fahrenheit = 0;
    if (!requester->ToFahrenheit(celsius, &fahrenheit, nullptr, &status))
      return fail("no answer", status.message);
    std::printf("%g C are %g F\n", celsius, fahrenheit);
  }
  plugin.serveUntil([&] { return requester->served == argc - first; }, kPatience);
  std::printf("the provider has served %d requests\n", requester->served);
  return 0;
}
