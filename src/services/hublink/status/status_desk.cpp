#include "services/hublink/status/status_desk.h"

#include <algorithm>

#include "indgen/format.h"
#include "indgen/host.h"
#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/process.h"
#include "services/hublink/hublink.h"

namespace {

// Items of a page: a page is made within one turn of the hub, in which nobody else has his.
constexpr std::int32_t kMostItems = 64;
// Bytes that wait for the viewer from which on events are left out.
constexpr std::int64_t kMostUnread = 256 << 10;

int sizeOf(std::int32_t most) {
  return most <= 0 || most > kMostItems ? kMostItems : most;
}
std::string keyOf(const char* after) {
  return after ? after : "";
}
const char* orNull(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}
std::uint64_t asTime(std::int64_t time) {
  return static_cast<std::uint64_t>(time);
}
std::int32_t asCount(std::int64_t number) {
  return static_cast<std::int32_t>(number);
}

}  // namespace

StatusDesk::StatusDesk(Hublink& hub, HubEvents& events, STPTransport* link, std::int32_t ownRN,
                       std::int32_t viewerRN)
    : hub_(hub), events_(events), reader_(hub) {
  setLogs(hub.log().internal());
  setTransport(link, ownRN, viewerRN);
  sendNegotiate(false, nullptr, nullptr);
}

StatusDesk::~StatusDesk() {
  end();
}

void StatusDesk::end() {
  Subscribe(false);
  if (getTransport()) setTransport(nullptr);
}

void StatusDesk::RequestHub(std::int32_t cookie) {
  const HubFacts facts = reader_.hub();
  HubDescription(cookie, HUBLINK_VERSION, gen_host_name(), facts.port, platform::currentProcess(),
                 static_cast<std::int32_t>(platform::currentUser()), asTime(facts.since),
                 facts.program.c_str(), orNull(facts.record), facts.options.c_str(),
                 facts.pluginLog, orNull(facts.internalLog), asCount(facts.descriptors.used),
                 asCount(facts.descriptors.most), asCount(facts.pluginIDs.used),
                 asCount(facts.pluginIDs.most), static_cast<std::uint64_t>(facts.rns.used),
                 static_cast<std::uint64_t>(facts.rns.most), facts.plugins, facts.negotiating,
                 facts.persistent, facts.services, facts.links, facts.launches, facts.waiting,
                 facts.packets, facts.bytes, facts.stopsWhenIdle);
}

void StatusDesk::RequestPlugins(std::int32_t cookie, const char* after, std::int32_t most) {
  finish(cookie, reader_.plugins(keyOf(after), sizeOf(most), [&](const PluginFacts& one) {
    PluginDescription(
        cookie, one.pluginID, orNull(one.program), one.process, one.user, one.wasLaunched, one.road,
        orNull(one.address), asTime(one.since), one.isNegotiated, one.isPersistent,
        orNull(one.workingDir), orNull(one.version), one.services, one.links, one.waiting,
        one.queuedBytes, asTime(one.slowSince), one.waitsFor, one.stalled, one.sentPackets,
        one.sentBytes, one.receivedPackets, one.receivedBytes, orNull(one.machine), one.remoteID);
  }));
}

void StatusDesk::RequestServices(std::int32_t cookie, const char* after, std::int32_t most) {
  finish(cookie, reader_.services(keyOf(after), sizeOf(most), [&](const ServiceFacts& one) {
    ServiceDescription(cookie, one.name.c_str(), one.state, one.serviceRN, one.pluginID,
                       one.waiting, orNull(one.program), orNull(one.file), one.line);
  }));
}

void StatusDesk::RequestLinks(std::int32_t cookie, const char* after, std::int32_t most) {
  finish(cookie, reader_.links(keyOf(after), sizeOf(most), [&](const LinkFacts& one) {
    LinkDescription(cookie, one.service.c_str(), one.requesterID, one.requesterRN, one.providerID,
                    one.providerRN, asTime(one.since), one.requesterPackets, one.requesterBytes,
                    one.providerPackets, one.providerBytes);
  }));
}

void StatusDesk::RequestLaunches(std::int32_t cookie, const char* after, std::int32_t most) {
  finish(cookie, reader_.launches(keyOf(after), sizeOf(most), [&](const LaunchFacts& one) {
    LaunchDescription(cookie, one.program.c_str(), orNull(one.service), one.process,
                      asTime(one.since), asTime(one.until), one.waiting);
  }));
}

void StatusDesk::finish(std::int32_t cookie, const std::string& next) {
  ListEnd(cookie, orNull(next));
}

void StatusDesk::Subscribe(bool events) {
  if (events == subscription_.has_value()) return;
  if (events) {
    subscription_ = events_.add([this](const Happening& event) { pass(event); });
  } else {
    events_.remove(*subscription_);
    subscription_.reset();
  }
}

void StatusDesk::pass(const Happening& event) {
  if (getTransport()->writeCount() > kMostUnread) {
    ++lost_;
    return;
  }
  const std::string text(event.text), detail(event.detail);
  HubEvent(asTime(platform::unixMilliseconds()), event.kind, event.pluginID, event.otherID,
           orNull(text), orNull(detail), lost_);
  lost_ = 0;
}

bool StatusDesk::mayCommand(gen_text& error) const {
  if (platform::userOfClient(getTransport()->fileDescriptor()).isOwn()) return true;
  error = gen_asprintf("only the hub's own user may do that, on the hub's machine");
  return false;
}

void StatusDesk::KickPlugin(std::int32_t plugin_id, gen_text& error) {
  if (!mayCommand(error)) return;
  if (!hub_.plugins().kick(plugin_id)) error = gen_asprintf("there is no plugin %d", plugin_id);
}

void StatusDesk::StopHub(bool when_idle, gen_text& error) {
  if (mayCommand(error)) hub_.stop(when_idle);
}

void StatusDesk::SetInternalLog(const char* file, gen_text& error) {
  if (!mayCommand(error)) return;
  std::string reason;
  if (!file)
    hub_.log().endInternal();
  else if (!hub_.log().switchInternal(file, reason))
    error = gen_asprintf("%s: %s", file, reason.c_str());
  hub_.traceAll();
}
