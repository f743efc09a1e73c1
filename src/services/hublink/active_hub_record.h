// The record by which tools find a shared hub. It is held for as long as the hub is shared; its
// work on disk (the file, its lock, the look-up by tools) isn't there yet, so that tools can't find
// the hub by it.
#pragma once

#include <cstdint>
#include <string>

class ActiveHubRecord {
 public:
  /// `zone` names the record; null lets the name follow from the installation.
  ActiveHubRecord(std::uint32_t port, const char* zone);
  /// True if the lock on the record was got.
  bool lock();
  void remove();
  void unlock();

 private:
  std::uint32_t port_;
  std::string zone_;
};
