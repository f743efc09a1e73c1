// Many plugins in this process that ask for services at the same time.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/stopwatch.h"
#include "hublink_plugin/hublink_plugin.h"
#include "stp_transport/transport/stp_transport.h"

class Requesters {
 public:
  /// The answers of one kind.
  struct Answers {
    int count = 0;
    double last = 0;  ///< milliseconds from the requests to the last of them
  };

  Requesters() = default;
  Requesters(const Requesters&) = delete;
  Requesters& operator=(const Requesters&) = delete;

  /// Connects `count` more to the hub on `port`. False with a text in `error`.
  bool join(std::uint16_t port, int count, std::string& error);
  /// Each asks for the service that has its place in `services`. Once.
  void ask(const std::vector<std::string>& services);
  /// Serves them until `done`, at most kStartLimit; the last word of `done`.
  bool serveUntil(const std::function<bool()>& done);

  const Answers& links() const { return links_; }
  /// The same of those that have been told that nobody provides their service.
  const Answers& failures() const { return failures_; }

 private:
  struct One {
    CountedPtr<STPTransport> transport;
    HublinkPlugin plugin;
    std::shared_ptr<HublinkLink> link;
  };

  std::deque<One> all_;
  STPTransportSet transports_;
  Stopwatch asked_;
  Answers links_, failures_;
};
