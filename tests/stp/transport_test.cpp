#include <cstring>

#include "stp/pair.h"

namespace {

std::vector<unsigned char> drain(STPTransport& transport) {
  std::int64_t *offset, *count, *capacity;
  unsigned char** buffer;
  transport.inProcessEndpoints(&offset, &count, &capacity, &buffer);
  std::vector<unsigned char> bytes(*buffer + *offset, *buffer + *offset + *count);
  *count = *offset = 0;
  return bytes;
}

// Puts bytes into the buffer where the other side finds what has been written.
void feed(STPTransport& transport, const unsigned char* bytes, std::size_t size) {
  std::int64_t *offset, *count, *capacity;
  unsigned char** buffer;
  transport.inProcessEndpoints(&offset, &count, &capacity, &buffer);
  std::memcpy(*buffer, bytes, size);
  *count = static_cast<std::int64_t>(size);
}

TEST(Transport, NumbersPacketsFromTwoAndRefusesTypeZero) {
  const Transport transport = makeCounted<STPTransport>();
  EXPECT_EQ(transport->enqueueMessage(*transport->newMessage(3, 7, 0, 0, 0)), 0u);
  EXPECT_STREQ(transport->status().message, "[enqueueMessage]: invalid message header");
  EXPECT_EQ(transport->status().code, STP_MISUSE);
  EXPECT_EQ(transport->writeCount(), 0);
  EXPECT_FALSE(transport->lastQueued(nullptr, nullptr));
  EXPECT_EQ(transport->enqueueMessage(*transport->newMessage(3, 7, STP_SYNC, 0, 0)), 2u);
  const std::vector<unsigned char> expected{0x2C, 0, 0, 0, 4, 0, 0, 0, 3, 0, 0, 0, 7, 0, 0, 0,
                                            2,    0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0,
                                            0,    0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(drain(*transport), expected);
  EXPECT_FALSE(transport->isWritePending()) << "a closed transport has nothing to write to";
  EXPECT_EQ(stpNextSequence(UINT32_MAX), 1u);
  EXPECT_EQ(stpNextSequence(UINT32_MAX - 1), UINT32_MAX);
}

TEST(Transport, SendsTheLargestPacketThatReceiversTake) {
  constexpr std::int64_t kLargest = STP_MAX_PACKET_SIZE - STP_END_WORD_SIZE;
  EXPECT_TRUE(stpFitsPacket(kLargest));
  EXPECT_FALSE(stpFitsPacket(kLargest + 1));
  unsigned char sizes[8];
  const auto stateOf = [&](std::int64_t size) {
    stpWriteWord(sizes, STP_HEADER_SIZE);
    stpWriteWord(sizes + 4, static_cast<std::uint32_t>(size - STP_HEADER_SIZE));
    return stpTestPacket(sizes, sizeof sizes).state;
  };
  EXPECT_EQ(stateOf(STP_MAX_PACKET_SIZE), STPPacketState::incomplete);
  EXPECT_EQ(stateOf(STP_MAX_PACKET_SIZE + 1), STPPacketState::invalid);
}

// Every state guard, and that a refused call changes nothing.
TEST(Transport, GuardsItsStates) {
  std::uint16_t port = 0;
  STPStatus status;
  const int listener = getFreeListenSocket(&port, &status, true);
  Pair pair = socketPair();
  const Transport listening = makeCounted<STPTransport>();
  listening->startListenOnFD(listener);
  const auto refused = [&](const char* text) {
    EXPECT_EQ(status.code, STP_MISUSE);
    EXPECT_STREQ(status.message, text);
  };
  const std::pair<Transport, std::string> busy[] = {{pair.a, ": Already connected"},
                                                    {listening, ": Already listening as server"}};
  for (const auto& [end, why] : busy) {
    end->connect("127.0.0.1", port, &status), refused(("[connect]" + why).c_str());
    end->listen(port, nullptr, &status), refused(("[listen]" + why).c_str());
    end->startListenOnFD(listener, &status), refused(("[startListenOnFD]" + why).c_str());
  }
  pair.a->bindFD(listener, &status), refused("[bindFD]: Already bound");
  listening->bindFD(listener, &status), refused("[bindFD]: Already listening");
  EXPECT_FALSE(pair.a->tryAccept(false, &status));
  refused("[tryAccept]: Already connected");
  pair.b->disconnect();
  EXPECT_FALSE(pair.b->tryAccept(false, &status));
  refused("[tryAccept]: Not listening as server");
  EXPECT_FALSE(listening->tryAccept(false, &status));
  EXPECT_TRUE(status.good()) << "nobody being there is no failure, nor is what failed before";
  EXPECT_TRUE(listening->isListening());
  pair.b->serviceOnce(0, &status);
  EXPECT_STREQ(status.message, "[serviceOnce]: not bound and not listening.");
  serviceFirst(0, {pair.a.get(), pair.b.get()}, &status);
  EXPECT_STREQ(status.message, "[serviceFirst]: not bound and not listening.");
  pair.b->bindFD(99999);
  pair.b->serviceOnce(-1, &status);
  EXPECT_STREQ(status.message, "[handleRead]: read failed, closing connection");
  EXPECT_EQ(getListenSocket(port, &status), 0);
  EXPECT_STREQ(status.message, "[getListenSocket]: Could not bind to port");
  listening->disconnect();
  EXPECT_TRUE(listening->isListening());
  closeListenSocket(listener, &status);
  pair.b->connect("127.0.0.1", port, &status);
  EXPECT_STREQ(status.message, "[ConnectToServer]: connection refused");
  pair.b->connect("no-such-host.invalid", port, &status);
  EXPECT_STREQ(status.message, "[connectToServer]: Unable to resolve host");
}

// Large messages grow the buffers only while they are needed.
TEST(Transport, BuffersGoBackAfterLargeMessages) {
  const Pair pair = socketPair();
  Recorder recorder;
  pair.b->addListener(2, 1, &recorder, STP_BINARY);
  const std::string large(3 << 20, 'x');
  pair.a->enqueueMessage(*textMessage(*pair.a, STP_BINARY, large));
  EXPECT_GT(pair.a->writeCapacity(), 3 << 20);
  while (recorder.texts.empty()) {
    pair.a->handleWrite();
    pair.b->serviceOnce(1000);
  }
  EXPECT_EQ(recorder.texts.front(), large);
  EXPECT_EQ(pair.a->writeCapacity(), 0);
  EXPECT_LE(pair.b->readCapacity(), STP_LARGE_BLOCK);
}

// What a peer has sent before it went is delivered, also when it takes nothing any more.
TEST(Transport, LastWordsArriveAfterAFailedWrite) {
  const Pair pair = socketPair();
  Recorder recorder;
  pair.b->addListener(2, 1, &recorder, STP_BINARY);
  // Unread bytes at the other end turn its close into a reset.
  pair.b->enqueueMessage(*textMessage(*pair.b, STP_BINARY, "never read"));
  pair.b->handleWrite();
  for (int i = 0; i < 100; ++i)
    pair.a->enqueueMessage(*textMessage(*pair.a, STP_BINARY, "word " + std::to_string(i)));
  pair.a->handleWrite();
  pair.a->disconnect();
  pair.b->enqueueMessage(*textMessage(*pair.b, STP_BINARY, std::string(1 << 20, 'y')));
  recorder.then = [&](STPReceivedMessage&) {
    pair.b->enqueueMessage(*textMessage(*pair.b, STP_BINARY, std::string(1 << 20, 'z')));
    EXPECT_LT(pair.b->writeCapacity(), 8 << 20) << "what can't leave isn't kept";
  };
  STPStatus status;
  while (pair.b->isConnected()) pair.b->serviceOnce(1000, &status);
  ASSERT_EQ(recorder.texts.size(), 100u);
  EXPECT_EQ(recorder.texts.back(), "word 99");
  EXPECT_FALSE(status.good());
}

struct ForwardAll : ForwardingHandler {
  STPTransport* target = nullptr;
  STPTransport* other = nullptr;  // of RNs from 20 on
  STPTransport* forwardTarget(std::int32_t rn) override {
    return rn >= 20 ? other : rn >= 10 ? target : nullptr;
  }
};

TEST(Transport, ForwardsByteForByteAndKeepsWhatNobodyOwns) {
  const Pair in = inProcessPair(), out = inProcessPair();
  ForwardAll forward;
  forward.target = out.a.get();
  in.b->setForwardingHandler(&forward);
  auto far = in.a->newMessage(11, 10, STP_BINARY, 3, 0x77);
  far->putString(1, "for somebody else");
  in.a->enqueueMessage(*far);
  auto bytes = drain(*in.a);
  // A byte less of payload, so that the last one is fill, which isn't passed on as it came.
  --bytes[4];
  bytes.back() = 0xEE;
  feed(*in.a, bytes.data(), bytes.size());
  bytes.back() = 0;
  Recorder recorder;
  in.b->addListener(2, 1, &recorder, STP_BINARY);
  in.a->enqueueMessage(*textMessage(*in.a, STP_BINARY, "for the link"));
  in.b->handleRead();
  EXPECT_EQ(drain(*out.a), bytes);
  EXPECT_EQ(recorder.texts, std::vector<std::string>{"for the link"});
}

// Packets that come in one piece and go to several receivers in turn.
TEST(Transport, ForwardsEachPacketOfARowToItsOwner) {
  const Pair in = inProcessPair(), out = inProcessPair(), side = inProcessPair();
  ForwardAll forward;
  forward.target = out.a.get();
  forward.other = side.a.get();
  in.b->setForwardingHandler(&forward);
  std::vector<unsigned char> row, expected, aside;
  for (const std::int32_t rn : {10, 20, 10, 10, 11, 20, 20, 10}) {
    in.a->enqueueMessage(*in.a->newMessage(12, rn, STP_BINARY, 3, 0x77));
    const auto bytes = drain(*in.a);
    auto& owner = rn < 20 ? expected : aside;
    owner.insert(owner.end(), bytes.begin(), bytes.end());
    row.insert(row.end(), bytes.begin(), bytes.end());
  }
  feed(*in.a, row.data(), row.size());
  in.b->handleRead();
  EXPECT_EQ(drain(*out.a), expected);
  EXPECT_EQ(drain(*side.a), aside);
}

TEST(Transport, PairsInOneProcessOutliveEachOther) {
  Pair pair = inProcessPair();
  STPTransport::Notify pump = nullptr;
  std::uintptr_t argument = 0;
  STPTransport::pumpFor(pair.b.get(), &pump, &argument);
  Recorder recorder;
  pair.b->addListener(2, 1, &recorder, STP_BINARY);
  pair.a->enqueueMessage(*textMessage(*pair.a, STP_BINARY, "hello"));
  pump(argument);
  EXPECT_EQ(recorder.texts, std::vector<std::string>{"hello"});
  pair.b->disconnect();
  STPStatus status;
  pair.a->handleRead(&status);
  EXPECT_EQ(status.code, STP_PEER_CLOSED);
  EXPECT_FALSE(pair.a->isInProcess() || pair.b->isInProcess()) << "free for a socket";
  pair.b.reset();
  pump(argument);
}

TEST(Transport, AHandlerMayEndEveryTransportOfAStep) {
  Pair one = socketPair(), two = socketPair();
  STPTransportSet set{one.b.get(), two.b.get()};
  Recorder recorder;
  recorder.then = [&](STPReceivedMessage&) {
    set.clear();
    one.b.reset(), two.b.reset();
  };
  for (const Pair* pair : {&one, &two}) {
    pair->b->addListener(2, 1, &recorder, STP_BINARY);
    pair->a->enqueueMessage(*textMessage(*pair->a, STP_BINARY, "go"));
    pair->a->handleWrite();
  }
  while (!set.empty()) serviceFirst(1000, set);
  EXPECT_EQ(recorder.texts.size(), 1u);
}

// What stands from before is no failure of a message that the other side has been told of.
TEST(Transport, NotifiedPairsSendInSpiteOfAnOldFailure) {
  const auto [a, b] = notifiedPair();
  Recorder recorder;
  b->addListener(2, 1, &recorder, STP_BINARY);
  a->enqueueMessage(*a->newMessage(2, 1, 0, 0, 0));
  EXPECT_EQ(a->sendMessage(*textMessage(*a, STP_BINARY, "hello"), nullptr), 2u);
  EXPECT_EQ(recorder.texts, std::vector<std::string>{"hello"});
}

}  // namespace
