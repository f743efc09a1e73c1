// What the bridge of a hub tells of itself and of the other machines of its realm, as objects of
// JSON. Each item has the names of its message's fields (interfaces/realm.stp); a text that there
// is none of is null, and so is a number that means that.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "tools/hublinkctl/session.h"

namespace hublinkctl {

enum class RealmListed : std::uint8_t { machines, services, plugins, links };

class RealmView;

/// Asks over a session, whose failures it tells there.
class RealmClient {
 public:
  explicit RealmClient(Session& session);
  ~RealmClient();
  RealmClient(const RealmClient&) = delete;
  RealmClient& operator=(const RealmClient&) = delete;

  /// To be called before all others. Starts no bridge: fails if there is none.
  bool open();
  /// None if no answer has come.
  std::optional<Facts> bridge();
  /// All items, an array, page by page; none if an answer hasn't come.
  std::optional<Facts> list(RealmListed what);

 private:
  bool awaitPage();

  Session& session_;
  std::unique_ptr<RealmView> view_;
};

}  // namespace hublinkctl
