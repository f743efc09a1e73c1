#include "services/hublink_bridge/values.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "services/hublink_bridge/exports.h"
#include "services/hublink_bridge/link.h"
#include "services/hublink_bridge/session_table.h"
#include "services/hublink_bridge/stand_in_table.h"

namespace bridge {

namespace {

// Milliseconds: who asks waits no longer himself.
constexpr int kValueTime = HublinkPlugin::kAnswerTime;

}  // namespace

void Values::ask(const StandIn& asked, std::int32_t askingPluginID, const std::string& name,
                 HublinkPlugin::ValueAnswer answer) {
  Session& session = parts_.sessions.ours(asked.key().machine, clockNow());
  const std::uint32_t cookie = ++lastCookie_;
  const auto timeout =
      parts_.plugin.callLater(kValueTime, [this, cookie] { give(cookie, std::nullopt); });
  questions_[cookie] = {&session, std::move(answer), timeout};
  if (!session.send(FrameKind::value, 0,
                    bodyOf(ValueBody{cookie, asked.key().pluginID, askingPluginID, name})))
    give(cookie, std::nullopt);
}

void Values::give(std::uint32_t cookie, const std::optional<std::string>& value) {
  const auto question = questions_.extract(cookie);
  if (!question) return;
  parts_.plugin.cancelLater(question.mapped().timeout);
  question.mapped().answer(value);
}

bool Values::asked(Session& session, const Frame& frame) {
  ValueBody body;
  if (!readBody(frame, body)) return false;
  const auto answer = [cookie = body.cookie](Session& to, const OptionalText& value) {
    if (!to.send(FrameKind::valued, 0, bodyOf(ValuedBody{cookie, value})))
      to.send(FrameKind::valued, 0, bodyOf(ValuedBody{cookie, std::nullopt}));
  };
  const std::string& machine = session.machine();
  const auto inHand = std::count_if(inHand_.begin(), inHand_.end(),
                                    [&](const auto& one) { return one.second.machine == machine; });
  const bool isAllowed =
      body.name && parts_.exports.isValueExported(*body.name) && inHand < kMostInHand;
  StandIn* const linked = isAllowed ? parts_.links.standInBetween(body.pluginID, machine) : nullptr;
  if (!linked) {
    answer(session, std::nullopt);
    return true;
  }
  const std::uint64_t ticket = ++lastTicket_;
  inHand_[ticket] = {machine, &session};
  // Never by the bridge's own connection: whoever asks a plugin that takes nothing is stopped.
  StandIn* const asking = parts_.standIns.find({machine, body.askingID});
  HublinkPlugin& plugin = (asking ? asking : linked)->plugin();
  plugin.requestValue(body.pluginID, *body.name,
                      [this, ticket, answer](const std::optional<std::string>& value) {
                        const auto visit = inHand_.extract(ticket);
                        if (visit && visit.mapped().session) answer(*visit.mapped().session, value);
                      });
  return true;
}

bool Values::answered(const Session& session, const Frame& frame) {
  ValuedBody body;
  if (!readBody(frame, body)) return false;
  const auto place = questions_.find(body.cookie);
  if (place != questions_.end() && place->second.session == &session) give(body.cookie, body.value);
  return true;
}

void Values::sessionEnded(const Session& session) {
  for (auto& [ticket, visit] : inHand_)
    if (visit.session == &session) visit.session = nullptr;
  std::vector<std::uint32_t> open;
  for (const auto& [cookie, question] : questions_)
    if (question.session == &session) open.push_back(cookie);
  for (const std::uint32_t cookie : open) give(cookie, std::nullopt);
}

}  // namespace bridge
