// What plugins of this machine want of others: each wish is tried at one machine after the other,
// the best first, until one of them has a provider. The requester then gets a link to the stand-in
// of that provider.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "hublink_plugin/timed_calls.h"
#include "services/hublink_bridge/hub_desk.h"
#include "services/hublink_bridge/parts.h"
#include "services/hublink_bridge/session.h"

namespace bridge {

class Wishes : public WishListener {
 public:
  explicit Wishes(const Parts& parts) : parts_(parts) {}

  void wanted(const hubbridge::Wanted& wish) override;
  void providerWanted(const hubbridge::WantedProvider& wish) override;
  void noLongerWanted(std::int32_t cookie) override;

  /// The realm has had time to make itself known. Until then a wish that nobody seems to fulfil
  /// waits: a bridge that was started for it has heard of nobody yet.
  void settle();

  /// The answer of another machine. False if it is malformed: the session is to end.
  bool opened(Session& session, const Frame& frame);
  /// The other machine has gone back on it. False if this isn't one of the wishes' links.
  bool closed(const Session& session, std::uint32_t number);
  void sessionEnded(const Session& session);
  /// Whether any wish still goes by the session, be it at its end.
  bool uses(const Session& session) const;
  /// The hub has gone, and with it all who wished for anything.
  void clear();

 private:
  using LinkKey = std::pair<const Session*, std::uint32_t>;
  struct Wish {
    OpenBody body;
    std::vector<std::string> machines;
    std::size_t next = 0;
    bool isForAnybody = true;    // else for the one machine
    Session* session = nullptr;  // of the machine that is asked
    std::uint32_t number = 0;
    bool isAnswered = false;     // there is a provider, and its stand-in is being prepared
    StandIn* standIn = nullptr;  // which the wish keeps from going
    std::int32_t rn = 0;         // of the stand-in, offered for this wish; 0: none yet
    TimedCallID limit{};
  };
  using Place = std::map<std::int32_t, Wish>::iterator;

  void begin(std::int32_t cookie, Wish wish);
  void tryNext(std::int32_t cookie);
  void give(std::int32_t cookie);
  void standInReady(std::int32_t cookie, StandIn* standIn, OpenedBody::Outcome outcome);
  void offer(std::int32_t cookie, std::int32_t rn, bool isAccepted);
  void connected(std::int32_t cookie, const std::shared_ptr<HublinkLink>& hubLink);
  void takeBack(Wish& wish);
  void releaseRN(StandIn& standIn, std::int32_t rn);
  void fail(std::int32_t cookie);
  void forget(Place place);

  Parts parts_;
  std::map<std::int32_t, Wish> wishes_;  // by the hub's cookie
  std::map<LinkKey, std::int32_t> cookies_;
  std::uint32_t lastNumber_ = 0;
  bool isSettled_ = false;
};

}  // namespace bridge
