// What the transport room costs by itself, in one process and without a socket.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "stp_transport/message/stp_message.h"
#include "stp_transport/message/stp_received_message.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_transport.h"
#include "stp_transport/wire/stp_wire.h"

namespace {

constexpr std::int32_t kSource = 10;
constexpr std::int32_t kDestination = 11;
constexpr int kBurst = 64;

// The fields of a message of usual size.
void putFields(STPMessage& message) {
  message.putString(1, "a service of some name");
  message.putU32(2, 4711);
  message.putU32(3, 17);
  message.putU8(4, 1);
  message.finishMessage(2);
}

void packetTest(benchmark::State& state) {
  STPMessage message;
  putFields(message);
  for (auto _ : state) {
    const unsigned char* bytes = message.storage();
    benchmark::DoNotOptimize(bytes);
    benchmark::DoNotOptimize(stpTestPacket(bytes, message.cursorOffset()));
  }
}
BENCHMARK(packetTest);

void buildMessage(benchmark::State& state) {
  for (auto _ : state) {
    STPMessage message;
    putFields(message);
    benchmark::DoNotOptimize(message.storage());
  }
}
BENCHMARK(buildMessage);

void readMessage(benchmark::State& state) {
  STPMessage message;
  putFields(message);
  for (auto _ : state) {
    STPReceivedMessage received(message.storage(), message.header.headerSize,
                                message.header.payloadSize);
    benchmark::DoNotOptimize(received.getStringView(1));
    benchmark::DoNotOptimize(received.getU32(2));
    benchmark::DoNotOptimize(received.getU32(3));
    benchmark::DoNotOptimize(received.getU8(4));
  }
}
BENCHMARK(readMessage);

// Sends everything on to one transport.
class ToOne : public ForwardingHandler {
 public:
  explicit ToOne(STPTransport* target) : target_(target) {}
  STPTransport* forwardTarget(std::int32_t) override { return target_; }

 private:
  STPTransport* target_;
};

// Two transports of one process.
struct Pair {
  Pair() {
    STPTransport *a = nullptr, *b = nullptr;
    STPTransport::createInProcessPair(&a, &b);
    near = CountedPtr<STPTransport>::adopt(a);
    far = CountedPtr<STPTransport>::adopt(b);
  }
  CountedPtr<STPTransport> near, far;
};

// What an in-process end has written and the other hasn't read.
struct WriteFields {
  explicit WriteFields(STPTransport& transport) {
    transport.inProcessEndpoints(&offset, &count, &capacity, &buffer);
  }
  std::int64_t *offset = nullptr, *count = nullptr, *capacity = nullptr;
  unsigned char** buffer = nullptr;
};

// A burst of packets that carry so many bytes: read, looked up, and put into the write buffer of
// another transport.
void forwardBurst(benchmark::State& state) {
  Pair sender, receiver;
  ToOne handler(receiver.near.get());
  sender.far->setForwardingHandler(&handler);
  const std::vector<unsigned char> bytes(static_cast<std::size_t>(state.range(0)));
  for (int i = 0; i < kBurst; ++i) {
    const auto packet = sender.near->newMessage(kSource, kDestination, STP_BINARY, 1, STP_ONE_WAY);
    packet->putArrayData(1, bytes.data(), static_cast<std::int32_t>(bytes.size()), 1);
    sender.near->enqueueMessage(*packet);
  }
  const WriteFields in(*sender.near), out(*receiver.near);
  const std::int64_t burst = *in.count;
  for (auto _ : state) {
    // The bytes still stand in the writer's buffer: the same burst once more.
    *in.count = burst;
    sender.far->handleRead();
    if (*out.count != burst) state.SkipWithError("not all was forwarded");
    *out.count = 0;
    *out.offset = 0;
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(forwardBurst)->Arg(56)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
