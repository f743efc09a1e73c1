#include "services/hublink/hublink_connection.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "indgen/host.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "service_database/prefer_ada.h"
#include "services/hublink/hublink.h"
#include "services/hublink/plugin_bounds.h"
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
    hub_->log().logInternal("Plugin ID %d is a hub and no plugin.\n", pluginID_);
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
      workingDir(directory ? directory : ""),
      since(platform::unixMilliseconds()) {
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
  hub->plugins().negotiationFinished();
}

void HublinkConnection::handleBinaryMessage(STPReceivedMessage& message, STPMessage* reply,
                                            std::uint32_t id) {
  spoken = true;
  Hublink_router_Impl::handleBinaryMessage(message, reply, id);
}

bool HublinkConnection::isDead() const {
  return getTransport()->isClosed();
}

std::string HublinkConnection::getProgram(std::int32_t peerProcess) const {
  if (standIn) return standIn->program;
  return name.empty() && peerProcess > 0 ? platform::programOf(peerProcess) : name;
}

void HublinkConnection::addPeerLink(PeerLink link) {
  peerLinks.push_back(std::move(link));
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

void HublinkConnection::sendFailureReply(const char* serviceName, std::int32_t clientCookie) {
  ConnectionReplyEvent(serviceName, -1, false, false, false, 0, -1, nullptr, clientCookie);
}

// Whether a text that would be kept isn't too long; if it is, that is logged.
bool HublinkConnection::isTextTaken(const char* text) const {
  if (!text || std::strlen(text) <= kLongestText) return true;
  hub->log().logInternal("Warning: Ignored a text of plugin ID %d that is too long.\n", pluginID);
  return false;
}

void HublinkConnection::DebugPlugin(const char* plugin_name, bool do_debug, const char* debugger,
                                    const char* debugger_opts) {
  if (isTextTaken(plugin_name) && isTextTaken(debugger) && isTextTaken(debugger_opts))
    hub->launcher().debugging().debugPlugin(plugin_name, do_debug, debugger, debugger_opts);
}

void HublinkConnection::RequestLocation() {
  LocationEvent(gen_host_name(), static_cast<std::int32_t>(hub->entrance().port()));
  // Whoever asks may want to leave with its next message, which would drop what is still queued.
  STPTransport::flushMarked();
}

void HublinkConnection::RequestPluginLaunch(StringArray argv, std::int32_t cookie,
                                            bool client_start, const char* working_dir) {
  hub->broker().requestPluginLaunch(this, argv, cookie, client_start, working_dir);
}

void HublinkConnection::RequestPluginConnect(const char* host, std::int32_t port,
                                             std::int32_t cookie) {
  hub->broker().requestPluginConnect(this, host, port, cookie);
}

void HublinkConnection::RequestPluginIdForService(std::int32_t cookie, const char* serviceName,
                                                  const char* working_dir,
                                                  bool startup_if_not_running) {
  hub->broker().requestPluginIdForService(this, cookie, serviceName, working_dir,
                                          startup_if_not_running);
}

void HublinkConnection::RequestHublinkDisconnect() {
  hub->broker().disconnectPlugin(this);
}

void HublinkConnection::RequestServiceConnection(const char* serviceName,
                                                 std::int32_t providingPluginID,
                                                 StringArray name_value_pairs,
                                                 const char* working_dir, bool local_only,
                                                 std::int32_t client_cookie, bool no_reuse,
                                                 bool client_start) {
  hub->broker().requestServiceConnection(
      this, {serviceName, providingPluginID, name_value_pairs, working_dir, local_only,
             client_cookie, no_reuse, client_start});
}

void HublinkConnection::DropServiceConnection(std::int32_t localRN, std::int32_t serviceRN) {
  hub->broker().dropServiceConnection(this, localRN, serviceRN);
}

void HublinkConnection::ConnectionAcceptedEvent(std::int32_t serviceRN, std::int32_t remoteRN,
                                                bool accept) {
  hub->broker().connectionAccepted(this, serviceRN, remoteRN, accept);
}

void HublinkConnection::StartPluginEvent(std::int32_t cookie, bool success,
                                         const char* error_message) {
  hub->broker().startPluginEvent(this, cookie, success, error_message);
}

void HublinkConnection::SetWorkingDir(const char* working_dir) {
  if (isTextTaken(working_dir)) workingDir = working_dir ? working_dir : "";
}

void HublinkConnection::ReserveRNBlock(std::int32_t count) {
  hub->broker().reserveRNBlock(this, count);
}

void HublinkConnection::ReleaseRN(std::int32_t rn) {
  hub->broker().releaseRN(this, rn);
}

void HublinkConnection::UnregisterService(std::int32_t serviceRN) {
  hub->broker().unregisterService(serviceRN);
}

void HublinkConnection::RegisterServiceList(StringArray name_list) {
  hub->broker().registerServiceList(this, name_list);
}

void HublinkConnection::RequestValueOfNameOnPlugin(std::int32_t plugin_id, const char* valueName) {
  HublinkConnection* target = hub->plugins().find(plugin_id);
  if (!target) {
    ValueOfNameOnPluginEvent(plugin_id, valueName, nullptr);
    return;
  }
  target->ForwardedRequestValueOfNameOnPlugin(pluginID, plugin_id, valueName);
  getTransport()->waitFor(*target->getTransport());
}

void HublinkConnection::ValueOfNameOnPluginResponseEvent(std::int32_t requesting_plugin_id,
                                                         std::int32_t plugin_id,
                                                         const char* valueName, const char* value) {
  HublinkConnection* asker = hub->plugins().find(requesting_plugin_id);
  if (!asker) return;
  asker->ValueOfNameOnPluginEvent(plugin_id, valueName, value);
  getTransport()->waitFor(*asker->getTransport());
}

void HublinkConnection::PersistentService(bool flag) {
  hub->plugins().setPersistent(this, flag);
}

void HublinkConnection::NumPersistentServices(std::int32_t& num_persistent,
                                              std::int32_t& num_total) {
  num_persistent = hub->numPersistentPlugins();
  num_total = hub->numPlugins();
}

void HublinkConnection::LogMessageEvent(const char* message) {
  if (STPFileLog* log = hub->log().plugins()) log->write(message);
}

void HublinkConnection::SetEnvironmentVariable(const char* variable, const char* value) {
  hub->launcher().setEnvironmentVariable(variable, value);
}

void HublinkConnection::SetPreferAda(bool preferAda) {
  setPreferAda(preferAda);
}
