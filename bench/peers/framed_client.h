// A client of a broker whose protocol is a row of frames on a TCP connection. It writes a batch of
// frames in one call, and reads as much as there is before it looks for frames.
#pragma once

#include <string_view>

#include "bench/loopback.h"
#include "bench/peers/peer.h"
#include "bench/waiting_socket.h"

class FramedClient : public PeerClient {
 public:
  const std::string& failure() const override { return socket_.failure(); }
  bool fail(const char* what) override { return socket_.fail(what); }
  bool send(Message payload) override;
  void prepare(const std::vector<Bytes>& payloads) override;
  bool sendPrepared(std::size_t count) override;
  bool receive(std::vector<Message>& messages, bool patient) override;

 protected:
  /// What stands at the start of the bytes received.
  struct Frame {
    std::size_t size = 0;  ///< 0: more bytes have to come
    int kind = kMessage;   ///< of the protocol, or kMessage
    Message payload;       ///< of a message
  };
  static constexpr int kMessage = -1;

  explicit FramedClient(std::uint16_t port);

  /// Appends the frame that carries `payload` to the other end.
  virtual void appendFrame(Message payload, Bytes& bytes) const = 0;
  /// False, with the failure set, if no frame begins like this.
  virtual bool readFrame(Message bytes, Frame& frame) = 0;

  bool sendText(std::string_view text);
  bool sendFrame(const Bytes& bytes) { return socket_.send(bytes.data(), std::ssize(bytes)); }
  /// Passes over frames up to one of that kind.
  bool awaitFrame(int kind);

 private:
  bool nextFrame(Frame& frame);
  bool fill(bool patient);

  LoopbackSocket connection_;
  WaitingSocket socket_;
  Bytes frame_;  // of a single message
  Bytes batch_;
  std::size_t batchFrame_ = 0;  // bytes of each frame in it
  Bytes buffer_;
  std::size_t begin_ = 0, end_ = 0;  // what has been received and not been used
};

/// The connect of a PeerKind for a client with a join() that says who it is.
template <typename Client>
std::unique_ptr<PeerClient> connectClient(const BrokerPlace& place, PeerEnd end,
                                          std::string& error) {
  auto client = std::make_unique<Client>(place, end);
  if (client->join()) return client;
  error = client->failure();
  return nullptr;
}
