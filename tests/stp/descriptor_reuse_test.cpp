// A connection that gets the descriptor number of one that has just been closed, of which events
// are still to be served.
#include "platform/readiness.h"
#include "stp/pair.h"

namespace {

// What the old connection still has coming, where the change takes place, and who gets the new one.
struct Reuse {
  bool hasHungUp, isInHandler, isSameObject;
};

void expectSound(const Reuse& reuse) {
  Pair trigger = socketPair(), old = socketPair();
  Recorder go, stale, fresh;
  trigger.b->addListener(2, 1, &go, STP_BINARY);
  old.b->addListener(2, 1, &stale, STP_BINARY);
  STPTransportSet set{trigger.b.get(), old.b.get()};
  for (int i = 0; i < 3; ++i) serviceFirst(0, set);

  const auto post = [](const Pair& pair, const char* text) {
    pair.a->enqueueMessage(*textMessage(*pair.a, STP_BINARY, text));
    pair.a->handleWrite();
  };
  post(trigger, "go");
  post(old, "for the old one");
  if (reuse.hasHungUp) old.a->disconnect();
  // A client waits to be accepted: the next free descriptor is the one that will be closed.
  std::uint16_t port = 0;
  const int listener = getFreeListenSocket(&port, nullptr, true);
  Pair made{makeCounted<STPTransport>(), reuse.isSameObject ? old.b : makeCounted<STPTransport>()};
  made.a->connect("127.0.0.1", port);
  const int descriptor = old.b->fileDescriptor();
  go.then = [&](STPReceivedMessage&) {
    set.erase(old.b.get());
    old.b->disconnect();
    if (reuse.isSameObject) old.b->removeListener(&stale);
    made.b->bindFD(acceptClient(listener, false, nullptr));
    made.b->addListener(2, 1, &fresh, STP_BINARY);
    set.insert(made.b.get());
  };
  if (reuse.isInHandler) {
    serviceFirst(1000, set);
  } else {
    trigger.a->serviceOnce(0);  // only learns of the events
    trigger.b->serviceOnce(1000);
  }
  ASSERT_EQ(go.texts.size(), 1u);
  ASSERT_EQ(made.b->fileDescriptor(), descriptor);
  EXPECT_FALSE(platform::readiness().isHungUp(descriptor));
  for (int i = 0; i < 3; ++i) serviceFirst(0, set);
  ASSERT_TRUE(made.b->isConnected());

  for (const char* text : {"one", "two"}) {
    post(made, text);
    for (int step = 0; step < 100 && fresh.texts.empty(); ++step) serviceFirst(20, set);
    EXPECT_EQ(std::exchange(fresh.texts, {}), std::vector<std::string>{text});
  }
  EXPECT_TRUE(stale.texts.empty());
  // Nor is it deaf to the room for what it writes: more than sockets hold.
  Recorder far;
  made.a->addListener(2, 1, &far, STP_BINARY);
  made.b->enqueueMessage(*textMessage(*made.b, STP_BINARY, std::string(12 << 20, 'w')));
  set.insert(made.a.get());
  for (int step = 0; step < 2000 && far.texts.empty(); ++step) serviceFirst(10, set);
  EXPECT_EQ(far.texts.size(), 1u);
  closeListenSocket(listener, nullptr);
}

TEST(DescriptorReuse, IsNeitherServedByOldEventsNorDeaf) {
  for (int bits = 0; bits < 8; ++bits) {
    SCOPED_TRACE(bits);
    expectSound({(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0});
  }
}

}  // namespace
