#include "stp_transport/spec/stp_specclass.h"

#include "stp/pair.h"

namespace {

// A small spec written by hand: the same class serves both sides.
const char* const kTags[] = {"alpha", "beta", "gamma"};
const STPMessageEntry kReceives[] = {{"Ask", "alpha:%u4% ", 0, 0x02},
                                     {"Tell", "beta:%str% ", 1, 0x06}};
const STPMessageEntry kNewerReceives[] = {
    {"Ask", "alpha:%u4% ", 0, 0x02}, {"New", "gamma:%u1% ", 1, 0x02}, {"Tell", "", 2, 0x06}};
const STPMessageEntry kSends[] = {{"Ask", "alpha:%u4% ", 0, 0x02},
                                  {"Tell", "beta:%str% ", 1, 0x02}};

constexpr std::int32_t kVast = STP_MAX_PACKET_SIZE;

class Side : public STPSpecClass {
 public:
  Side() : STPSpecClass({"Small", "side", "9", 0, kTags, 3, kReceives, 2, kSends, 2}) {}
  // A version that takes one message more.
  explicit Side(const STPMessageEntry (&receives)[3])
      : STPSpecClass({"Small", "side", "10", 0, kTags, 3, receives, 3, kSends, 2}) {}
  std::vector<std::string> seen;
  std::function<void()> then;
  bool down = false;
  gen_text vast;  // what no reply can hold, added to each
  using STPSpecClass::callStubMessage;
  using STPSpecClass::deferredCount;
  using STPSpecClass::extraTable;
  using STPSpecClass::formatsFetched;
  using STPSpecClass::newStubMessage;
  using STPSpecClass::peerFlags;
  using STPSpecClass::refCount;
  using STPSpecClass::sendStubMessage;
  using STPSpecClass::sendTable;
  using STPSpecClass::tagMap;

