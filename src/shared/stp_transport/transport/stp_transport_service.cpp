// The two pumps of the program: a step for one transport, which every blocking wait runs, and a
// step for a set of them, the main loop.
//
// Both look at the one readiness set of the process. A descriptor that became ready while a step
// waited for another stays marked there until its own transport has used it up. Before a step
// sleeps it writes what has been queued on any transport.
#include "platform/readiness.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

void STPTransport::serviceOnce(int timeout, STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  if (isClosed()) {
    status_.set(STP_FAILED, "[serviceOnce]: not bound and not listening.");
  } else if (inProcess_) {
    handleRead();
  } else {
    if (stpProcess().sendDepth == 0 && hasDeliverable()) {
      parseInput();
      timeout = 0;
    }
    if (isClosed()) {
      copyStatus(status);
      return;
    }
    const std::int64_t pending = writeCount_;
    flushMarked();
    // A write of its own is what this step was to bring: whoever waits for it doesn't sleep on.
    if (writeCount_ < pending) timeout = 0;
    bool failed = false;
    if (!canWrite() && !canRead()) platform::readiness().wait(timeout, failed);
    if (failed)
      closeWithFailure(STP_FAILED, "[serviceOnce]: select error, closing connection");
    else
      serveReady(nullptr);
    flushMarked();
  }
  copyStatus(status);
}

void serviceFirst(int timeout, const STPTransportSet& transports, STPStatus* status) {
  if (status) status->clear();
  STPTransport::flushMarked();
  // Handlers may change the set: whatever runs one finds its place again, and holds what it serves.
  for (auto place = transports.begin(); place != transports.end();) {
    STPTransport* transport = *place;
    if (transport->isClosed()) {
      if (status) status->set(STP_FAILED, "[serviceFirst]: not bound and not listening.");
      return;
    }
    if (transport->hasDeliverable()) {
      const CountedPtr<STPTransport> hold(transport);
      transport->parseInput();
      timeout = 0;
      place = transports.upper_bound(transport);
      continue;
    }
    if (transport->canRead() || transport->canWrite()) timeout = 0;
    ++place;
  }
  bool failed = false;
  if (!platform::readiness().wait(timeout, failed)) {
    if (failed && status) status->set(STP_FAILED, "[serviceFirst]: select error");
    return;
  }
  for (auto place = transports.begin(); place != transports.end();) {
    STPTransport* transport = *place;
    if (!transport->canWrite() && !transport->canRead()) {
      ++place;
      continue;
    }
    const CountedPtr<STPTransport> hold(transport);
    transport->serveReady(status);
    STPTransport::flushMarked();
    place = transports.upper_bound(transport);
  }
}
