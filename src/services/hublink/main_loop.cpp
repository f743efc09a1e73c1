#include "services/hublink/main_loop.h"

#include "platform/process.h"
#include "services/hublink/hublink.h"
#include "services/hublink/idle_logic.h"

namespace {

constexpr int kPassTimeout = 500;  // ms

}  // namespace

void runMainLoop(Hublink& hub, const std::function<void()>& afterPass) {
  IdleLogic idle(hub);
  do {
    hub.servicePass(kPassTimeout);
    if (afterPass) afterPass();
  } while (!platform::stopRequested() && !hub.stopsNow() && idle.afterPass());
  // Nobody is to find a hub that was told to stop.
  if (platform::stopRequested() || hub.stopsNow()) hub.removeActiveRecord();
}
