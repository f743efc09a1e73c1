// Lookups of names on the simulated machine: of those that it knows, some are answered later.
#include "platform/name_lookup.h"

#include "platform/readiness.h"
#include "platform/sim/world.h"
#include "platform/socket.h"

namespace platform {

struct Inquiry {
  std::optional<std::uint32_t> address;
  std::uint64_t answerAt = 0;
  int descriptor = -1;
};

NameLookup::NameLookup(const std::string& name) : inquiry_(std::make_shared<Inquiry>()) {
  sim::World& world = sim::World::current();
  std::uint32_t address = 0;
  if (resolveHost(name.c_str(), address)) inquiry_->address = address;
  sim::Descriptor waiting;
  waiting.answerAt = inquiry_->answerAt = world.answerTime();
  if (world.self().killed) return;
  inquiry_->descriptor = world.open(world.self(), waiting);
  readiness().watch(inquiry_->descriptor);
}

NameLookup::~NameLookup() {
  if (inquiry_->descriptor < 0) return;
  readiness().forget(inquiry_->descriptor);
  sim::World::current().close(inquiry_->descriptor);
}

bool NameLookup::isOver() const {
  return sim::World::current().now() >= inquiry_->answerAt;
}

std::optional<std::uint32_t> NameLookup::address() const {
  return inquiry_->address;
}

}  // namespace platform
