#include "platform/clock.h"
#include "platform/readiness.h"
#include "stp/pair.h"
#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/transport/stp_channel.h"
#include "stp_transport/transport/stp_delivery.h"

namespace {

// Gives up after a number of waits, and serves both ends of a pair in one process meanwhile.
struct PumpBoth : RetryHandler {
  PumpBoth(const Transport& mine, const Transport& others) : own(*mine), other(*others) {}
  bool shouldRetry() override { return RetryHandler::shouldRetry() && ++rounds < 20; }
  void wait() override {
    other.handleRead();
    own.serviceOnce(0);
  }
  STPTransport &own, &other;
  int rounds = 0;
};

// An empty packet from RN 2, or another, to 1.
STPDelivery::Message incoming(std::uint32_t flags, std::uint32_t chain, std::uint32_t depth,
                              std::uint32_t responseTo = 0, std::int32_t source = 2) {
  unsigned char packet[STP_HEADER_SIZE];
  STPHeader header;
  header.headerSize = STP_HEADER_SIZE;
  header.sourceRN = source;
  header.destinationRN = 1;
  header.type = STP_BINARY;
  header.flags = flags;
  header.chain = chain;
  header.depth = depth;
  header.responseTo = responseTo;
  stpWriteHeader(packet, header);
  return std::make_unique<STPReceivedMessage>(packet, STP_HEADER_SIZE, 0);
}

// One that can be told from others by its sequence number.
STPDelivery::Message arrival(std::uint32_t sequence, std::uint32_t responseTo = 0,
                             std::uint32_t depth = 0) {
  auto message = incoming(0, 0, depth, responseTo);
  message->header.sequence = sequence;
  return message;
}

TEST(Delivery, DecidesByDepthFlagsAndChain) {
  STPDelivery delivery;
  STPProcessState& process = stpProcess();
  const auto may = [&](std::uint32_t flags, std::uint32_t chain, std::uint32_t depth,
                       std::uint32_t responseTo = 0) {
    return delivery.canDeliver(*incoming(flags, chain, depth, responseTo));
  };
  EXPECT_TRUE(may(STP_IN_CHAIN_ONLY, 99, 1)) << "nobody is in a call";
  delivery.enterCall(0x00050002, 1, STP_HOLD_OTHERS);
  EXPECT_TRUE(may(0, 99, 1)) << "by default a message runs nested";
  EXPECT_FALSE(may(STP_IN_CHAIN_ONLY, 0x00050003, 2)) << "another chain";
  EXPECT_FALSE(may(STP_IN_CHAIN_ONLY, 0x00060002, 2)) << "another site";
  EXPECT_FALSE(may(STP_IN_CHAIN_ONLY, 0x00050002, 1)) << "not deeper";
  EXPECT_TRUE(may(STP_IN_CHAIN_ONLY, 0x00050002, 2)) << "called back";
  EXPECT_TRUE(may(STP_IN_CHAIN_ONLY, 0x00050002, 0x10002)) << "only the low half counts";
  process.holdDepth = 1;
  EXPECT_FALSE(may(0, 99, 1)) << "held back";
  EXPECT_TRUE(may(STP_ANY_TIME, 99, 1));
  EXPECT_TRUE(may(STP_IN_CHAIN_ONLY, 99, 1, 77)) << "responses always go through";
  {
    const STPDepthGuard sending(process.sendDepth);
    EXPECT_FALSE(may(STP_ANY_TIME, 99, 1, 77)) << "a write is on the stack";
  }
  process.holdDepth = 0;
  // A response at depth 2 from this sender has arrived and goes first, while its call is open.
  delivery.expect(8);
  delivery.dispatch(arrival(1, 8, 2));
  EXPECT_FALSE(may(STP_ANY_TIME, 0x00050002, 2));
  EXPECT_TRUE(delivery.canDeliver(*incoming(STP_ANY_TIME, 0x00050002, 2, 0, 3)));
  EXPECT_TRUE(delivery.takeResponse(8));
  delivery.dispatch(arrival(2, 8, 2));
  delivery.giveUp(8);
  EXPECT_TRUE(may(STP_ANY_TIME, 0x00050002, 2)) << "nobody collects what came too late";
  // The other end is blocked on this very message.
  STPDelivery other;
  delivery.setOtherEnd(&other);
  const auto own = arrival(9);
  own->header.flags = STP_IN_CHAIN_ONLY;
  EXPECT_FALSE(delivery.canDeliver(*own));
  other.expect(9);
  EXPECT_TRUE(delivery.canDeliver(*own));
  delivery.leaveCall();
}

TEST(Delivery, ChainsRequestsAndResponses) {
  const Transport transport = makeCounted<STPTransport>();
  transport->setChainSite(3);
  EXPECT_EQ(transport->newMessage(2, 1, STP_BINARY, 0, 0)->header.chain, 0x00030002u);
  transport->enterCall(0x00040009, 5, 0);
  const auto request = transport->newMessage(2, 1, STP_BINARY, 0, 0);
  EXPECT_EQ(request->header.chain, 0x00040009u);
  EXPECT_EQ(request->header.depth, 6u);
  const auto response = transport->newResponse(2, 1, 8, 0);
  EXPECT_EQ(response->header.depth, 5u);
  EXPECT_EQ(response->header.type, STP_RESPONSE);
  transport->leaveCall();
  EXPECT_EXIT(transport->leaveCall(), testing::ExitedWithCode(1), "negative message depth!");
}

TEST(Delivery, ListenersComeAndGoWhileTheyAreCalled) {
  STPDelivery delivery;
  Recorder first, second, third;
  first.then = [&](STPReceivedMessage&) { delivery.removeListener(&second); };
  for (Recorder* listener : {&first, &second, &third})
    delivery.addListener(2, 1, listener, STP_BINARY);
  delivery.addListener(2, 1, nullptr, STP_BINARY);
  delivery.dispatch(arrival(5));
  EXPECT_EQ(first.texts.size(), 1u);
  EXPECT_TRUE(second.texts.empty());
  EXPECT_EQ(third.exclusives, std::vector<bool>{false});
}

TEST(Delivery, KeepsWhatComesEarlyAndWhatIsRefused) {
  STPDelivery delivery;
  Recorder recorder;
  delivery.dispatch(arrival(1));
  EXPECT_FALSE(delivery.redispatchUnclaimed(2, 1, STP_ASCII));
  delivery.addListener(2, 1, &recorder, STP_BINARY);
  EXPECT_TRUE(delivery.redispatchUnclaimed(2, 1, STP_BINARY));
  recorder.refuse = true;
  for (const std::uint32_t sequence : {2u, 3u}) delivery.dispatch(arrival(sequence));
  EXPECT_TRUE(delivery.hasDeliverable());
  delivery.retryDeferred();  // refused again, and the call ends all the same
  struct Told : ResponseListener {
    bool handleMessage(STPReceivedMessage&, bool) override { return true; }
    void connectionEnded() override { owner->removeListener(this), ++count; }
    STPDelivery* owner = nullptr;
    int count = 0;
  } told;
  told.owner = &delivery;
  for (const std::int32_t source : {1, 3}) delivery.addListener(source, 1, &told, STP_BINARY);
  delivery.connectionEnded();
  EXPECT_EQ(told.count, 1);
  recorder.refuse = false;
  delivery.retryDeferred();
  std::vector<std::uint32_t> sequences;
  for (const STPHeader& header : recorder.headers) sequences.push_back(header.sequence);
  EXPECT_EQ(sequences, (std::vector<std::uint32_t>{1, 2, 3}));
  EXPECT_FALSE(delivery.hasDeferred());
}

// No flood of what nobody waits for takes the answer away, nor does it stay.
TEST(Delivery, DropsStraysAndNoAnswer) {
  STPDelivery delivery;
  delivery.expect(8);
  delivery.dispatch(arrival(1, 8));
  for (std::uint32_t i = 0; i < 5000; ++i) delivery.dispatch(arrival(i, i ? 77 : 76));
  EXPECT_TRUE(delivery.takeResponse(8));
  EXPECT_FALSE(delivery.takeResponse(76)) << "the oldest goes first";
  EXPECT_TRUE(delivery.takeResponse(77));
  delivery.connectionEnded();
  EXPECT_FALSE(delivery.takeResponse(77));
}

// The other side calls back in the chain before it answers; an unrelated message waits.
TEST(Delivery, AWaitRunsItsOwnChainAndHoldsBackTheRest) {
  const Pair pair = inProcessPair();
  Recorder server;
  pair.b->addListener(2, 1, &server, STP_BINARY);
  std::vector<std::string> order;
  struct Guarded : ResponseListener {
    Guarded(STPTransport& end, std::vector<std::string>& list) : transport(end), order(list) {}
    bool handleMessage(STPReceivedMessage& message, bool) override {
      if (!transport.canDeliver(message)) return false;
      order.push_back(message.getString(1).get());
      return true;
    }
    STPTransport& transport;
    std::vector<std::string>& order;
  } guarded(*pair.a, order);
  pair.a->addListener(1, 2, &guarded, STP_BINARY);
  server.then = [&](STPReceivedMessage& request) {
    const auto send = [&](const char* text, std::uint32_t chain, std::uint32_t flags) {
      auto message = pair.b->newMessage(1, 2, STP_BINARY, 1, flags | STP_ONE_WAY);
      message->putString(1, text);
      message->header.chain = chain;
      message->header.depth = request.header.depth + 1;
      pair.b->enqueueMessage(*message);
    };
    send("unrelated", request.header.chain + 1, STP_IN_CHAIN_ONLY);
    send("callback", request.header.chain, STP_IN_CHAIN_ONLY);
    auto response = pair.b->newResponse(1, 2, request.header.sequence, 0);
    response->putString(1, "answer");
    pair.b->enqueueMessage(*response);
  };
  PumpBoth pump(pair.a, pair.b);
  const auto request = textMessage(*pair.a, STP_BINARY, "question", STP_WANTS_RESPONSE);
  const std::uint32_t sequence = pair.a->sendMessage(*request, &pump);
  EXPECT_EQ(stpProcess().messageDepth, 1);
  const auto response = pair.a->awaitResponse(sequence, &pump);
  ASSERT_TRUE(response);
  EXPECT_STREQ(response->getString(1), "answer");
  EXPECT_EQ(order, std::vector<std::string>{"callback"});
  EXPECT_EQ(stpProcess().messageDepth, 0);
  pair.a->serviceOnce(0);
  pair.a->parseInput();
  EXPECT_EQ(order, (std::vector<std::string>{"callback", "unrelated"}));
}

TEST(Delivery, WaitsEndByTimeFailureOrTheEndOfTheConnection) {
  STPStatus status;
  Pair pair = inProcessPair();
  PumpBoth pump(pair.a, pair.b);
  const auto ask = [&](RetryHandler* retry) {
    const auto question = textMessage(*pair.a, STP_BINARY, "q", STP_WANTS_RESPONSE);
    return pair.a->awaitResponse(pair.a->sendMessage(*question, retry), retry, &status);
  };
  EXPECT_FALSE(ask(&pump));
  EXPECT_EQ(status.code, STP_TIMEOUT);
  EXPECT_FALSE(pair.a->awaitResponse(0, nullptr, &status)) << "what a failed send returned";
  EXPECT_EQ(stpProcess().messageDepth, 0);
  pair = socketPair();
  STPRetryHandler handler(pair.a.get());
  const auto question = textMessage(*pair.a, STP_BINARY, "q", STP_WANTS_RESPONSE);
  const std::uint32_t sequence = pair.a->sendMessage(*question, &handler);
  pair.b->disconnect();
  EXPECT_FALSE(pair.a->awaitResponse(sequence, &handler, &status));
  EXPECT_NE(status.code, STP_OK);
  EXPECT_NE(status.code, STP_TIMEOUT);
  EXPECT_EQ(stpProcess().messageDepth, 0);
}

TEST(Channel, OpensStartsAndClosesOnBothSides) {
  const Pair pair = inProcessPair();
  STPStatus status;
  PumpBoth pumpA(pair.a, pair.b);
  EXPECT_EQ(pair.a->createChannel(20, 30, &pumpA, &status), nullptr);
  EXPECT_STREQ(status.message,
               "[createChannel]: reached timeout while waiting to receive create ack");
  PumpBoth pumpB(pair.b, pair.a);
  // The create that was given up has reached the other side, which now finds the channel there.
  const std::unique_ptr<STPChannel> b(pair.b->createChannel(30, 20, &pumpB, &status));
  ASSERT_TRUE(b);
  EXPECT_TRUE(status.good());
  EXPECT_EQ(pair.b->createChannel(30, 20, &pumpB, &status), nullptr);
  EXPECT_STREQ(status.message, "[createChannel]: Tried to create channel that exists");
  PumpBoth again(pair.a, pair.b);
  const std::unique_ptr<STPChannel> a(pair.a->createChannel(20, 30, &again, &status));
  ASSERT_TRUE(a);
  PumpBoth shortPump(pair.a, pair.b);
  a->startChannel(&shortPump, &status);
  EXPECT_STREQ(status.message, "[startChannel]: reached timeout while waiting to receive start");
  PumpBoth startB(pair.b, pair.a);
  b->startChannel(&startB, &status);
  EXPECT_TRUE(b->isStarted());
  EXPECT_TRUE(status.good());
  a->startChannel(nullptr, &status);
  EXPECT_STREQ(status.message, "[startChannel]: Channel start already sent.");
  b->closeChannel(nullptr, &status);
  EXPECT_TRUE(status.good());
  b->closeChannel(nullptr, &status);
  EXPECT_STREQ(status.message, "[startChannel]: Channel already closed.");
  pair.a->handleRead();
  EXPECT_TRUE(a->isClosed());
}

TEST(RetryHandlers, GiveUpWithTheirTransport) {
  EXPECT_FALSE(STPRetryHandler().shouldRetry());
  const Pair pair = socketPair();
  TimeoutSTPRetryHandler timed(pair.a.get(), 30000);
  timed.start();
  EXPECT_TRUE(timed.shouldRetry());
  pair.a->disconnect();
  EXPECT_FALSE(timed.shouldRetry());
  EXPECT_EQ(timed.limit(), 30000);
  EXPECT_EQ(TimeoutSTPRetryHandler(nullptr, INT32_MAX).limit(), INT32_MAX);
}

TEST(RetryHandlers, WithoutTimeGiveUpAtOnce) {
  const Pair pair = socketPair();
  // As though it were another process: what reaches it ends no wait of this one.
  platform::readiness().forget(pair.b->fileDescriptor());
  const std::uint64_t start = platform::monotonicMilliseconds();
  for (const int milliseconds : {0, -1, INT32_MIN}) {
    TimeoutSTPRetryHandler retry(pair.a.get(), milliseconds);
    STPStatus status;
    pair.a->awaitSync(2, 1, &retry, &status);
    EXPECT_EQ(status.code, STP_TIMEOUT);
    const auto question = textMessage(*pair.a, STP_BINARY, "q", STP_WANTS_RESPONSE);
    pair.a->awaitResponse(pair.a->sendMessage(*question, &retry), &retry, &status);
    EXPECT_EQ(status.code, STP_TIMEOUT);
  }
  EXPECT_LT(platform::monotonicMilliseconds() - start, STP_WAIT_STEP / 2u);
}

// A wait for what is there already ends as soon as its own packet has left.
TEST(Channel, WaitsNoLongerThanItsOwnPacket) {
  const Pair pair = socketPair();
  for (const auto& [type, id] : {std::pair(STP_SYNC, 0u), {STP_CHANNEL, STP_CHANNEL_CREATE}})
    pair.b->enqueueMessage(*pair.b->newMessage(30, 20, type, id, 0));
  pair.b->handleWrite();
  pair.a->serviceOnce(1000);
  // As though it were another process: what reaches it ends no wait of this one.
  platform::readiness().forget(pair.b->fileDescriptor());
  const std::uint64_t start = platform::monotonicMilliseconds();
  pair.a->awaitSync(20, 30, nullptr);
  const std::unique_ptr<STPChannel> channel(pair.a->createChannel(20, 30, nullptr));
  channel->closeChannel(nullptr);
  EXPECT_TRUE(channel->status().good());
  EXPECT_LT(platform::monotonicMilliseconds() - start, STP_WAIT_STEP / 2u);
}

}  // namespace
