// A plugin that is nothing but a socket and packets made by hand: it can leave the protocol's roads
// wherever it likes.
#pragma once

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "simulation/actor.h"
#include "support/raw_peer.h"

class ByteActor : public Actor {
 public:
  using Actor::Actor;
  int run() override;
  bool isLibrary() const override { return false; }
  bool isAwake() const override;

 private:
  /// Bytes that wait to be written; with the last of them `end` has sent one packet more.
  struct Outgoing {
    std::string bytes;
    LinkEnd* end = nullptr;
  };
  struct Offer {
    std::int32_t serviceRN, requesterRN;
  };
  using Write = std::function<void(STPMessage&)>;

  int awaitHub();
  void obey(const Order& order);
  void begin();
  std::int32_t request(const RequestShape& shape);
  void query(std::uint64_t choice);
  void launch(std::uint64_t choice);
  void sendPackets(std::uint64_t choice);
  void flood(std::uint64_t choice);
  void answerOffer(const Offer& offer, bool accept);
  void beginStart(std::int32_t cookie);
  void provide(const std::string& service);
  void send(const char* message, const Write& write = nullptr) {
    outbox_.push_back({filled(hubMessageBytes(message, write))});
  }
  void send(const char* message, const Numbers& fields) {
    outbox_.push_back({filled(hubMessageBytes(message, fields))});
  }
  void write();
  void read();
  void handle(const Packet& packet);
  void handleReply(STPReceivedMessage& message);
  void end();

  platform::Socket socket_ = platform::kNoSocket;
  std::deque<Outgoing> outbox_;
  std::string input_;
  std::uint64_t quietUntil_ = 0, deafUntil_ = 0;  // ms; one who is deaf still writes
  std::uint64_t needsUntil_ = 0;                  // ms; 0 unless it waits for what it needs
  std::int32_t lastCookie_ = 0, needCookie_ = 0;
  std::set<std::int32_t> lookUps_;            // cookies of queries that start nothing
  std::deque<std::int32_t> numberQuestions_;  // cookies, in order
  std::deque<std::int32_t> placeQuestions_;
  std::deque<Offer> offers_;
  std::deque<std::int32_t> starts_;  // cookies of plugins that it was asked to start
  std::vector<std::int32_t> services_;
};
