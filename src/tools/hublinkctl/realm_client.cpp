#include "tools/hublinkctl/realm_client.h"

#include <utility>

#include "realm.h"

namespace hublinkctl {
namespace {

constexpr const char* kService = "hublink.bridge";

Facts text(const std::string& value) {
  return value.empty() ? Facts() : Facts(value);
}
Facts known(std::int32_t number) {
  return number >= 0 ? Facts(number) : Facts();
}
Facts when(std::uint64_t time) {
  return time != 0 ? Facts(time) : Facts();
}

}  // namespace

// The viewer's side of the interface: collects what comes for the question that is open.
class RealmView : public realm::Viewer {
 public:
  Facts items = Facts::array();
  std::optional<std::int32_t> next;  ///< once the page is complete
  std::int32_t cookie = 0;

 protected:
  void onBridgeDescription(const realm::BridgeDescription& message) override {
    if (message.cookie != cookie) return;
    // An empty text says that there is nothing, which is known.
    items.push_back({{"realm", message.realm},
                     {"machine", message.machine},
                     {"version", text(message.version)},
                     {"connected", message.connected},
                     {"server", message.server},
                     {"error", message.error},
                     {"since", when(message.since)},
                     {"exports", message.exports},
                     {"imports", message.imports.empty() ? "*" : message.imports},
                     {"machines", message.machines},
                     {"services", message.services},
                     {"links", message.links},
                     {"sent_packets", message.sent_packets},
                     {"sent_bytes", message.sent_bytes},
                     {"received_packets", message.received_packets},
                     {"received_bytes", message.received_bytes}});
    next = 0;
  }
  void onMachineDescription(const realm::MachineDescription& message) override {
    if (message.cookie != cookie) return;
    items.push_back({{"name", message.name},
                     {"version", text(message.version)},
                     {"since", when(message.since)},
                     {"heard", when(message.heard)},
                     {"round_trip", known(message.round_trip)},
                     {"services", message.services},
                     {"links", message.links}});
  }
  void onRemoteService(const realm::RemoteService& message) override {
    if (message.cookie != cookie) return;
    items.push_back({{"machine", message.machine},
                     {"name", message.name},
                     {"state", message.state},
                     {"plugin_id", known(message.plugin_id)},
                     {"program", text(message.program)},
                     {"imported", message.imported}});
  }
  void onRemotePlugin(const realm::RemotePlugin& message) override {
    if (message.cookie != cookie) return;
    items.push_back({{"machine", message.machine},
                     {"plugin_id", message.plugin_id},
                     {"program", text(message.program)},
                     {"stand_in", known(message.stand_in)},
                     {"services", message.services},
                     {"links", message.links}});
  }
  void onRemoteLink(const realm::RemoteLink& message) override {
    if (message.cookie != cookie) return;
    items.push_back({{"service", message.service},
                     {"requester_machine", message.requester_machine},
                     {"requester_id", message.requester_id},
                     {"provider_machine", message.provider_machine},
                     {"provider_id", message.provider_id},
                     {"since", when(message.since)},
                     {"sent_packets", message.sent_packets},
                     {"sent_bytes", message.sent_bytes},
                     {"received_packets", message.received_packets},
                     {"received_bytes", message.received_bytes}});
  }
  void onRealmListEnd(const realm::RealmListEnd& message) override {
    if (message.cookie == cookie) next = message.next;
  }
};

RealmClient::RealmClient(Session& session) : session_(session) {}

RealmClient::~RealmClient() = default;

bool RealmClient::open() {
  // Looking is no reason to start one.
  const auto provider = session_.ask<std::int32_t>([&](const auto& answered) {
    session_.plugin().requestProvider(kService, nullptr, false, answered, kNoLimit);
  });
  if (!provider) return false;
  ServiceQuery query;
  query.serviceName = kService;
  query.providingPluginID = *provider;
  std::optional<ServiceReply> reply;
  if (*provider != -1) {
    reply = session_.ask<ServiceReply>(
        [&](const auto& answered) { session_.plugin().requestService(query, answered, kNoLimit); });
    if (!reply) return false;
  }
  if (!reply || !reply->link)
    return session_.fail(ExitCode::no,
                         "there is no bridge to other machines beside this hub (hublink-bridge)");
  view_ = std::make_unique<RealmView>();
  view_->attach(reply->link);
  return true;
}

// The bridge may go meanwhile.
bool RealmClient::awaitPage() {
  if (!session_.await([this] { return view_->next.has_value() || !view_->isUp(); })) return false;
  return view_->next.has_value() || session_.fail(ExitCode::no, "the bridge has gone");
}

std::optional<Facts> RealmClient::bridge() {
  view_->items = Facts::array();
  view_->next.reset();
  view_->requestBridge({.cookie = ++view_->cookie}, session_.left());
  if (!awaitPage()) return std::nullopt;
  if (view_->items.empty()) {
    session_.fail(ExitCode::no, "the bridge doesn't tell of itself");
    return std::nullopt;
  }
  return view_->items.front();
}

std::optional<Facts> RealmClient::list(RealmListed what) {
  view_->items = Facts::array();
  std::int32_t first = 0;
  do {
    view_->next.reset();
    const std::int32_t cookie = ++view_->cookie;
    const int limit = session_.left();
    if (what == RealmListed::machines)
      view_->requestMachines({.cookie = cookie, .first = first}, limit);
    if (what == RealmListed::services)
      view_->requestServices({.cookie = cookie, .first = first}, limit);
    if (what == RealmListed::plugins)
      view_->requestPlugins({.cookie = cookie, .first = first}, limit);
    if (what == RealmListed::links) view_->requestLinks({.cookie = cookie, .first = first}, limit);
    if (!awaitPage()) return std::nullopt;
    first = *view_->next;
  } while (first > 0);
  return std::exchange(view_->items, Facts::array());
}

}  // namespace hublinkctl
