// Those transports of a process that may have something to do: steps on sets look at no others.
//
// Entries stand in the order of construction. Handlers that run in the middle of a walk may add and
// remove: the walk then finds its place again by the serial number of what it has just served.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

class STPTransport;

class STPAttention {
 public:
  /// Entries, those that have been removed since the last compact() included.
  std::size_t size() const { return entries_.size(); }
  /// Null for a removed one.
  STPTransport* operator[](std::size_t place) const { return entries_[place].transport; }

  void add(std::uintptr_t serial, STPTransport* transport) {
    if (entries_.empty() || entries_.back().serial < serial) {
      entries_.push_back({serial, transport});
      return;
    }
    const auto place = entries_.begin() + static_cast<std::ptrdiff_t>(firstFrom(serial));
    if (place->serial == serial)
      place->transport = transport;
    else
      entries_.insert(place, {serial, transport});
  }
  void removeAt(std::size_t place) {
    entries_[place].transport = nullptr;
    holes_ = true;
  }
  void remove(std::uintptr_t serial) {
    const std::size_t place = firstFrom(serial);
    if (place < entries_.size() && entries_[place].serial == serial) removeAt(place);
  }
  /// The place behind that of `serial`, which was `place` before a handler ran.
  std::size_t after(std::uintptr_t serial, std::size_t place) const {
    if (place < entries_.size() && entries_[place].serial == serial) return place + 1;
    return firstFrom(serial + 1);
  }
  /// Forgets what has been removed. To be called at the end of a walk.
  void compact() {
    if (!holes_) return;
    std::erase_if(entries_, [](const Entry& entry) { return !entry.transport; });
    holes_ = false;
  }

 private:
  struct Entry {
    std::uintptr_t serial;
    STPTransport* transport;
  };
  std::size_t firstFrom(std::uintptr_t serial) const {
    const auto place =
        std::lower_bound(entries_.begin(), entries_.end(), serial,
                         [](const Entry& entry, std::uintptr_t s) { return entry.serial < s; });
    return static_cast<std::size_t>(place - entries_.begin());
  }

  std::vector<Entry> entries_;
  bool holes_ = false;
};
