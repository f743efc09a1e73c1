#include "services/hublink/main_loop.h"

#include "libcxxutil/ut_clock.h"
#include "platform/process.h"
#include "services/hublink/hublink.h"
#include "services/hublink/idle_logic.h"

namespace {

constexpr int kPassTimeout = 500;  // ms

class HubIdleSubject : public IdleSubject {
 public:
  explicit HubIdleSubject(Hublink& hub) : hub_(hub) {}
  bool hasPersistentPlugin() const override { return hub_.numPersistentPlugins() > 0; }
  bool isShared() const override { return !hub_.hasNoActiveRecord(); }
  bool isUsedUp() const override { return hub_.isUsedUp(); }
  bool removeRecord() override { return hub_.removeActiveRecord(); }
  std::int64_t now() const override { return static_cast<std::int64_t>(systemTimeMilliseconds()); }

 private:
  Hublink& hub_;
};

}  // namespace

void runMainLoop(Hublink& hub, const std::function<void()>& afterPass) {
  HubIdleSubject subject(hub);
  IdleLogic idle;
  do {
    hub.servicePass(kPassTimeout);
    if (afterPass) afterPass();
  } while (!platform::stopRequested() && idle.afterPass(subject));
  // Nobody is to find a hub that was told to stop.
  if (platform::stopRequested()) hub.removeActiveRecord();
}
