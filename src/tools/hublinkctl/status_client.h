// What the hub tells of itself, as objects of JSON: the hub, its plugins, services, links and
// launches, and what happens. Each item has the names of its message's fields
// (interfaces/hub_status.stp); a text that there is none of is null, and so is a number that means
// that.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "indgen/memory.h"
#include "stp_transport/transport/stp_status.h"
#include "tools/hublinkctl/session.h"

namespace hublinkctl {

enum class Listed : std::uint8_t { plugins, services, links, launches };

class StatusView;

/// Asks over a session, whose failures it tells there. The hub may be one that doesn't know of the
/// service yet: then opening fails.
class StatusClient {
 public:
  using EventHandler = std::function<void(const Facts& event)>;

  explicit StatusClient(Session& session);
  ~StatusClient();
  StatusClient(const StatusClient&) = delete;
  StatusClient& operator=(const StatusClient&) = delete;

  /// To be called before all others.
  bool open();
  /// The same for those who can do without: no failure if the hub doesn't tell of itself.
  bool openIfOffered();
  /// None if no answer has come.
  std::optional<Facts> hub();
  /// All items, an array, page by page; none if an answer hasn't come.
  std::optional<Facts> list(Listed what);
  /// From here on `handler` is called for each event, while the session is served.
  bool subscribe(EventHandler handler);

  // Each gives the hub's refusal as a failure of the session.
  bool kick(std::int32_t pluginID);
  bool stop(bool whenIdle);
  /// Null ends the log.
  bool setInternalLog(const char* file);

 private:
  bool open(bool isNeeded);
  using Command = std::function<void(StatusView& view, gen_text& error, STPStatus* status)>;
  bool command(const Command& call);

  Session& session_;
  std::shared_ptr<HublinkLink> link_;
  CountedPtr<StatusView> view_;
};

}  // namespace hublinkctl
