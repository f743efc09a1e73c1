#include "services/hublink_bridge/realm_desk.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <map>
#include <variant>
#include <vector>

#include "hublink_plugin/hublink_plugin.h"
#include "platform/clock.h"
#include "realm.h"
#include "services/hublink_bridge/link.h"
#include "services/hublink_bridge/members.h"
#include "services/hublink_bridge/nats_connection.h"
#include "services/hublink_bridge/stand_in_table.h"

namespace bridge {

namespace {

constexpr std::size_t kPage = 100;
// What a viewer can't take at once he doesn't get: the bridge has others to serve.
constexpr int kNoWait = 0;

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ",") + text;
  return all;
}

std::int32_t number(std::size_t count) {
  return static_cast<std::int32_t>(count);
}

void add(FlowCounters& sum, const FlowCounters& counters) {
  sum.packets += counters.packets;
  sum.bytes += counters.bytes;
}

}  // namespace

// One for each viewer: the list that he asks for page by page.
class RealmDesk::Viewed : public realm::Bridge {
 public:
  explicit Viewed(const RealmDesk* desk) : desk_(*desk), parts_(desk->parts_) {}

 protected:
  void onRequestBridge(const realm::RequestBridge& question) override {
    FlowCounters sent = desk_.sent_, received = desk_.received_;
    parts_.links.forEach([&](const Link& link) {
      add(sent, link.sent());
      add(received, link.received());
    });
    std::size_t services = 0;
    for (const auto& [name, member] : parts_.members.all()) services += member.services.size();
    bridgeDescription({.cookie = question.cookie,
                       .realm = desk_.options_.realm,
                       .machine = desk_.options_.machine,
                       .version = HUBLINK_VERSION,
                       .server = desk_.nats_.isConnected() ? desk_.nats_.server() : "",
                       .connected = desk_.nats_.isConnected(),
                       .since = static_cast<std::uint64_t>(desk_.since_),
                       .error = desk_.nats_.isConnected() ? "" : desk_.natsError_,
                       .exports = joined(desk_.options_.exports),
                       .imports = joined(desk_.options_.imports),
                       .machines = number(parts_.members.all().size()),
                       .services = number(services),
                       .links = number(parts_.links.size()),
                       .sent_packets = sent.packets,
                       .sent_bytes = sent.bytes,
                       .received_packets = received.packets,
                       .received_bytes = received.bytes},
                      kNoWait);
  }
  void onRequestMachines(const realm::RequestMachines& question) override {
    if (question.first == 0) listMachines();
    tellPage(question.cookie, question.first);
  }
  void onRequestServices(const realm::RequestServices& question) override {
    if (question.first == 0) listServices();
    tellPage(question.cookie, question.first);
  }
  void onRequestPlugins(const realm::RequestPlugins& question) override {
    if (question.first == 0) listPlugins();
    tellPage(question.cookie, question.first);
  }
  void onRequestLinks(const realm::RequestLinks& question) override {
    if (question.first == 0) listLinks();
    tellPage(question.cookie, question.first);
  }

 private:
  using Item = std::variant<realm::MachineDescription, realm::RemoteService, realm::RemotePlugin,
                            realm::RemoteLink>;

  void listMachines() {
    list_.clear();
    // The table has the times of a clock that knows no date.
    const std::int64_t date = platform::unixMilliseconds() - clockNow();
    for (const auto& [name, member] : parts_.members.all())
      list_.emplace_back(realm::MachineDescription{
          .cookie = 0,
          .name = name,
          .version = member.version,
          .since = static_cast<std::uint64_t>(std::max<std::int64_t>(member.since, 0)),
          .heard = static_cast<std::uint64_t>(date + member.heard),
          .round_trip = static_cast<std::int32_t>(
              std::min<std::int64_t>(member.roundTrip, std::numeric_limits<std::int32_t>::max())),
          .services = number(member.services.size()),
          .links = number(parts_.links.countWith(name))});
  }

