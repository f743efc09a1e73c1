// What happens in the hub, for those who watch it. As long as nobody does, telling costs nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string_view>

/// Texts are valid for the length of the call.
struct Happening {
  const char* kind;         ///< as interfaces/hub_status.stp lists them
  std::int32_t pluginID;    ///< whom it is about, 0 for nobody
  std::int32_t otherID;     ///< the other plugin that takes part, 0 for nobody
  std::string_view text;    ///< a service or a program
  std::string_view detail;  ///< an outcome
};

class HubEvents {
 public:
  using Listener = std::function<void(const Happening& event)>;
  using Place = std::list<Listener>::iterator;

  Place add(Listener listener) { return listeners_.insert(listeners_.end(), std::move(listener)); }
  void remove(Place place) { listeners_.erase(place); }
  /// A listener must neither add nor remove one.
  void tell(const char* kind, std::int32_t pluginID, std::int32_t otherID = 0,
            std::string_view text = {}, std::string_view detail = {}) const {
    for (const Listener& listener : listeners_) listener({kind, pluginID, otherID, text, detail});
  }

 private:
  std::list<Listener> listeners_;
};
