#include "services/hublink_bridge/wishes.h"

#include <utility>

#include "generated/hublink_plugin_impl.h"
#include "services/hublink_bridge/link.h"
#include "services/hublink_bridge/members.h"
#include "services/hublink_bridge/session_table.h"
#include "services/hublink_bridge/stand_in_table.h"

namespace bridge {

namespace {

// Milliseconds for all of a wish: another machine may have a program to start, for which its hub
// takes 30 seconds by itself.
constexpr int kWishTime = 45000;

}  // namespace

void Wishes::wanted(const hubbridge::Wanted& message) {
  Wish wish;
  wish.body.requesterID = message.requester_id;
  wish.body.flags = OpenBody::kMayStart;
  wish.body.service = message.service;
  wish.body.requesterProgram = message.requester_program;
  wish.body.workingDirectory = message.working_dir;
  for (const std::string& text : message.name_value_pairs) wish.body.pairs.emplace_back(text);
  if (message.provider_id != -1) {
    wish.isForAnybody = false;
    const StandIn* standIn = parts_.standIns.findLocal(message.provider_id);
    if (standIn) wish.body.providerID = standIn->key().pluginID;
    if (standIn && parts_.members.isImported(message.service))
      wish.machines = {standIn->key().machine};
  }
  begin(message.cookie, std::move(wish));
}

void Wishes::providerWanted(const hubbridge::WantedProvider& message) {
  Wish wish;
  wish.body.flags = OpenBody::kQueryOnly;
  if (message.start) wish.body.flags |= OpenBody::kMayStart;
  wish.body.service = message.service;
  wish.body.workingDirectory = message.working_dir;
  begin(message.cookie, std::move(wish));
}

void Wishes::begin(std::int32_t cookie, Wish wish) {
  noLongerWanted(cookie);  // of a hub before this one
  wish.limit = parts_.plugin.callLater(kWishTime, [this, cookie] { fail(cookie); });
  if (wish.isForAnybody) wish.machines = parts_.members.choose(*wish.body.service);
  const bool waits = wish.isForAnybody && wish.machines.empty() && !isSettled_;
  wishes_[cookie] = std::move(wish);
  if (!waits) tryNext(cookie);
}

void Wishes::settle() {
  if (std::exchange(isSettled_, true)) return;
  std::vector<std::int32_t> waiting;
  for (const auto& [cookie, wish] : wishes_)
    if (!wish.session && wish.next == 0) waiting.push_back(cookie);
  for (const std::int32_t cookie : waiting) {
    Wish& wish = wishes_[cookie];
    wish.machines = parts_.members.choose(*wish.body.service);
    tryNext(cookie);
  }
}

void Wishes::tryNext(std::int32_t cookie) {
  const auto place = wishes_.find(cookie);
  if (place == wishes_.end()) return;
  Wish& wish = place->second;
  const Bytes body = bodyOf(wish.body);
  while (wish.next < wish.machines.size()) {
    const std::string& machine = wish.machines[wish.next++];
    if (!parts_.members.find(machine)) continue;  // it has gone since it was chosen
    wish.session = &parts_.sessions.ours(machine, clockNow());
    wish.number = ++lastNumber_;
    if (!wish.session->send(FrameKind::open, wish.number, body)) continue;
    cookies_[{wish.session, wish.number}] = cookie;
    return;
  }
  wish.session = nullptr;
  fail(cookie);
}

bool Wishes::opened(Session& session, const Frame& frame) {
  OpenedBody body;
  if (!readBody(frame, body)) return false;
  const auto link = cookies_.find({&session, frame.link});
  if (link == cookies_.end()) {
    session.countStray();  // nobody wants it any more, which the other side is about to hear
    return true;
  }
  const std::int32_t cookie = link->second;
  Wish& wish = wishes_[cookie];
  if (wish.isAnswered) return false;
  if (body.outcome == OpenedBody::Outcome::notFound) {
    cookies_.erase(link);
    tryNext(cookie);
    return true;
  }
  wish.isAnswered = true;
  const RemotePluginKey provider{session.machine(), body.providerID};
  const bool isQuery = (wish.body.flags & OpenBody::kQueryOnly) != 0;
  if (!isQuery && body.outcome == OpenedBody::Outcome::accepted)
    parts_.links.add(session, frame.link,
                     {*wish.body.service, wish.body.requesterID, provider, true});
  parts_.standIns.want(provider, body.providerProgram.value_or(""),
                       [this, cookie, outcome = body.outcome](StandIn* standIn) {
                         standInReady(cookie, standIn, outcome);
                       });
  return true;
}

void Wishes::standInReady(std::int32_t cookie, StandIn* standIn, OpenedBody::Outcome outcome) {
  const auto place = wishes_.find(cookie);
  if (place == wishes_.end()) return;
  if (!standIn) {
    fail(cookie);
    return;
  }
  Wish& wish = place->second;
  if ((wish.body.flags & OpenBody::kQueryOnly) != 0) {
    parts_.desk.found(cookie, standIn->plugin().pluginID(), 0);
    forget(place);
    return;
  }
  const bool isAccepted = outcome == OpenedBody::Outcome::accepted;
  wish.standIn = standIn;
  parts_.standIns.linkBegins(*standIn);
  standIn->plugin().reserveRNs(
      1, [this, cookie, key = standIn->key(), isAccepted](const std::vector<std::int32_t>& list) {
        if (list.empty())
          fail(cookie);
        else if (wishes_.contains(cookie))
          offer(cookie, list.front(), isAccepted);
        else if (StandIn* one = parts_.standIns.find(key))
          releaseRN(*one, list.front());
      });
}

void Wishes::offer(std::int32_t cookie, std::int32_t rn, bool isAccepted) {
  Wish& wish = wishes_[cookie];
  wish.rn = rn;
  wish.standIn->plugin().offerRN(
      rn,
      [this, cookie](const std::shared_ptr<HublinkLink>& hubLink) { connected(cookie, hubLink); },
      [this, cookie, isAccepted](const ConnectionRequest&) {
        const auto asked = wishes_.find(cookie);
        if (asked == wishes_.end()) return false;
        if (!isAccepted) {
          takeBack(asked->second);
          forget(asked);
        }
        return isAccepted;
      });
  parts_.desk.found(cookie, wish.standIn->plugin().pluginID(), rn);
}

void Wishes::connected(std::int32_t cookie, const std::shared_ptr<HublinkLink>& hubLink) {
  const auto place = wishes_.find(cookie);
  if (place == wishes_.end()) {
    hubLink->close();
    return;
  }
  const Wish& wish = place->second;
  StandIn& standIn = *wish.standIn;
  Session& session = *wish.session;
  standIn.plugin().unregisterService(wish.rn);
  if (Link* link = parts_.links.find(session, wish.number)) {
    parts_.standIns.linkBegins(standIn);
    if (!parts_.links.join(*link, standIn, hubLink)) session.end("what came wasn't packets", true);
  } else {
    hubLink->close();
    releaseRN(standIn, wish.rn);
  }
  forget(place);
}

// The other machine is told, and the RN that was offered goes.
void Wishes::takeBack(Wish& wish) {
  if (wish.session) {
    if (Link* link = parts_.links.find(*wish.session, wish.number)) {
      link->localEnded();
      parts_.links.settleLater(*link);
    } else if (!wish.isAnswered) {
      wish.session->send(FrameKind::close, wish.number);
    }
  }
  if (wish.rn == 0) return;
  wish.standIn->plugin().unregisterService(wish.rn);
  releaseRN(*wish.standIn, wish.rn);
}

void Wishes::releaseRN(StandIn& standIn, std::int32_t rn) {
  if (standIn.plugin().isConnected()) standIn.plugin().hub().ReleaseRN(rn);
}

void Wishes::fail(std::int32_t cookie) {
  const auto place = wishes_.find(cookie);
  if (place == wishes_.end()) return;
  takeBack(place->second);
  parts_.desk.notFound(cookie);
  forget(place);
}

void Wishes::forget(Place place) {
  const Wish& wish = place->second;
  parts_.plugin.cancelLater(wish.limit);
  if (wish.standIn) parts_.standIns.linkEnds(*wish.standIn, clockNow());
  cookies_.erase({wish.session, wish.number});
  wishes_.erase(place);
}

void Wishes::noLongerWanted(std::int32_t cookie) {
  const auto place = wishes_.find(cookie);
  if (place == wishes_.end()) return;
  takeBack(place->second);
  forget(place);
}

bool Wishes::closed(const Session& session, std::uint32_t number) {
  const auto link = cookies_.find({&session, number});
  if (link == cookies_.end()) return false;
  const std::int32_t cookie = link->second;
  Wish& wish = wishes_[cookie];
  // One that is being prepared finds out when the requester comes for it.
  if (wish.isAnswered) return false;
  cookies_.erase(link);
  tryNext(cookie);
  return true;
}

void Wishes::sessionEnded(const Session& session) {
  std::vector<std::int32_t> ended;
  for (auto place = cookies_.lower_bound({&session, 0});
       place != cookies_.end() && place->first.first == &session; ++place)
    ended.push_back(place->second);
  for (const std::int32_t cookie : ended) {
    const auto place = wishes_.find(cookie);
    if (place == wishes_.end() || place->second.isAnswered) continue;
    cookies_.erase({&session, place->second.number});
    place->second.session = nullptr;
    tryNext(cookie);
  }
}

bool Wishes::uses(const Session& session) const {
  const auto place = cookies_.lower_bound({&session, 0});
  return place != cookies_.end() && place->first.first == &session;
}

void Wishes::clear() {
  while (!wishes_.empty()) {
    takeBack(wishes_.begin()->second);
    forget(wishes_.begin());
  }
}

}  // namespace bridge
