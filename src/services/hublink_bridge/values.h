// Questions about named values that plugins of one machine ask plugins of another. A value is told
// if its name is exported and the plugin that has it has a link with the asking machine; else there
// is no such value.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "hublink_plugin/hublink_plugin.h"
#include "services/hublink_bridge/parts.h"
#include "services/hublink_bridge/session.h"

namespace bridge {

class StandIn;

class Values {
 public:
  explicit Values(const Parts& parts) : parts_(parts) {}

  /// A plugin of this machine asks one of another.
  void ask(const StandIn& asked, std::int32_t askingPluginID, const std::string& name,
           HublinkPlugin::ValueAnswer answer);
  /// A VALUE and a VALUED. False if it is malformed: the session is to end.
  bool asked(Session& session, const Frame& frame);
  bool answered(const Session& session, const Frame& frame);
  void sessionEnded(const Session& session);

 private:
  /// Questions of one machine that may be in hand.
  static constexpr std::int64_t kMostInHand = 256;

  struct Question {
    const Session* session;
    HublinkPlugin::ValueAnswer answer;
    TimedCallID timeout;
  };
  struct Visit {
    std::string machine;
    Session* session;  // null: nobody waits any more
  };
  void give(std::uint32_t cookie, const std::optional<std::string>& value);

  Parts parts_;
  std::map<std::uint32_t, Question> questions_;
  std::map<std::uint64_t, Visit> inHand_;  // questions of others, by a ticket that none had before
  std::uint64_t lastTicket_ = 0;
  std::uint32_t lastCookie_ = 0;
};

}  // namespace bridge
