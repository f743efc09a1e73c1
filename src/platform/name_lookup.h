// A host name that is resolved while this process does other things.
//
// The system's resolver takes as long as its servers let it, and can't be told to stop. Each lookup
// waits for it on a thread of its own, of which there are 64 at most: further ones wait for their
// turn. The process may end in the middle of it. The objects belong to the main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace platform {

struct Inquiry;

class NameLookup {
 public:
  /// Begins to look for the first IPv4 address of the name. Its end ends a wait of the readiness
  /// set.
  explicit NameLookup(const std::string& name);
  /// Gives up: nobody waits for the answer any more.
  ~NameLookup();
  NameLookup(const NameLookup&) = delete;
  NameLookup& operator=(const NameLookup&) = delete;

  /// Costs no call.
  bool isOver() const;
  /// In host order, once it is over; none if the name can't be resolved.
  std::optional<std::uint32_t> address() const;

 private:
  std::shared_ptr<Inquiry> inquiry_;
};

}  // namespace platform
