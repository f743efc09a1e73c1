// The programs that the hub of a simulated run starts: providers that do their work, at once or
// after a while or with the help of others, and programs that hang, go or are ended at every moment
// before that.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/sim/world.h"
#include "simulation/actor.h"

/// Plays the role as the calling process; its exit status.
using Player = std::function<int(ActorRole role, bool isLibrary)>;

/// Puts them on the machine, without those that are to be missing there.
void installPrograms(platform::sim::World& world, const Player& player);
