// Two sides of a spec joined in this process, and a log that keeps its lines.
#pragma once

#include <string>

#include "stp_transport/log/stp_log.h"
#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/spec/stp_specclass.h"
#include "stp_transport/transport/stp_transport.h"

class KeepingLog : public STPLog {
 public:
  using STPLog::write;
  void write(const char* bytes, std::size_t length) override { text.append(bytes, length); }
  std::string text;
};

class InProcessPair {
 public:
  InProcessPair() {
    STPTransport* ends[2];
    STPTransport::createInProcessPair(&ends[0], &ends[1]);
    first = CountedPtr<STPTransport>::adopt(ends[0]);
    second = CountedPtr<STPTransport>::adopt(ends[1]);
  }
  /// Delivers all that is on its way.
  void pump() {
    for (int i = 0; i < 4; ++i) {
      first->handleRead();
      second->handleRead();
    }
  }
  void join(STPSpecClass& a, STPSpecClass& b) {
    a.setTransport(first.get(), 1, 2);
    b.setTransport(second.get(), 2, 1);
    a.sendNegotiate(false, nullptr, nullptr);
    b.sendNegotiate(false, nullptr, nullptr);
    pump();
  }
  CountedPtr<STPTransport> first;
  CountedPtr<STPTransport> second;
};

/// Serves both ends for somebody who waits at one, and gives up after a while.
class PumpingHandler : public RetryHandler {
 public:
  explicit PumpingHandler(InProcessPair& pair) : pair_(pair) {}
  bool shouldRetry() override { return RetryHandler::shouldRetry() && ++steps_ < 10; }
  void wait() override { pair_.pump(); }

 private:
  InProcessPair& pair_;
  int steps_ = 0;
};
