// A plugin inside the test: it has the library's own side of the link and keeps each message that
// the hub sends as one readable line.
#pragma once

#include <deque>
#include <set>
#include <string>

#include "generated/hublink_plugin_impl.h"
#include "platform/process.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_transport.h"

class TestPlugin : public Hublink_plugin_Impl {
 public:
  using Number = std::int32_t;
  using Text = const char*;

  /// Takes a connected transport and sends the record.
  explicit TestPlugin(STPTransport* link);

  /// The oldest message not yet taken: its name and its fields with blanks between, texts in single
  /// quotes. Serves all plugins until there is one; "closed" or "nothing" if none comes, at once if
  /// that can be proved.
  std::string next();
  /// What next() gives begins with the name of this message.
  bool nextIs(const std::string& name) { return next().rfind(name + " ", 0) == 0; }
  /// What next() gives, which must be the message `name`: its last number. -1 otherwise.
  std::int32_t nextNumber(const std::string& name);
  /// A question and its answer: all that the hub did for this plugin before has been done, and all
  /// that it sent before has come. Gives "persistent/all".
  std::string counts();
  /// Sends what has been queued on all plugins, in that order, and takes in what has come.
  static void serveAll(int timeout);
  /// Closes the link without a word.
  void vanish() { getTransport()->disconnect(); }

  /// Registers one service and gives its RN.
  std::int32_t provide(const char* service);
  /// Asks for a service; any provider will do unless one is named.
  void ask(const char* service, Number cookie, Number provider = -1, bool noReuse = false);
  /// Asks who provides a service, which is to be started if need be.
  void query(const char* service, Number cookie, bool start = true) {
    RequestPluginIdForService(cookie, service, nullptr, start);
  }

  std::int32_t id = 0;
  /// The hub of the test as a process, if it is one that can be watched.
  static platform::ProcessId hubProcess;

 protected:
  ~TestPlugin() override { all.erase(this); }
  void ConnectionDroppedEvent(Number service, Number remote) override {
    record("ConnectionDroppedEvent", service, remote);
  }
  void ConnectionReplyEvent(Text service, Number local, bool found, bool shared, bool accepted,
                            Number serviceRN, Number plugin, Text object, Number cookie) override {
    record("ConnectionReplyEvent", service, local, found, shared, accepted, serviceRN, plugin,
           object, cookie);
  }
  void ConnectionRequestedEvent(Number asker, Number service, Number remote,
                                StringArray pairs) override {
    record("ConnectionRequestedEvent", asker, service, remote, pairs);
  }
  void ForwardedRequestValueOfNameOnPlugin(Number asker, Number own, Text name) override {
    record("ForwardedRequestValueOfNameOnPlugin", asker, own, name);
  }
  void LocationEvent(Text host, Number port) override { record("LocationEvent", host, port); }
  void PluginConnectedEvent(Number cookie, Number plugin, Text errors) override {
    record("PluginConnectedEvent", cookie, plugin, errors);
  }
  void PluginId(Number plugin) override { record("PluginId", id = plugin); }
  void PluginIdForServiceReplyEvent(Number cookie, Text name, Number plugin, bool found) override {
    record("PluginIdForServiceReplyEvent", cookie, name, plugin, found);
  }
  void RNBlockReservedEvent(RNArray list) override { record("RNBlockReservedEvent", list); }
  void StartLogging() override { record("StartLogging"); }
  void StartPlugin(StringArray arguments, Number cookie, Text directory) override {
    record("StartPlugin", arguments, cookie, directory);
  }
  void ValueOfNameOnPluginEvent(Number plugin, Text name, Text value) override {
    record("ValueOfNameOnPluginEvent", plugin, name, value);
  }

 private:
  bool nothingIsToCome();
  static std::string shown(Text text) {
    return text ? "'" + std::string(text) + "'" : std::string("null");
  }
  static std::string shown(bool flag) { return flag ? "1" : "0"; }
  static std::string shown(Number number) { return std::to_string(number); }
  template <class Array>
  static std::string shown(const Array& array) {
    std::string line = "[";
    for (Number i = 0; i < array.count; ++i) line += (i > 0 ? " " : "") + shown(array.data[i]);
    return line + "]";
  }
  template <class... Fields>
  void record(const char* name, const Fields&... fields) {
    std::string line = name;
    ((line += " " + shown(fields)), ...);
    received_.push_back(std::move(line));
  }

  static std::set<TestPlugin*> all;
  std::deque<std::string> received_;
};