  void listServices() {
    list_.clear();
    for (const auto& [name, member] : parts_.members.all())
      for (const ExportedService& service : member.services)
        list_.emplace_back(
            realm::RemoteService{.cookie = 0,
                                 .machine = name,
                                 .name = service.name,
                                 .state = service.isRunning ? "running" : "startable",
                                 .plugin_id = service.pluginID,
                                 .program = service.program,
                                 .imported = parts_.members.isImported(service.name)});
  }

  void listPlugins() {
    std::map<RemotePluginKey, realm::RemotePlugin> plugins;
    const auto entry = [&plugins](const RemotePluginKey& key) -> realm::RemotePlugin& {
      return plugins
          .try_emplace(key, realm::RemotePlugin{.cookie = 0,
                                                .machine = key.machine,
                                                .plugin_id = key.pluginID,
                                                .program = "",
                                                .stand_in = -1,
                                                .services = 0,
                                                .links = 0})
          .first->second;
    };
    for (const auto& [name, member] : parts_.members.all())
      for (const ExportedService& service : member.services) {
        if (!service.isRunning) continue;
        realm::RemotePlugin& plugin = entry({name, service.pluginID});
        plugin.program = service.program;
        ++plugin.services;
      }
    parts_.standIns.forEach([&](const StandIn& standIn, int links) {
      realm::RemotePlugin& plugin = entry(standIn.key());
      if (plugin.program.empty()) plugin.program = standIn.program();
      plugin.stand_in = standIn.plugin().pluginID();
      plugin.links = links;
    });
    list_.clear();
    for (auto& [key, plugin] : plugins) list_.emplace_back(std::move(plugin));
  }

  void listLinks() {
    list_.clear();
    parts_.links.forEach([this](const Link& link) {
      const LinkEnds& ends = link.ends();
      const std::string& own = desk_.options_.machine;
      const bool isOwn = ends.isRequesterLocal;
      list_.emplace_back(
          realm::RemoteLink{.cookie = 0,
                            .service = ends.service,
                            .requester_machine = isOwn ? own : ends.remote.machine,
                            .requester_id = isOwn ? ends.localPluginID : ends.remote.pluginID,
                            .provider_machine = isOwn ? ends.remote.machine : own,
                            .provider_id = isOwn ? ends.remote.pluginID : ends.localPluginID,
                            .since = static_cast<std::uint64_t>(link.since()),
                            .sent_packets = link.sent().packets,
                            .sent_bytes = link.sent().bytes,
                            .received_packets = link.received().packets,
                            .received_bytes = link.received().bytes});
    });
  }

  void tellPage(std::int32_t cookie, std::int32_t first) {
    const std::size_t begin = first < 0 ? list_.size() : static_cast<std::size_t>(first);
    const std::size_t end = std::min(list_.size(), begin + kPage);
    for (std::size_t i = begin; i < end; ++i) {
      const auto tellOne = [this, cookie](auto& item) {
        item.cookie = cookie;
        tell(item);
      };
      std::visit(tellOne, list_[i]);
    }
    const bool isLast = end == list_.size();
    realmListEnd({.cookie = cookie, .next = isLast ? 0 : number(end)}, kNoWait);
    if (isLast) list_.clear();
  }

  void tell(const realm::MachineDescription& machine) { machineDescription(machine, kNoWait); }
  void tell(const realm::RemoteService& service) { remoteService(service, kNoWait); }
  void tell(const realm::RemotePlugin& plugin) { remotePlugin(plugin, kNoWait); }
  void tell(const realm::RemoteLink& link) { remoteLink(link, kNoWait); }

  const RealmDesk& desk_;
  const Parts& parts_;
  std::vector<Item> list_;
};

RealmDesk::RealmDesk(const Parts& parts, const NatsConnection& nats, const Options& options)
    : parts_(parts), nats_(nats), options_(options), since_(platform::unixMilliseconds()) {}

bool RealmDesk::open(std::string& error) {
  if (parts_.plugin.registerService(kService, hublink::serveWith<Viewed>(this)) != -1) return true;
  error = "the hub has not registered the service " + std::string(kService);
  return false;
}

void RealmDesk::natsState(bool isConnected, const std::string& text) {
  natsError_ = isConnected ? "" : text;
}

void RealmDesk::linkEnded(const Link& link) {
  add(sent_, link.sent());
  add(received_, link.received());
}

}  // namespace bridge