 protected:
  std::int32_t defaultSourceRN() const override { return 2; }
  std::int32_t defaultDestinationRN() const override { return 1; }
  void virtualConnectionDown() override { down = true; }
  void handleBinaryMessage(STPReceivedMessage& message, STPMessage* reply,
                           std::uint32_t id) override {
    seen.push_back("binary " + std::to_string(id) + " " +
                   std::to_string(message.getU32(tagMap[0])));
    if (reply) reply->putU32(0, 5);
    if (reply && vast) reply->putArrayData(1, vast, kVast, 1);
    if (then) then();
  }
  void handleAsciiMessage(STPReceivedMessage& message, STPMessage*, std::uint32_t id) override {
    const gen_text word = message.readString("beta");
    seen.push_back("ascii " + std::to_string(id) + " " + (word ? word.get() : ""));
  }
  bool handleCommandMessage(STPReceivedMessage&, STPMessage*, std::uint32_t id,
                            std::uint32_t action) override {
    seen.push_back("command " + std::to_string(id) + " " + std::to_string(action));
    return true;
  }
};

class SpecClass : public testing::Test {
 protected:
  void attach(Side& side, Transport& transport, bool hub) {
    side.setTransport(transport.get(), hub ? 1 : 2, hub ? 2 : 1);
  }
  // What the peer says, as the record in `text`.
  void peerSays(const std::string& text) {
    pair = inProcessPair();
    attach(*near, pair.b, true);
    auto message = pair.a->newMessage(2, 1, STP_NEGOTIATION, STP_NEGOTIATE, STP_ONE_WAY);
    message->writeWord(text.c_str());
    pair.a->enqueueMessage(*message);
    pair.b->handleRead();
  }
  Pair pair;
  CountedPtr<Side> near = makeCounted<Side>();
};

TEST_F(SpecClass, MergesWhateverThePeerAnnounces) {
  peerSays(
      "name:other vstamp:\"7\" flags:0x1 tags:(0x4 )[ aaa alpha gamma zzz  ] "
      "msgs:(0x3 )[ { id:0x8 name:Ask flags:0x2  } { id:0x5 name:New flags:0x12 since:{ [ \"9\" ] "
      "} } "
      "{ id:0x2 name:Zed flags:0x1  }  ] ");
  EXPECT_TRUE(near->isNegotiated());
  EXPECT_STREQ(near->getPeerName(), "other");
  EXPECT_STREQ(near->getPeerVstamp(), "7");
  EXPECT_EQ(near->tagMap, (std::vector<std::int32_t>{1, -1, 2}));
  EXPECT_EQ(near->peerEntry("Ask")->id, 8u);
  EXPECT_EQ(near->peerEntry("Tell")->id, STP_NO_MESSAGE) << "the peer doesn't take it";
  EXPECT_EQ(near->peerEntry("New")->id, 5u);
  EXPECT_EQ(near->extraTable.size(), 2u);
  EXPECT_EQ(near->peerEntry("Ne"), nullptr);
  STPStatus status;
  EXPECT_TRUE(near->canSend(false, false, &status)) << "it takes any number";
  peerSays(
      "name:other flags:0x0 tags:(0xFFFFFFFF )[ beta ] msgs:(0x1 )[ { id:0x4 name:Tell  } "
      "{ id:0x6 name:Unread } ] ");
  EXPECT_EQ(near->tagMap, (std::vector<std::int32_t>{1, 0, 2})) << "merged over the first";
  EXPECT_EQ(near->peerEntry("Ask")->id, 8u);
  EXPECT_EQ(near->peerEntry("Tell")->id, 4u);
  EXPECT_EQ(near->peerEntry("Unread"), nullptr);
  EXPECT_FALSE(near->canSend(false, false, &status));
  EXPECT_EQ(status.code, STP_UNSUPPORTED);
}

TEST_F(SpecClass, TakesAGarbledRecordWithoutHarm) {
  for (const char* text :
       {"", "tags", "tags:", "tags:[ alpha ] ", "tags:(0x9999 )[ alpha", "msgs:(0x5 )[ { { { ",
        "msgs:(0x2 )[ alpha beta ] ", "tags:(0x2 ) msgs:(", "name:\"", "vstamp:\"\\"})
    peerSays(text);
  EXPECT_EQ(near->tagMap[1], -1);
  near = makeCounted<Side>();
  peerSays("name:silent ");
  EXPECT_EQ(near->peerEntry("Tell")->id, 1u) << "it says nothing of messages";
  peerSays("msgs:(0x0 )[  ] ");
  EXPECT_EQ(near->peerEntry("Tell")->id, STP_NO_MESSAGE) << "it takes none";
}

TEST_F(SpecClass, KeepsABoundedNumberOfForeignMessages) {
  std::string many = "msgs:(0x10002 )[ ";
  for (int i = 0; i < 0x10002; ++i) many += "{ id:0x1 name:n" + std::to_string(i) + "  } ";
  peerSays(many + "] ");
  EXPECT_EQ(near->extraTable.size(), 65536u);
  peerSays("msgs:(0x2 )[ { id:0x7 name:n8  } { id:0x7 name:n65536  }  ] ");
  EXPECT_EQ(near->peerEntry("n8")->id, 7u);
  EXPECT_EQ(near->peerEntry("n65536"), nullptr);
  near = makeCounted<Side>();
  for (const char letter : {'a', 'b', 'c'})
    peerSays("msgs:(0x1 )[ { id:0x1 name:" + std::string(3 << 20, letter) + "  }  ] ");
  EXPECT_EQ(near->extraTable.size(), 2u);
}

TEST_F(SpecClass, RefusesToSendBeforeItMay) {
  STPStatus status;
  near->sendNegotiate(true, nullptr, &status);
  EXPECT_STREQ(status.message, "[sendNegotiate]: cannot send with NULL transport");
  near->awaitTags(nullptr, &status);
  EXPECT_STREQ(status.message, "[awaitTags]: cannot receive tags on NULL transport");
  pair = socketPair();
  attach(*near, pair.b, true);
  EXPECT_FALSE(near->canSend(false, true, &status));
  EXPECT_STREQ(status.message, "Attempted send before negotiation is complete.");
  near->negotiateLocally();
  near->closeReceive();
  EXPECT_TRUE(near->canSend(false, true, &status));
  EXPECT_FALSE(near->canSend(true, true, &status));
  EXPECT_STREQ(status.message, "[send]: virtual connection is down");
  near->awaitTags(nullptr, &status);
  EXPECT_STREQ(status.message, "[awaitTags]: virtual connection is down");
  near->virtualConnectionClose();
  EXPECT_TRUE(near->down);
  near->sendNegotiate(true, nullptr, &status);
  EXPECT_STREQ(status.message, "[sendNegotiate]: virtual connection is down");
  pair.b->disconnect();
  STPRetryHandler retry(pair.b.get());
  const auto other = makeCounted<Side>();
  attach(*other, pair.a, false);
  other->awaitTags(&retry, &status);
  EXPECT_EQ(status.code, STP_TIMEOUT);
  EXPECT_EQ(near->messageId("Asks"), -1);
  EXPECT_EQ(near->messageId("Tellx", 4), 1);
  EXPECT_EQ(near->messageId("Te"), -1);
  EXPECT_STREQ(near->messageName(2), "");
}

// Serves the far side of a pair in one process while the near one waits.
class Pump : public STPRetryHandler {
 public:
  Pump(STPTransport* mine, STPTransport* others)
      : STPRetryHandler(mine, 1000000 + 100), own(*mine), other(*others) {}
  void wait() override {
    other.handleRead();
    own.serviceOnce(0);
  }
  STPTransport &own, &other;
};

class TwoSides : public SpecClass {
 protected:
  void SetUp() override {
    pair = inProcessPair();
    attach(*near, pair.a, true);
    attach(*far, pair.b, false);
  }
  CountedPtr<Side> far = makeCounted<Side>();
  STPStatus status;
};

TEST_F(TwoSides, NegotiateFetchFormatsAndMeet) {
  far = makeCounted<Side>(kNewerReceives);
  attach(*far, pair.b, false);
  Pump pump(pair.a.get(), pair.b.get());
  status.set(STP_FAILED, "from before");
  far->sendNegotiate(false, nullptr, &status);
  EXPECT_TRUE(status.good());
  near->negotiate(&pump, &status);
  EXPECT_TRUE(status.good());
  pair.b->handleRead();
  EXPECT_TRUE(far->isNegotiated());
  near->sendTable.edit()[0].fmt = nullptr;
  near->fetchFormats(&pump, &status);
  EXPECT_TRUE(near->formatsFetched);
  EXPECT_STREQ(near->peerEntry("Ask")->fmt, "alpha:%u4% ");
  EXPECT_STREQ(near->peerEntry("New")->fmt, "gamma:%u1% ") << "this side doesn't know it";
  for (int i = 0; i < 2; ++i) {
    Pump other(pair.b.get(), pair.a.get());
    far->awaitNegotiate(&other, &status);
    EXPECT_EQ(status.code, STP_TIMEOUT) << "nobody has said that he is ready";
    near->awaitNegotiate(&pump, &status);
    EXPECT_TRUE(status.good());
    far->awaitNegotiate(&other, &status);
    EXPECT_TRUE(status.good());
  }
}

TEST_F(TwoSides, AMessageByNameByNumberAndAsACommand) {
  near->negotiateLocally();
  const auto send = [&](std::uint32_t type, std::uint32_t id, const char* text,
                        std::uint32_t flags) {
    auto message = pair.a->newMessage(1, 2, type, id, flags);
    message->writeWord(text);
    return pair.a->enqueueMessage(*message);
  };
  send(STP_ASCII, STP_NO_MESSAGE, "Tell beta:\"b c\"", STP_ONE_WAY);
  send(STP_ASCII, STP_NO_MESSAGE, "Nobody beta:\"b\"", STP_ONE_WAY);
  send(STP_NEGOTIATION, 77, "", STP_ONE_WAY);
  pair.b->handleRead();
  EXPECT_EQ(far->seen, (std::vector<std::string>{"ascii 1 b c", "ascii 4294967295 b"}));
  Pump pump(pair.a.get(), pair.b.get());
  auto command = pair.a->newMessage(1, 2, STP_COMMAND, 3, STP_WANTS_RESPONSE);
  command->writeInt(0x21, "__action");
  const auto response = pair.a->awaitResponse(pair.a->sendMessage(*command, &pump), &pump);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->readInt("__ret"), 1u);
  EXPECT_EQ(far->seen.back(), "command 3 33");
}

