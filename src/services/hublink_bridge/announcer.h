// What this bridge says of itself to the realm, and what it makes of what the others say: who is
// there, what they export, how far they are. The messages are those of docs/bridge.md.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "services/hublink_bridge/exports.h"
#include "services/hublink_bridge/members.h"
#include "services/hublink_bridge/names.h"
#include "services/hublink_bridge/nats_connection.h"

namespace bridge {

class Announcer {
 public:
  /// `taken` is called if another bridge of this name is found in the realm at the start. Later on
  /// that is only told on standard error: anybody may say it who isn't held to his name.
  Announcer(NatsConnection& nats, Members& members, const Exports& exports, std::string realm,
            std::string machine, std::function<void()> taken);

  /// There is a connection to NATS, again: all is said anew. At first that is only a question for
  /// the others, until it is clear that nobody else bears this name.
  void connected(std::int64_t now);
  /// Another list of exports is to be told.
  void exportsChanged() { isStateDue_ = true; }
  void memberCame(const std::string& machine);
  void memberGone(const std::string& machine);
  /// Asks a machine that isn't known what it exports.
  void ask(const std::string& machine);
  /// False if the message is of another kind than those here.
  bool take(const Subject& subject, const NatsMessage& message, std::int64_t now);
  /// Says what is due. Gives the milliseconds until there is more to say.
  std::int64_t step(std::int64_t now);
  /// The end of this bridge.
  void bye();

  std::int64_t since() const { return since_; }
  /// Whether the others have been told of this one. Before, it is nobody to have links with.
  bool isAnnounced() const { return isAnnounced_; }

 private:
  void say(const std::string& to, const char* what);
  void sayState(const std::string& to);
  void answerHello(const std::string& machine, std::int64_t now);
  void ping(const std::string& machine);
  void pingNext();
  NatsHeaders ownHeaders() const;
  std::int64_t listen(std::int64_t now);
  void ownNameHeard(std::string_view what, const NatsMessage& message, std::int64_t now);
  void stateArrived(const std::string& machine, const NatsMessage& message, std::int64_t now);

  NatsConnection& nats_;
  Members& members_;
  const Exports& exports_;
  const std::string realm_;
  const std::string machine_;
  const std::function<void()> taken_;
  const std::string incarnation_;
  const std::int64_t since_;
  std::uint64_t state_ = 1;  // number of the list of exports
  bool isStateDue_ = false;
  std::int64_t aliveDue_ = 0;
  bool isAnnounced_ = false;
  std::int64_t announceAt_ = 0, askOwnNameAt_ = 0;  // while it isn't
  std::int64_t startedUntil_ = 0;                   // when the start is over; 0: it hasn't begun
  std::int64_t warnedAt_ = 0;                       // of another bridge of this name
  std::map<std::string, std::uint64_t> pings_;      // the latest to each machine that has no answer
  std::string lastPinged_;
  std::map<std::string, std::int64_t> answered_;  // when a machine's hello was, at the latest
};

}  // namespace bridge
