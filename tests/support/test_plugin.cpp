#include "support/test_plugin.h"

#include "platform/clock.h"
#include "support/hub_process.h"

std::set<TestPlugin*> TestPlugin::all;

TestPlugin::TestPlugin(STPTransport* link) {
  all.insert(this);
  setTransport(link, 2, 1);
  sendNegotiate(true, nullptr, nullptr);
}

void TestPlugin::serveAll(int timeout) {
  STPTransportSet open;
  for (const TestPlugin* plugin : all)
    if (!plugin->getTransport()->isClosed()) open.insert(plugin->getTransport());
  serviceFirst(timeout, open);
}

std::string TestPlugin::next() {
  const std::uint64_t end = platform::monotonicMilliseconds() + kPatience;
  while (received_.empty()) {
    if (getTransport()->isClosed()) return "closed";
    const std::uint64_t now = platform::monotonicMilliseconds();
    if (now >= end) return "nothing";
    serveAll(static_cast<int>(end - now));
  }
  std::string line = std::move(received_.front());
  received_.pop_front();
  return line;
}

std::int32_t TestPlugin::nextNumber(const std::string& name) {
  const std::string line = next();
  if (line.rfind(name + " ", 0) != 0) return -1;
  return static_cast<std::int32_t>(std::strtol(&line[line.find_last_of(" [") + 1], nullptr, 10));
}

std::string TestPlugin::counts() {
  serveAll(0);
  std::int32_t persistent = 0, total = 0;
  NumPersistentServices(&persistent, &total);
  return std::to_string(persistent) + "/" + std::to_string(total);
}

std::int32_t TestPlugin::provide(const char* service) {
  const char* names[] = {service};
  RegisterServiceList({1, names});
  return nextNumber("RNBlockReservedEvent");
}

void TestPlugin::ask(const char* service, std::int32_t cookie, std::int32_t provider,
                     bool noReuse) {
  const char* pairs[] = {"key", "value"};
  RequestServiceConnection(service, provider, {2, pairs}, nullptr, false, cookie, noReuse, false);
}