// A message that may not run nested is put off and keeps the object alive until it has run.
TEST_F(TwoSides, WhatIsPutOffRunsOnce) {
  near->negotiateLocally();
  pair.b->enterCall(0x00010001, 1, 0);
  near->sendStubMessage(*near->newStubMessage(1, STP_ONE_WAY), false, nullptr, nullptr);
  const auto named = pair.a->newMessage(1, 2, STP_ASCII, STP_NO_MESSAGE, STP_IN_CHAIN_ONLY);
  named->writeWord("Nobody beta:\"b\"");
  pair.a->enqueueMessage(*named);
  pair.b->handleRead();
  EXPECT_TRUE(far->seen.empty());
  EXPECT_EQ(far->deferredCount, 2);
  EXPECT_EQ(far->refCount, 2);
  pair.b->leaveCall();
  EXPECT_TRUE(pair.b->hasDeliverable());
  pair.b->parseInput();
  EXPECT_EQ(far->seen, (std::vector<std::string>{"binary 1 0", "ascii 4294967295 b"}));
  EXPECT_EQ(far->deferredCount, 0);
  EXPECT_EQ(far->refCount, 1);
  // A call that holds others back is none of them, also where both ends are in this process.
  Pump pump(pair.a.get(), pair.b.get());
  const auto call = near->newStubMessage(0, STP_WANTS_RESPONSE | STP_HOLD_OTHERS);
  EXPECT_TRUE(near->callStubMessage(*call, &pump, &status));
  pair.b->enterCall(0x00010001, 1, 0);
  near->sendStubMessage(*near->newStubMessage(1, STP_ONE_WAY), false, nullptr, nullptr);
  pair.b->handleRead();
  EXPECT_EQ(far->refCount, 2);
  pair.b->disconnect();
  EXPECT_EQ(far->refCount, 1) << "it may never run";
  pair.b->leaveCall();
}

