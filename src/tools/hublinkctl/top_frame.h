// One picture of a hub for those who watch it: its plugins or links in an order, with the rates
// between two looks at it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "tools/hublinkctl/status_client.h"

namespace hublinkctl {

enum class TopOrder : std::uint8_t { traffic, backlog, age };

/// What is shown, as options and keys choose it.
struct TopView {
  bool links = false;  ///< in place of plugins
  TopOrder order = TopOrder::traffic;
  bool reverse = false;
  bool help = false;
};

class TopFrame {
 public:
  /// Looks at the hub; false, with a failure of the session, if it doesn't answer.
  bool look(StatusClient& client);
  /// The picture, its lines with line ends. At most `width` columns and `height` lines; 0: no
  /// limit.
  std::string text(const TopView& view, std::size_t width, std::size_t height, bool colours) const;

 private:
  struct Counts {
    std::uint64_t packets = 0, bytes = 0;
  };
  using Key = std::pair<std::int32_t, std::int32_t>;  // a plugin and 0, or a link's requester
  void addRates(Facts& item, Key key, Counts counts, std::map<Key, Counts>& seen);
  std::string heading(const TopView& view) const;

  Facts hub_, plugins_ = Facts::array(), links_ = Facts::array();
  std::map<Key, Counts> counts_;   // at the last look
  std::optional<double> seconds_;  // between the last two looks
  std::uint64_t time_ = 0;         // of the last one, monotonic ms
};

}  // namespace hublinkctl
