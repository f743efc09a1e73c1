// Two sides of a spec joined in this process, and a log that keeps its lines.
#pragma once

#include "stp/pair.h"
#include "stp_transport/log/stp_log.h"
#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/spec/stp_specclass.h"

class KeepingLog : public STPLog {
 public:
  using STPLog::write;
  void write(const char* bytes, std::size_t length) override { text.append(bytes, length); }
  std::string text;
};

class InProcessPair : public Pair {
 public:
  InProcessPair() : Pair(inProcessPair()) {}
  /// Delivers all that is on its way.
  void pump() {
    for (int i = 0; i < 4; ++i) a->handleRead(), b->handleRead();
  }
  void join(STPSpecClass& first, STPSpecClass& second) {
    first.setTransport(a.get(), 1, 2);
    second.setTransport(b.get(), 2, 1);
    first.sendNegotiate(false, nullptr, nullptr);
    second.sendNegotiate(false, nullptr, nullptr);
    pump();
  }
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
