// The hub's main loop: passes until it has been idle long enough or is asked to stop.
#pragma once

#include <functional>

class Hublink;

/// Runs the hub. `afterPass`, if there is one, is called at the end of each pass, when no message
/// is being handled.
void runMainLoop(Hublink& hub, const std::function<void()>& afterPass = {});
