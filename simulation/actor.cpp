#include "simulation/actor.h"

#include "platform/sim/world.h"

void Actor::order(const Order& order) {
  orders_.push_back(order);
  if (process) platform::sim::World::wake(*process);
}

void Actor::lose() {
  connected_ = false;
  stage_.ledger.leave(*this);
}

std::uint64_t Actor::waitsForID() const {
  const bool isWaiting = connected_ && role_.negotiates && pluginID_ == -1;
  return isWaiting ? stage_.world.now() - connectedAt_ : 0;
}
