// A plugin inside the test: it has the library's own side of the link and keeps each message that
// the hub sends as one readable line.
#pragma once

#include <deque>
#include <set>
#include <string>

#include "generated/hublink_plugin_impl.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_transport.h"

class TestPlugin : public Hublink_plugin_Impl {
 public:
  /// Takes a connected transport and sends the record.
  explicit TestPlugin(STPTransport* link);

  /// The oldest message not yet taken: its name and its fields with blanks between, texts in single
  /// quotes. Serves the link until there is one; "closed" or "nothing" if none comes.
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
  void ask(const char* service, std::int32_t cookie, std::int32_t provider = -1,
           bool noReuse = false);
  /// Asks for this plugin's number of the service, to be started if need be.
  void query(const char* service, std::int32_t cookie, bool start = true) {
    RequestPluginIdForService(cookie, service, nullptr, start);
  }

  std::int32_t id = 0;

 protected:
  ~TestPlugin() override;
  void ConnectionDroppedEvent(std::int32_t serviceRN, std::int32_t remoteRN) override;
  void ConnectionReplyEvent(const char* serviceName, std::int32_t localRN, bool wasFound,
                            bool is_shared_object, bool wasAccepted, std::int32_t serviceRN,
                            std::int32_t plugin_id, const char* shared_object_name,
                            std::int32_t client_cookie) override;
  void ConnectionRequestedEvent(std::int32_t requesting_plugin_id, std::int32_t serviceRN,
                                std::int32_t remoteRN, StringArray name_value_pairs) override;
  void ForwardedRequestValueOfNameOnPlugin(std::int32_t requesting_plugin_id,
                                           std::int32_t my_plugin_id, const char* name) override;
  void LocationEvent(const char* hostname, std::int32_t port) override;
  void PluginConnectedEvent(std::int32_t cookie, std::int32_t pluginID,
                            const char* errors) override;
  void PluginId(std::int32_t plugin_id) override;
  void PluginIdForServiceReplyEvent(std::int32_t cookie, const char* service_name,
                                    std::int32_t plugin_id, bool found) override;
  void RNBlockReservedEvent(RNArray rn_list) override;
  void StartLogging() override;
  void StartPlugin(StringArray args, std::int32_t cookie, const char* working_dir) override;
  void ValueOfNameOnPluginEvent(std::int32_t plugin_id, const char* name,
                                const char* value) override;

 private:
  template <class... Fields>
  void record(const char* name, const Fields&... fields);

  static std::set<TestPlugin*> all;
  std::deque<std::string> received_;
};
