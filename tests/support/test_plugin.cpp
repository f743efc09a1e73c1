#include "support/test_plugin.h"

#include "platform/clock.h"
#include "support/hub_process.h"

namespace {

std::string shown(const char* text) {
  return text ? "'" + std::string(text) + "'" : std::string("null");
}
std::string shown(std::int32_t number) {
  return std::to_string(number);
}

template <class Array>
std::string shownList(const Array& array) {
  std::string line = "[";
  for (std::int32_t i = 0; i < array.count; ++i) {
    if (i > 0) line += " ";
    line += shown(array.data[i]);
  }
  return line + "]";
}
std::string shown(const StringArray& array) {
  return shownList(array);
}
std::string shown(const RNArray& array) {
  return shownList(array);
}

}  // namespace

std::set<TestPlugin*> TestPlugin::all;

TestPlugin::TestPlugin(STPTransport* link) {
  all.insert(this);
  setTransport(link, 2, 1);
  sendNegotiate(true, nullptr, nullptr);
}

TestPlugin::~TestPlugin() {
  all.erase(this);
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

template <class... Fields>
void TestPlugin::record(const char* name, const Fields&... fields) {
  std::string line = name;
  ((line += " " + shown(fields)), ...);
  received_.push_back(std::move(line));
}

void TestPlugin::ConnectionDroppedEvent(std::int32_t serviceRN, std::int32_t remoteRN) {
  record("ConnectionDroppedEvent", serviceRN, remoteRN);
}

void TestPlugin::ConnectionReplyEvent(const char* serviceName, std::int32_t localRN, bool wasFound,
                                      bool is_shared_object, bool wasAccepted,
                                      std::int32_t serviceRN, std::int32_t plugin_id,
                                      const char* shared_object_name, std::int32_t client_cookie) {
  record("ConnectionReplyEvent", serviceName, localRN, wasFound, is_shared_object, wasAccepted,
         serviceRN, plugin_id, shared_object_name, client_cookie);
}

void TestPlugin::ConnectionRequestedEvent(std::int32_t requesting_plugin_id, std::int32_t serviceRN,
                                          std::int32_t remoteRN, StringArray name_value_pairs) {
  record("ConnectionRequestedEvent", requesting_plugin_id, serviceRN, remoteRN, name_value_pairs);
}

void TestPlugin::ForwardedRequestValueOfNameOnPlugin(std::int32_t requesting_plugin_id,
                                                     std::int32_t my_plugin_id, const char* name) {
  record("ForwardedRequestValueOfNameOnPlugin", requesting_plugin_id, my_plugin_id, name);
}

void TestPlugin::LocationEvent(const char* hostname, std::int32_t port) {
  record("LocationEvent", hostname, port);
}

void TestPlugin::PluginConnectedEvent(std::int32_t cookie, std::int32_t pluginID,
                                      const char* errors) {
  record("PluginConnectedEvent", cookie, pluginID, errors);
}

void TestPlugin::PluginId(std::int32_t plugin_id) {
  id = plugin_id;
  record("PluginId", plugin_id);
}

void TestPlugin::PluginIdForServiceReplyEvent(std::int32_t cookie, const char* service_name,
                                              std::int32_t plugin_id, bool found) {
  record("PluginIdForServiceReplyEvent", cookie, service_name, plugin_id, found);
}

void TestPlugin::RNBlockReservedEvent(RNArray rn_list) {
  record("RNBlockReservedEvent", rn_list);
}

void TestPlugin::StartLogging() {
  record("StartLogging");
}

void TestPlugin::StartPlugin(StringArray args, std::int32_t cookie, const char* working_dir) {
  record("StartPlugin", args, cookie, working_dir);
}

void TestPlugin::ValueOfNameOnPluginEvent(std::int32_t plugin_id, const char* name,
                                          const char* value) {
  record("ValueOfNameOnPluginEvent", plugin_id, name, value);
}
