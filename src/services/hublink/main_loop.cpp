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
  bool removeRecord() override {
    if (!hub_.lockActiveRecord()) return false;
    remove();
    return true;
  }
  // Nobody is to find a hub that was told to stop, unless its record is another hub's by now.
  void removeOwnRecord() {
    if (!hub_.lockActiveRecord()) return;
    if (hub_.ownsActiveRecord())
      remove();
    else
      hub_.unlockActiveRecord();
  }

 private:
  void remove() {
    hub_.removeActiveRecord();
    hub_.unlockActiveRecord();
    hub_.logInternal("Removed active hublink file.\n");
  }

  Hublink& hub_;
};

}  // namespace

void runMainLoop(Hublink& hub, const std::function<void()>& afterPass) {
  HubIdleSubject subject(hub);
  IdleLogic idle;
  do {
    hub.servicePass(kPassTimeout);
    if (afterPass) afterPass();
  } while (!platform::stopRequested() &&
           idle.afterPass(subject, static_cast<std::int64_t>(systemTimeMilliseconds())));
  if (platform::stopRequested()) subject.removeOwnRecord();
}
