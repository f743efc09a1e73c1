#include "bench/requesters.h"

#include "bench/loopback.h"

bool Requesters::join(std::uint16_t port, int count, std::string& error) {
  for (int i = 0; i < count; ++i) {
    One& one = all_.emplace_back();
    one.transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
    STPStatus status;
    one.plugin.reach(*one.transport, "127.0.0.1", port, &status);
    if (!status.good()) error = status.message;
    if (!error.empty() || !one.plugin.attach(one.transport.get(), error, kStartLimit)) return false;
    transports_.insert(one.transport.get());
  }
  return true;
}

void Requesters::ask(const std::vector<std::string>& services) {
  asked_ = Stopwatch();
  for (std::size_t i = 0; i < all_.size(); ++i) {
    One& one = all_[i];
    ServiceQuery query;
    query.serviceName = services[i];
    one.plugin.requestService(query, [this, &one](const ServiceReply& reply) {
      one.link = reply.link;
      if (!reply.link && reply.outcome != ServiceReply::Outcome::notFound) return;
      Answers& answers = reply.link ? links_ : failures_;
      ++answers.count;
      answers.last = asked_.milliseconds();
    });
  }
}

bool Requesters::serveUntil(const std::function<bool()>& done) {
  const Stopwatch watch;
  while (!done() && watch.milliseconds() < kStartLimit && !platform::stopRequested())
    serviceFirst(100, transports_);
  return done();
}