TEST_F(TwoSides, AReplyThatIsTooLargeComesEmpty) {
  near->negotiateLocally();
  far->vast = gen_text(static_cast<char*>(gen_alloc(kVast, 1)));
  Pump pump(pair.a.get(), pair.b.get());
  testing::internal::CaptureStderr();
  const auto response =
      near->callStubMessage(*near->newStubMessage(0, STP_WANTS_RESPONSE), &pump, &status);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("too large"), std::string::npos);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->getU32(0), 0u);
}

// What may run in a chain only runs as the call that it is, however the two ends were joined.
TEST_F(TwoSides, ACallRunsOverAPairThatWasJoinedByItsFields) {
  pair = notifiedPair();
  attach(*near, pair.a, true);
  attach(*far, pair.b, false);
  near->negotiateLocally();
  STPRetryHandler retry(pair.a.get(), 1000000 + 100);
  EXPECT_TRUE(near->callStubMessage(*near->newStubMessage(1, STP_WANTS_RESPONSE), &retry, &status));
  status.set(STP_FAILED, "from before");
  near->sendStubMessage(*near->newStubMessage(1, STP_ONE_WAY), false, nullptr, &status);
  EXPECT_TRUE(status.good());
  pair.b->disconnect();
  far->setTransport(nullptr);
  near->callStubMessage(*near->newStubMessage(1, STP_WANTS_RESPONSE), &retry, &status);
  EXPECT_EQ(status.code, STP_PEER_CLOSED);
}

