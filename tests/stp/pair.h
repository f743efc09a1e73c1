// Two transports of this process, joined in memory or by a loopback socket, and a listener that
// keeps what it gets: the cheap way to test everything above the sockets.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_socket.h"
#include "stp_transport/transport/stp_transport.h"

using Transport = CountedPtr<STPTransport>;

struct Pair {
  Transport a;
  Transport b;
};

inline Pair inProcessPair() {
  STPTransport* a = nullptr;
  STPTransport* b = nullptr;
  STPTransport::createInProcessPair(&a, &b);
  return {Transport::adopt(a), Transport::adopt(b)};
}

inline Pair socketPair() {
  std::uint16_t port = 0;
  STPStatus status;
  const int listener = getFreeListenSocket(&port, &status, true);
  Pair pair{makeCounted<STPTransport>(), makeCounted<STPTransport>()};
  pair.a->connect("127.0.0.1", port, &status);
  pair.b->startListenOnFD(listener);
  while (!pair.b->isConnected()) {
    pair.b->serviceOnce(1000);
    pair.b->tryAccept(true);
  }
  return pair;
}

/// The same, joined by their fields and told of what has been sent.
inline Pair notifiedPair() {
  Pair pair{makeCounted<STPTransport>(), makeCounted<STPTransport>()};
  const auto join = [](STPTransport& end, STPTransport& other) {
    STPTransport::Notify pump = nullptr;
    std::uintptr_t argument = 0;
    STPTransport::pumpFor(&other, &pump, &argument);
    std::int64_t *offset, *count, *capacity;
    unsigned char** buffer;
    other.inProcessEndpoints(&offset, &count, &capacity, &buffer);
    STPTransport::attachInProcess(&end, offset, count, capacity, buffer, pump, argument);
  };
  join(*pair.a, *pair.b);
  join(*pair.b, *pair.a);
  return pair;
}

/// A packet of `type` from RN 2 to RN 1 that holds `text`.
inline std::unique_ptr<STPMessage> textMessage(STPTransport& transport, std::uint32_t type,
                                               const std::string& text,
                                               std::uint32_t flags = STP_ONE_WAY) {
  auto message = transport.newMessage(2, 1, type, 7, flags);
  message->putString(1, text.c_str());
  return message;
}

class Recorder : public ResponseListener {
 public:
  bool handleMessage(STPReceivedMessage& message, bool exclusive) override {
    if (refuse) return false;
    const gen_text text = message.getString(1);
    texts.emplace_back(text ? text.get() : "");
    headers.push_back(message.header);
    exclusives.push_back(exclusive);
    if (then) then(message);
    return true;
  }

  bool refuse = false;
  std::vector<std::string> texts;
  std::vector<STPHeader> headers;
  std::vector<bool> exclusives;
  std::function<void(STPReceivedMessage&)> then;
};
