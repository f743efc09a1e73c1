#include "support/test_plugin.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "platform/clock.h"
#include "support/hub_process.h"

namespace {

constexpr int kQuiet = 100;  // ms until it is asked whether there is anything to wait for

// A program that it has started may cause something at any time.
bool hasChildren(platform::ProcessId process) {
  const std::string name = std::to_string(process);
  std::ifstream file("/proc/" + name + "/task/" + name + "/children");
  return !file.is_open() || file.peek() != EOF;
}

}  // namespace

std::set<TestPlugin*> TestPlugin::all;
platform::ProcessId TestPlugin::hubProcess = 0;

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
    serveAll(static_cast<int>(std::min<std::uint64_t>(end - now, kQuiet)));
    const bool isQuiet = platform::monotonicMilliseconds() >= now + kQuiet;
    if (received_.empty() && isQuiet && nothingIsToCome()) return "nothing";
  }
  std::string line = std::move(received_.front());
  received_.pop_front();
  return line;
}

// The hub acts on what it is sent, on the end of its programs, and on the time when nobody keeps it
// up. All that was sent before a question has come to it with the question, and what follows from
// it has been sent before the answer to the next one.
bool TestPlugin::nothingIsToCome() {
  if (id == 0 || hubProcess == 0 || hasChildren(hubProcess)) return false;
  for (int i = 0; i < 3; ++i)
    if (counts().rfind("0/", 0) == 0 || getTransport()->isClosed()) return false;
  serveAll(0);
  return received_.empty() && !hasChildren(hubProcess);
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
