// ZeroMQ: publishers and subscribers on both sides of an XSUB/XPUB proxy, which carries messages of
// a single part. A message begins with the address of its receiver, to which that one subscribes.
#include <cerrno>
#include <cstring>

#include <zmq.h>
#include "bench/peers/peer.h"

namespace {

constexpr std::size_t kBulk = 1024;  // messages that one receive gives at most
constexpr int kNoLinger = 0;
constexpr int kUnlimited = 0;

std::string endpoint(std::uint16_t port) {
  return "tcp://127.0.0.1:" + std::to_string(port);
}

struct CloseSocket {
  void operator()(void* socket) const { zmq_close(socket); }
};
struct EndContext {
  void operator()(void* context) const { zmq_ctx_term(context); }
};
using ZmqSocket = std::unique_ptr<void, CloseSocket>;
using ZmqContext = std::unique_ptr<void, EndContext>;

// A socket that drops nothing for want of room; null on failure.
ZmqSocket openSocket(const ZmqContext& context, int type) {
  ZmqSocket socket(zmq_socket(context.get(), type));
  for (const int limit : {ZMQ_SNDHWM, ZMQ_RCVHWM})
    zmq_setsockopt(socket.get(), limit, &kUnlimited, sizeof kUnlimited);
  zmq_setsockopt(socket.get(), ZMQ_LINGER, &kNoLinger, sizeof kNoLinger);
  for (const int limit : {ZMQ_SNDTIMEO, ZMQ_RCVTIMEO})
    zmq_setsockopt(socket.get(), limit, &kTransferLimit, sizeof kTransferLimit);
  return socket;
}

// Messages in the library's own memory, as many as are in use.
class Bulk {
 public:
  Bulk() : messages_(kBulk) {}
  ~Bulk() { clear(); }
  Bulk(const Bulk&) = delete;
  Bulk& operator=(const Bulk&) = delete;
  void clear() {
    while (used_ > 0) zmq_msg_close(&messages_[--used_]);
  }
  bool full() const { return used_ == messages_.size(); }
  // False if none came; zmq_errno() tells why.
  bool receive(void* socket, int flags) {
    zmq_msg_t* message = &messages_[used_];
    zmq_msg_init(message);
    if (zmq_msg_recv(message, socket, flags) < 0) {
      zmq_msg_close(message);
      return false;
    }
    ++used_;
    return true;
  }
  Message last() {
    zmq_msg_t* message = &messages_[used_ - 1];
    return {static_cast<const unsigned char*>(zmq_msg_data(message)), zmq_msg_size(message)};
  }

 private:
  std::vector<zmq_msg_t> messages_;
  std::size_t used_ = 0;
};

class ZeroMQClient : public PeerClient {
 public:
  ZeroMQClient(const BrokerPlace& place, PeerEnd end)
      : context_(zmq_ctx_new()),
        out_(openSocket(context_, ZMQ_XPUB)),
        in_(openSocket(context_, ZMQ_SUB)),
        end_(end) {
    zmq_setsockopt(in_.get(), ZMQ_SUBSCRIBE, addressOf(end), 1);
    zmq_connect(out_.get(), endpoint(place.port).c_str());
    zmq_connect(in_.get(), endpoint(place.otherPort).c_str());
  }

  const std::string& failure() const override { return failure_; }
  bool fail(const char* what) override {
    failure_ = what;
    return false;
  }

  bool send(Message payload) override {
    const Bytes message = addressed(payload);
    return otherListens() && (zmq_send(out_.get(), message.data(), message.size(), 0) >= 0 ||
                              failCall("sending failed"));
  }

  void prepare(const std::vector<Bytes>& payloads) override {
    // The library doesn't refer to the batch before any more: the other end has confirmed it all.
    batch_.clear();
    for (const Bytes& payload : payloads) batch_.push_back(addressed(payload));
  }

  bool sendPrepared(std::size_t count) override {
    for (std::size_t i = 0; i < count; ++i)
      if (zmq_send_const(out_.get(), batch_[i].data(), batch_[i].size(), 0) < 0)
        return failCall("sending failed");
    return true;
  }

  bool receive(std::vector<Message>& messages, bool patient) override {
    messages.clear();
    bulk_.clear();
    while (!bulk_.receive(in_.get(), 0)) {
      if (zmq_errno() != EAGAIN) return failCall("receiving failed");
      if (!patient) return fail("nothing arrived in time");
    }
    do {
      messages.push_back(bulk_.last().subspan(1));
    } while (!bulk_.full() && bulk_.receive(in_.get(), ZMQ_DONTWAIT));
    return true;
  }

 private:
  Bytes addressed(Message payload) const {
    Bytes message{static_cast<unsigned char>(*addressOfOther(end_))};
    message.insert(message.end(), payload.begin(), payload.end());
    return message;
  }

  // A publisher drops what nobody subscribes to, but an XPUB is told of the subscription.
  bool otherListens() {
    const unsigned char wanted[] = {1, static_cast<unsigned char>(*addressOfOther(end_))};
    for (unsigned char told[2]; !otherListens_;) {
      const int size = zmq_recv(out_.get(), told, sizeof told, 0);
      if (size < 0) return failCall("the other end hasn't subscribed");
      otherListens_ = size == sizeof told && std::memcmp(told, wanted, sizeof told) == 0;
    }
    return true;
  }

  bool failCall(const char* what) {
    failure_ = std::string(what) + ": " + zmq_strerror(zmq_errno());
    return false;
  }

  std::vector<Bytes> batch_;
  ZmqContext context_;
  ZmqSocket out_, in_;
  Bulk bulk_;
  PeerEnd end_;
  bool otherListens_ = false;
  std::string failure_;
};

}  // namespace

int runZeroMQProxy(const BrokerPlace& place) {
  const ZmqContext context(zmq_ctx_new());
  const ZmqSocket publishers = openSocket(context, ZMQ_XSUB);
  const ZmqSocket subscribers = openSocket(context, ZMQ_XPUB);
  if (zmq_bind(subscribers.get(), endpoint(place.otherPort).c_str()) != 0 ||
      zmq_bind(publishers.get(), endpoint(place.port).c_str()) != 0)
    return 1;
  zmq_proxy(publishers.get(), subscribers.get(), nullptr);
  return 1;
}

const PeerKind kZeroMQ{
    "zeromq", "ZeroMQ proxy", nullptr,
    [](const BrokerPlace&) { return std::vector<std::string>(); },
    [](const BrokerPlace& place, PeerEnd end, std::string&) -> std::unique_ptr<PeerClient> {
      return std::make_unique<ZeroMQClient>(place, end);
    }};
