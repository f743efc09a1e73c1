#include "services/hublink/hublink_connection.h"

#include <algorithm>
#include <utility>

#include "service_database/prefer_ada.h"
#include "services/hublink/hublink.h"
#include "stp_transport/transport/stp_transport.h"

// Takes a record that comes from a hub's end of a link.
class HublinkConnection::HubRefusal : public ResponseListener {
 public:
  HubRefusal(STPTransport* link, Hublink* hub, std::int32_t pluginID)
      : link_(link), hub_(hub), pluginID_(pluginID) {
    link->addListener(STP_HUB_RN, STP_PLUGIN_RN, this, STP_NEGOTIATION);
  }
  ~HubRefusal() override { link_->removeListener(this); }
  bool handleMessage(STPReceivedMessage&, bool) override {
    hub_->logInternal("Plugin ID %d is a hub and no plugin.\n", pluginID_);
    link_->disconnect();
    return true;
  }

 private:
  const CountedPtr<STPTransport> link_;
  Hublink* const hub_;
  const std::int32_t pluginID_;
};

HublinkConnection::HublinkConnection(STPTransport* link, Hublink* owner, std::int32_t id,
                                     std::int32_t child, const char* childName,
                                     const char* directory, STPLog* internalLog)
    : hub(owner),
      pluginID(id),
      process(child),
      name(childName ? childName : ""),
      workingDir(directory ? directory : "") {
  link->setForwardingHandler(owner);
  setLogs(internalLog);
  setTransport(link, STP_HUB_RN, STP_PLUGIN_RN);
}

HublinkConnection::~HublinkConnection() = default;

void HublinkConnection::refuseHub() {
  hubRefusal = std::make_unique<HubRefusal>(getTransport(), hub, pluginID);
}

void HublinkConnection::sendNegotiate() {
  STPSpecClass::sendNegotiate(false, nullptr, nullptr);
}

bool HublinkConnection::isNegotiated() {
  return STPSpecClass::isNegotiated();
}

void HublinkConnection::peerRecordTaken() {
  hubRefusal.reset();
  hub->negotiationFinished();
}

void HublinkConnection::handleBinaryMessage(STPReceivedMessage& message, STPMessage* reply,
                                            std::uint32_t id) {
  spoken = true;
  Hublink_router_Impl::handleBinaryMessage(message, reply, id);
}

bool HublinkConnection::isDead() const {
  return getTransport()->isClosed();
}

void HublinkConnection::addPeerLink(std::int32_t peerPluginID, std::int32_t localRN,
                                    std::int32_t remoteRN, UsageShare share) {
  peerLinks.push_back({peerPluginID, localRN, remoteRN, std::move(share)});
}

void HublinkConnection::removePeerLink(std::int32_t localRN, std::int32_t remoteRN) {
  const auto place = std::find_if(peerLinks.begin(), peerLinks.end(), [&](const PeerLink& link) {
    return link.localRN == localRN && link.remoteRN == remoteRN;
  });
  if (place != peerLinks.end()) peerLinks.erase(place);
}

std::list<PeerLink> HublinkConnection::takePeerLinks() {
  return std::exchange(peerLinks, {});
}

void HublinkConnection::DebugPlugin(const char* plugin_name, bool do_debug, const char* debugger,
                                    const char* debugger_opts) {
  hub->debugPlugin(this, plugin_name, do_debug, debugger, debugger_opts);
}

void HublinkConnection::RequestLocation() {
  hub->sendLocation(this);
}

void HublinkConnection::RequestPluginLaunch(StringArray argv, std::int32_t cookie,
                                            bool client_start, const char* working_dir) {
  hub->requestPluginLaunch(this, argv, cookie, client_start, working_dir);
}

void HublinkConnection::RequestPluginConnect(const char* host, std::int32_t port,
                                             std::int32_t cookie) {
  hub->requestPluginConnect(this, host, port, cookie);
}

void HublinkConnection::RequestPluginIdForService(std::int32_t cookie, const char* serviceName,
                                                  const char* working_dir,
                                                  bool startup_if_not_running) {
  hub->requestPluginIdForService(this, cookie, serviceName, working_dir, startup_if_not_running);
}

void HublinkConnection::RequestHublinkDisconnect() {
  hub->disconnectPlugin(this);
}

void HublinkConnection::RequestServiceConnection(const char* serviceName,
                                                 std::int32_t providingPluginID,
                                                 StringArray name_value_pairs,
                                                 const char* working_dir, bool local_only,
                                                 std::int32_t client_cookie, bool no_reuse,
                                                 bool client_start) {
  hub->requestServiceConnection(
      this, {serviceName, providingPluginID, name_value_pairs, working_dir, local_only,
             client_cookie, no_reuse, client_start});
}

void HublinkConnection::DropServiceConnection(std::int32_t localRN, std::int32_t serviceRN) {
  hub->dropServiceConnection(this, localRN, serviceRN);
}

void HublinkConnection::ConnectionAcceptedEvent(std::int32_t serviceRN, std::int32_t remoteRN,
                                                bool accept) {
  hub->connectionAccepted(this, serviceRN, remoteRN, accept);
}

void HublinkConnection::StartPluginEvent(std::int32_t cookie, bool success,
                                         const char* error_message) {
  hub->startPluginEvent(this, cookie, success, error_message);
}

void HublinkConnection::SetWorkingDir(const char* working_dir) {
  if (hub->isTextTaken(this, working_dir)) setWorkingDir(working_dir);
}

void HublinkConnection::ReserveRNBlock(std::int32_t count) {
  hub->reserveRNBlock(this, count);
}

void HublinkConnection::ReleaseRN(std::int32_t rn) {
  hub->releaseRN(this, rn);
}

void HublinkConnection::UnregisterService(std::int32_t serviceRN) {
  hub->unregisterService(serviceRN);
}

void HublinkConnection::RegisterServiceList(StringArray name_list) {
  hub->registerServiceList(this, name_list);
}

void HublinkConnection::RequestValueOfNameOnPlugin(std::int32_t plugin_id, const char* valueName) {
  hub->requestValueOfName(this, plugin_id, valueName);
}

void HublinkConnection::ValueOfNameOnPluginResponseEvent(std::int32_t requesting_plugin_id,
                                                         std::int32_t plugin_id,
                                                         const char* valueName, const char* value) {
  hub->answerValueOfName(this, requesting_plugin_id, plugin_id, valueName, value);
}

void HublinkConnection::PersistentService(bool flag) {
  if (flag != persistent) hub->adjustPersistentCount(flag);
  persistent = flag;
}

void HublinkConnection::NumPersistentServices(std::int32_t& num_persistent,
                                              std::int32_t& num_total) {
  num_persistent = hub->numPersistentPlugins();
  num_total = hub->numPlugins();
}

void HublinkConnection::LogMessageEvent(const char* message) {
  hub->logMessage(message);
}

void HublinkConnection::SetEnvironmentVariable(const char* variable, const char* value) {
  hub->setEnvironmentVariable(variable, value);
}

void HublinkConnection::SetPreferAda(bool preferAda) {
  setPreferAda(preferAda);
}
