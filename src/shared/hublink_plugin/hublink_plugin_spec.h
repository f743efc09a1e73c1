// The receiving side of what the hub sends to a plugin: each message becomes a call of the plugin.
#pragma once

#include "generated/hublink_plugin_impl.h"

class HublinkPlugin;

class HublinkPluginSpec : public Hublink_plugin_Impl {
 public:
  explicit HublinkPluginSpec(HublinkPlugin* plugin) : plugin_(plugin) {}
  /// The plugin has gone: what still comes is dropped.
  void detach() { plugin_ = nullptr; }

 protected:
  ~HublinkPluginSpec() override = default;
  void LocationEvent(const char* hostname, std::int32_t port) override;
  void PluginId(std::int32_t plugin_id) override;
  void ConnectionRequestedEvent(std::int32_t requesting_plugin_id, std::int32_t serviceRN,
                                std::int32_t remoteRN, StringArray name_value_pairs) override;
  void ConnectionDroppedEvent(std::int32_t serviceRN, std::int32_t remoteRN) override;
  void ConnectionReplyEvent(const char* serviceName, std::int32_t localRN, bool wasFound,
                            bool is_shared_object, bool wasAccepted, std::int32_t serviceRN,
                            std::int32_t plugin_id, const char* shared_object_name,
                            std::int32_t client_cookie) override;
  void PluginIdForServiceReplyEvent(std::int32_t cookie, const char* service_name,
                                    std::int32_t plugin_id, bool found) override;
  void RNBlockReservedEvent(RNArray rn_list) override;
  void PluginConnectedEvent(std::int32_t cookie, std::int32_t pluginID,
                            const char* errors) override;
  void ForwardedRequestValueOfNameOnPlugin(std::int32_t requesting_plugin_id,
                                           std::int32_t my_plugin_id, const char* name) override;
  void ValueOfNameOnPluginEvent(std::int32_t plugin_id, const char* name,
                                const char* value) override;
  void StartPlugin(StringArray args, std::int32_t cookie, const char* working_dir) override;
  void StartLogging() override;

 private:
  HublinkPlugin* plugin_;
};
