#include "tools/hublinkctl/status_client.h"

#include <utility>

#include "generated/hubstatus_viewer_impl.h"

namespace hublinkctl {
namespace {

constexpr const char* kService = "hublink.status";

Facts text(const char* value) {
  return value ? Facts(value) : Facts();
}
Facts known(std::int32_t number) {
  return number >= 0 ? Facts(number) : Facts();
}
Facts someone(std::int32_t pluginID) {
  return pluginID > 0 ? Facts(pluginID) : Facts();
}
Facts when(std::uint64_t time) {
  return time != 0 ? Facts(time) : Facts();
}

}  // namespace

// The viewer's side of the interface: collects what comes for the question that is open.
class StatusView : public HubStatus_viewer_Impl {
 public:
  Facts items = Facts::array();
  std::optional<std::string> next;  ///< once the page is complete
  StatusClient::EventHandler onEvent;
  std::int32_t cookie = 0;

 protected:
  void HubDescription(std::int32_t cookieOfQuestion, const char* version, const char* host,
                      std::int32_t port, std::int32_t process, std::int32_t user,
                      std::uint64_t since, const char* program, const char* record,
                      const char* options, bool plugin_log, const char* internal_log,
                      std::int32_t descriptors, std::int32_t most_descriptors,
                      std::int32_t plugin_ids, std::int32_t most_plugin_ids, std::uint64_t rns,
                      std::uint64_t most_rns, std::int32_t plugins, std::int32_t negotiating,
                      std::int32_t persistent, std::int32_t services, std::int32_t links,
                      std::int32_t launches, std::int32_t waiting, std::uint64_t packets,
                      std::uint64_t bytes, bool stops_when_idle) override {
    if (cookieOfQuestion != cookie) return;
    items.push_back({{"version", text(version)},
                     {"host", text(host)},
                     {"port", port},
                     {"process", process},
                     {"user", user},
                     {"since", when(since)},
                     {"program", text(program)},
                     {"record", text(record)},
                     {"options", text(options)},
                     {"plugin_log", plugin_log},
                     {"internal_log", text(internal_log)},
                     {"descriptors", descriptors},
                     {"most_descriptors", most_descriptors},
                     {"plugin_ids", plugin_ids},
                     {"most_plugin_ids", most_plugin_ids},
                     {"rns", rns},
                     {"most_rns", most_rns},
                     {"plugins", plugins},
                     {"negotiating", negotiating},
                     {"persistent", persistent},
                     {"services", services},
                     {"links", links},
                     {"launches", launches},
                     {"waiting", waiting},
                     {"packets", packets},
                     {"bytes", bytes},
                     {"stops_when_idle", stops_when_idle}});
    next.emplace();
  }
  void PluginDescription(std::int32_t cookieOfQuestion, std::int32_t plugin_id, const char* program,
                         std::int32_t process, std::int32_t user, bool launched, const char* road,
                         const char* address, std::uint64_t since, bool isNegotiatedThere,
                         bool persistent, const char* working_dir, const char* version,
                         std::int32_t services, std::int32_t links, std::int32_t waiting,
                         std::uint64_t queued_bytes, std::uint64_t slow_since,
                         std::int32_t waits_for, std::int32_t stalled, std::uint64_t sent_packets,
                         std::uint64_t sent_bytes, std::uint64_t received_packets,
                         std::uint64_t received_bytes, const char* machine,
                         std::int32_t remote_id) override {
    if (cookieOfQuestion != cookie) return;
    items.push_back({{"plugin_id", plugin_id},
                     {"program", text(program)},
                     {"process", known(process)},
                     {"user", known(user)},
                     {"launched", launched},
                     {"road", text(road)},
                     {"address", text(address)},
                     {"since", when(since)},
                     {"negotiated", isNegotiatedThere},
                     {"persistent", persistent},
                     {"working_dir", text(working_dir)},
                     {"version", text(version)},
                     {"services", services},
                     {"links", links},
                     {"waiting", waiting},
                     {"queued_bytes", queued_bytes},
                     {"slow_since", when(slow_since)},
                     {"waits_for", someone(waits_for)},
                     {"stalled", stalled},
                     {"sent_packets", sent_packets},
                     {"sent_bytes", sent_bytes},
                     {"received_packets", received_packets},
                     {"received_bytes", received_bytes},
                     {"machine", text(machine)},
                     {"remote_id", someone(remote_id)}});
  }
  void ServiceDescription(std::int32_t cookieOfQuestion, const char* name, const char* state,
                          std::int32_t service_rn, std::int32_t plugin_id, std::int32_t waiting,
                          const char* program, const char* file, std::int32_t line) override {
    if (cookieOfQuestion != cookie) return;
    items.push_back({{"name", text(name)},
                     {"state", text(state)},
                     {"service_rn", known(service_rn)},
                     {"plugin_id", someone(plugin_id)},
                     {"waiting", waiting},
                     {"program", text(program)},
                     {"file", text(file)},
                     {"line", line > 0 ? Facts(line) : Facts()}});
  }
  void LinkDescription(std::int32_t cookieOfQuestion, const char* service,
                       std::int32_t requester_id, std::int32_t requester_rn,
                       std::int32_t provider_id, std::int32_t provider_rn, std::uint64_t since,
                       std::uint64_t requester_packets, std::uint64_t requester_bytes,
                       std::uint64_t provider_packets, std::uint64_t provider_bytes) override {
    if (cookieOfQuestion != cookie) return;
    items.push_back({{"service", text(service)},
                     {"requester_id", requester_id},
                     {"requester_rn", requester_rn},
                     {"provider_id", provider_id},
                     {"provider_rn", provider_rn},
                     {"since", when(since)},
                     {"requester_packets", requester_packets},
                     {"requester_bytes", requester_bytes},
                     {"provider_packets", provider_packets},
                     {"provider_bytes", provider_bytes}});
  }
  void LaunchDescription(std::int32_t cookieOfQuestion, const char* program, const char* service,
                         std::int32_t process, std::uint64_t since, std::uint64_t until,
                         std::int32_t waiting) override {
    if (cookieOfQuestion != cookie) return;
    items.push_back({{"program", text(program)},
                     {"service", text(service)},
                     {"process", known(process)},
                     {"since", when(since)},
                     {"until", when(until)},
                     {"waiting", waiting}});
  }
  void ListEnd(std::int32_t cookieOfQuestion, const char* following) override {
    if (cookieOfQuestion == cookie) next = following ? following : "";
  }
  void HubEvent(std::uint64_t time, const char* kind, std::int32_t plugin_id, std::int32_t other_id,
                const char* what, const char* detail, std::int32_t lost) override {
    if (onEvent)
      onEvent({{"time", time},
               {"kind", text(kind)},
               {"plugin_id", someone(plugin_id)},
               {"other_id", someone(other_id)},
               {"text", text(what)},
               {"detail", text(detail)},
               {"lost", lost}});
  }
};

StatusClient::StatusClient(Session& session) : session_(session) {}

StatusClient::~StatusClient() {
  if (link_) link_->close();
}

bool StatusClient::open() {
  return open(true);
}

bool StatusClient::openIfOffered() {
  return open(false);
}

bool StatusClient::open(bool isNeeded) {
  ServiceQuery query;
  query.serviceName = kService;
  const auto reply = session_.ask<ServiceReply>(
      [&](const auto& answered) { session_.plugin().requestService(query, answered, kNoLimit); });
  if (!reply) return false;
  if (!reply->link)
    return isNeeded &&
           session_.fail(ExitCode::no, "the hub doesn't tell of itself: it is an older one");
  link_ = reply->link;
  view_ = makeCounted<StatusView>();
  link_->attach(view_.get());
  view_->sendNegotiate(true, nullptr, nullptr);
  return session_.await([this] { return view_->isNegotiated(); });
}

std::optional<Facts> StatusClient::hub() {
  view_->items = Facts::array();
  view_->next.reset();
  view_->RequestHub(++view_->cookie);
  if (!session_.await([this] { return view_->next.has_value(); })) return std::nullopt;
  return view_->items.at(0);
}

std::optional<Facts> StatusClient::list(Listed what) {
  view_->items = Facts::array();
  std::string after;
  do {
    view_->next.reset();
    const std::int32_t cookie = ++view_->cookie;
    const char* key = after.empty() ? nullptr : after.c_str();
    if (what == Listed::plugins) view_->RequestPlugins(cookie, key, 0);
    if (what == Listed::services) view_->RequestServices(cookie, key, 0);
    if (what == Listed::links) view_->RequestLinks(cookie, key, 0);
    if (what == Listed::launches) view_->RequestLaunches(cookie, key, 0);
    if (!session_.await([this] { return view_->next.has_value(); })) return std::nullopt;
    after = *view_->next;
  } while (!after.empty());
  return std::exchange(view_->items, Facts::array());
}

bool StatusClient::subscribe(EventHandler handler) {
  view_->onEvent = std::move(handler);
  view_->Subscribe(true);
  return session_.plugin().isConnected();
}

bool StatusClient::command(const Command& call) {
  gen_text error;
  STPStatus status;
  call(*view_, error, &status);
  if (!status.good()) return session_.await([] { return false; });
  return !error || session_.fail(ExitCode::no, error.get());
}

bool StatusClient::kick(std::int32_t pluginID) {
  return command([&](StatusView& view, gen_text& error, STPStatus* status) {
    TimeoutSTPRetryHandler limit(view.getTransport(), session_.left());
    view.KickPlugin(pluginID, &error, &limit, status);
  });
}

bool StatusClient::stop(bool whenIdle) {
  return command([&](StatusView& view, gen_text& error, STPStatus* status) {
    TimeoutSTPRetryHandler limit(view.getTransport(), session_.left());
    view.StopHub(whenIdle, &error, &limit, status);
  });
}

bool StatusClient::setInternalLog(const char* file) {
  return command([&](StatusView& view, gen_text& error, STPStatus* status) {
    TimeoutSTPRetryHandler limit(view.getTransport(), session_.left());
    view.SetInternalLog(file, &error, &limit, status);
  });
}

}  // namespace hublinkctl
