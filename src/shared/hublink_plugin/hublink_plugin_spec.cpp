#include "hublink_plugin/hublink_plugin_spec.h"

#include "hublink_plugin/hublink_plugin.h"

namespace {

std::string textOf(const char* text) {
  return text ? text : "";
}

}  // namespace

void HublinkPluginSpec::LocationEvent(const char* hostname, std::int32_t port) {
  if (plugin_) plugin_->locations_.answer({}, textOf(hostname), port);
}

void HublinkPluginSpec::PluginId(std::int32_t plugin_id) {
  if (plugin_) plugin_->pluginID_ = plugin_id;
}

void HublinkPluginSpec::ConnectionRequestedEvent(std::int32_t requesting_plugin_id,
                                                 std::int32_t serviceRN, std::int32_t remoteRN,
                                                 StringArray name_value_pairs) {
  ConnectionRequest request;
  request.requestingPluginID = requesting_plugin_id;
  for (std::int32_t i = 0; i < name_value_pairs.count; ++i)
    request.nameValuePairs.push_back(textOf(name_value_pairs.data[i]));
  if (plugin_) plugin_->connectionRequested(request, serviceRN, remoteRN);
}

void HublinkPluginSpec::ConnectionDroppedEvent(std::int32_t serviceRN, std::int32_t remoteRN) {
  if (plugin_) plugin_->connectionDropped(serviceRN, remoteRN);
}

void HublinkPluginSpec::ConnectionReplyEvent(const char* serviceName, std::int32_t localRN,
                                             bool wasFound, bool is_shared_object, bool wasAccepted,
                                             std::int32_t serviceRN, std::int32_t plugin_id,
                                             const char* shared_object_name,
                                             std::int32_t client_cookie) {
  using Outcome = ServiceReply::Outcome;
  ServiceReply reply;
  reply.pluginID = plugin_id;
  reply.sharedObjectName = textOf(shared_object_name);
  if (is_shared_object)
    reply.outcome = Outcome::sharedObject;
  else if (!wasFound)
    reply.outcome = Outcome::notFound;
  else if (wasAccepted)
    reply.outcome = Outcome::accepted;
  else
    reply.outcome = localRN == -1 ? Outcome::lostProvider : Outcome::refused;
  if (plugin_)
    plugin_->connectionReplied(client_cookie, reply, localRN, serviceRN, textOf(serviceName));
}

void HublinkPluginSpec::PluginIdForServiceReplyEvent(std::int32_t cookie, const char*,
                                                     std::int32_t plugin_id, bool) {
  if (plugin_) plugin_->providers_.answer(cookie, plugin_id);
}

void HublinkPluginSpec::RNBlockReservedEvent(RNArray rn_list) {
  if (plugin_)
    plugin_->rns_.answer({}, std::vector<std::int32_t>(rn_list.data, rn_list.data + rn_list.count));
}

void HublinkPluginSpec::PluginConnectedEvent(std::int32_t cookie, std::int32_t pluginID,
                                             const char* errors) {
  if (plugin_) plugin_->plugins_.answer(cookie, pluginID, textOf(errors));
}

void HublinkPluginSpec::ForwardedRequestValueOfNameOnPlugin(std::int32_t requesting_plugin_id,
                                                            std::int32_t my_plugin_id,
                                                            const char* name) {
  std::optional<std::string> value;
  if (plugin_ && plugin_->valueQuestionHandler_) {
    const auto handler = plugin_->valueQuestionHandler_;
    CountedPtr<HublinkPluginSpec> hold(this);
    handler(requesting_plugin_id, textOf(name),
            [hold, requesting_plugin_id, my_plugin_id,
             asked = textOf(name)](const std::optional<std::string>& answer) {
              hold->ValueOfNameOnPluginResponseEvent(requesting_plugin_id, my_plugin_id,
                                                     asked.c_str(),
                                                     answer ? answer->c_str() : nullptr);
            });
    return;
  }
  if (plugin_) {
    const auto handler = plugin_->valueHandler_;  // it may be replaced in the call
    if (handler) value = handler(textOf(name));
  }
  ValueOfNameOnPluginResponseEvent(requesting_plugin_id, my_plugin_id, name,
                                   value ? value->c_str() : nullptr);
}

void HublinkPluginSpec::ValueOfNameOnPluginEvent(std::int32_t plugin_id, const char* name,
                                                 const char* value) {
  if (plugin_)
    plugin_->values_.answer({plugin_id, textOf(name)},
                            value ? std::optional<std::string>(value) : std::nullopt);
}

// A plugin on this library starts no others on the hub's behalf.
void HublinkPluginSpec::StartPlugin(StringArray, std::int32_t cookie, const char*) {
  StartPluginEvent(cookie, false, "this plugin starts no others");
}

void HublinkPluginSpec::StartLogging() {
  if (plugin_) plugin_->logKept_ = true;
}
