// What every side of an interface has, as stpc writes it for authors (--language cpp): a place on a
// link, calls with limits, and an end.
//
//   plugin.registerService("Adder", hublink::serveWith<MyAdder>());              // the provider
//   auto client = hublink::find<adder::Client>(plugin, "Adder");                 // the requester
//   const hublink::Result<adder::AddReply> reply = (*client)->add({.a = 40, .b = 2});
//
// A side that is put onto a link tells the peer at once which messages and fields it knows, and its
// calls wait until the peer has done so, within their own limits. All waits serve the plugin:
// handlers run meanwhile. A side may be destroyed anywhere, also in its own handlers and waits.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "hublink_plugin/result.h"

class HublinkLink;
class HublinkPlugin;
struct ServiceQuery;

namespace hublink {

class IncomingMessage;
class InterfaceCore;
struct SideTables;

/// Milliseconds that a call may last, and the search for a service, unless told otherwise. Where a
/// limit is given, a negative one means none.
inline constexpr int kCallLimit = 10000;
inline constexpr int kFindLimit = 30000;

/// Gets the reply of a call that nobody waits for, or why there is none.
template <class Reply>
using ReplyHandler = std::function<void(Result<Reply> reply)>;

class InterfaceSide {
 public:
  InterfaceSide(const InterfaceSide&) = delete;
  InterfaceSide& operator=(const InterfaceSide&) = delete;
  /// Ends the link. Calls that are on the stack end with it; handlers of open ones aren't called.
  virtual ~InterfaceSide();

  /// Puts this side onto a link, once. On one that has ended every call says so.
  void attach(const std::shared_ptr<HublinkLink>& link);
  /// Null before attach().
  const std::shared_ptr<HublinkLink>& link() const { return link_; }
  bool isUp() const;
  /// The number of the plugin at the other end; -1 before attach().
  std::int32_t peerPluginID() const;

  /// Whether the peer takes a message or has a field of that name, told as in the catalogue. Waits
  /// until the peer has said which it knows; false if that doesn't come in time.
  bool knows(std::string_view message, int milliseconds = kCallLimit);
  bool knowsField(std::string_view field, int milliseconds = kCallLimit);

  /// Called once when the link has ended, after the handlers of all that came before.
  virtual void onEnd() {}

 protected:
  explicit InterfaceSide(const SideTables& tables);

 private:
  friend class InterfaceCore;
  struct Release {
    void operator()(InterfaceCore* core) const;
  };

  /// Calls the handler of a message.
  virtual void receive(IncomingMessage& message) = 0;

  std::unique_ptr<InterfaceCore, Release> core_;
  std::shared_ptr<HublinkLink> link_;
};

/// Puts a side onto a link and keeps it until the link has ended.
void keepOn(const std::shared_ptr<HublinkLink>& link, std::unique_ptr<InterfaceSide> side);

/// What a plugin registers for a service: each requester gets a `Side` of its own, made with copies
/// of the arguments and kept until its link has ended.
template <class Side, class... Arguments>
auto serveWith(Arguments... arguments) {
  return [arguments...](const std::shared_ptr<HublinkLink>& link) {
    keepOn(link, std::make_unique<Side>(arguments...));
  };
}

/// A link to a provider of the service; asks again while there is none, until the time is up.
Result<std::shared_ptr<HublinkLink>> findLink(HublinkPlugin& plugin, const ServiceQuery& query,
                                              int milliseconds = kFindLimit);
Result<std::shared_ptr<HublinkLink>> findLink(HublinkPlugin& plugin, const std::string& service,
                                              int milliseconds = kFindLimit);

/// The same with a `Side` on the link, made with the arguments. What to ask for is a name or a
/// ServiceQuery.
template <class Side, class Query, class... Arguments>
Result<std::unique_ptr<Side>> find(HublinkPlugin& plugin, const Query& service,
                                   int milliseconds = kFindLimit, Arguments&&... arguments) {
  const auto link = findLink(plugin, service, milliseconds);
  if (!link) return link.error();
  auto side = std::make_unique<Side>(std::forward<Arguments>(arguments)...);
  side->attach(*link);
  return side;
}

}  // namespace hublink