// A time-out is told only where nothing else is known.
TEST_F(TwoSides, WaitsTellTheFailureThatTheyKnow) {
  pair = socketPair();
  attach(*near, pair.a, true);
  STPRetryHandler retry(pair.a.get());
  TimeoutSTPRetryHandler noTime(pair.a.get(), 0);
  pair.a->enqueueMessage(*pair.a->newMessage(2, 1, 0, 0, 0));
  near->awaitTags(&noTime, &status);
  EXPECT_EQ(status.code, STP_TIMEOUT) << "what failed before has left the connection up";
  pair.b->disconnect();
  near->awaitTags(&retry, &status);
  EXPECT_EQ(status.code, STP_PEER_CLOSED);
  near->negotiateLocally();
  near->awaitNegotiate(&retry, &status);
  EXPECT_EQ(status.code, STP_PEER_CLOSED);
  pair = socketPair();
  attach(*near, pair.a, true);
  pair.a->disconnect();
  STPRetryHandler other(pair.a.get());
  near->awaitNegotiate(&other, &status);
  EXPECT_STREQ(status.message, "[serviceOnce]: not bound and not listening.");
}

TEST_F(TwoSides, ACallFailsAtOnceWhenTheVirtualConnectionGoes) {
  near->negotiateLocally();
  far->then = [&] {
    near->virtualConnectionClose();
    far.reset();  // the last outside reference, from within its own handler
  };
  Pump pump(pair.a.get(), pair.b.get());
  const auto call = near->newStubMessage(0, STP_WANTS_RESPONSE);
  const auto response = near->callStubMessage(*call, &pump, &status);
  EXPECT_TRUE(!response || status.good());
  EXPECT_EQ(stpProcess().messageDepth, 0);
  EXPECT_EQ(near->getBusy(), 0);
}

// Neither the end of the virtual connection nor a change of transport strands a wait.
TEST_F(TwoSides, AWaitEndsWithItsVirtualConnectionOrTransport) {
  far->then = [&] { near->virtualConnectionClose(); };
  far->negotiateLocally();
  near->negotiateLocally();
  near->sendStubMessage(*near->newStubMessage(0, STP_ONE_WAY), false, nullptr, nullptr);
  Pump pump(pair.a.get(), pair.b.get());
  near->awaitNegotiate(&pump, &status);
  EXPECT_EQ(status.code, STP_FAILED);
  EXPECT_STREQ(status.message, "[send]: virtual connection is down");

  // The object's own retry handler is replaced while a call waits under it.
  const auto caller = makeCounted<Side>();
  pair = inProcessPair();
  attach(*caller, pair.a, true);
  attach(*far, pair.b, false);
  caller->negotiateLocally();
  caller->setRetryHandler(new Pump(pair.a.get(), pair.b.get()));
  far->then = [&] {
    caller->setRetryHandler(new STPRetryHandler());
    pair.a->disconnect();
  };
  const auto call = caller->newStubMessage(0, STP_WANTS_RESPONSE);
  EXPECT_FALSE(caller->callStubMessage(*call, nullptr, &status));
  EXPECT_FALSE(status.good());
}

TEST(SharedTable, HoldsEqualTablesOnceUntilOneChanges) {
  STPSharedTable<std::int32_t> a({1, 2}), b({1, 2}), other({2, 1});
  for (auto* table : {&a, &b, &other}) table->share();
  EXPECT_EQ(&a[0], &b[0]);
  EXPECT_NE(&a[0], &other[0]);
  b.edit()[0] = 5;
  EXPECT_EQ(a, (std::vector<std::int32_t>{1, 2}));
  EXPECT_EQ(b, (std::vector<std::int32_t>{5, 2}));
}

}  // namespace
