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
    benchmark::DoNotOptimize(stpTestPacket(bytes, message.cursor()));
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

// A burst of packets with a payload of so many bytes, from the read buffer of one transport to the
// write buffer of another.
void forwardBurst(benchmark::State& state) {
  Pair sender, receiver;
  ToOne handler(receiver.near.get());
  sender.far->setForwardingHandler(&handler);
  const std::vector<unsigned char> payload(static_cast<std::size_t>(state.range(0)));
  std::int64_t *offset = nullptr, *count = nullptr, *capacity = nullptr;
  unsigned char** buffer = nullptr;
  receiver.near->inProcessEndpoints(&offset, &count, &capacity, &buffer);
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < kBurst; ++i) {
      const auto packet =
          sender.near->newMessage(kSource, kDestination, STP_BINARY, 1, STP_ONE_WAY);
      packet->writeBytes(payload.data(), std::ssize(payload));
      sender.near->enqueueMessage(*packet);
    }
    state.ResumeTiming();
    sender.far->handleRead();
    if (*count < kBurst * state.range(0)) state.SkipWithError("packets were lost");
    *count = 0;
    *offset = 0;
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(forwardBurst)->Arg(60)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
