// The two pumps of the program: a step for one transport, which every blocking wait runs, and a
// step for a set of them, the main loop.
//
// Both look at the one readiness set of the process. A descriptor that became ready while a step
// waited for another stays marked there until its own transport has used it up. Before a step
// sleeps it writes what has been queued on any transport.
//
// A step on a set looks only at the transports that stand in the process's `attention`: whatever
// gives a transport something to do puts it there, and the step takes out those that have nothing
// left. So any number of idle connections cost nothing, and a nested step at any depth finds what
// the outer one has not served yet.
#include <algorithm>
#include <array>
#include <vector>

#include "platform/clock.h"
#include "platform/readiness.h"
#include "platform/socket.h"
#include "stp_transport/transport/stp_process_state.h"
#include "stp_transport/transport/stp_transport.h"

void STPTransport::attend() {
  if (attended_) return;
  attended_ = true;
  stpProcess().attention.add(serial_, this);
}

// Takes this transport off its place in the list. An idle one holds no memory for what may come one
// day.
void STPTransport::restAt(std::size_t place) {
  attended_ = false;
  stpProcess().attention.removeAt(place);
  fields_.rest();
  input_.rest();
}

// In doubt true: what a message that was put off waits for can change without a word to this
// transport, and so can what a pair in one process has to read.
bool STPTransport::needsAttention() const {
  return isClosed() || isInProcess() || input_.mayHavePacket() || delivery_.hasDeferred() ||
         isStalled() || canRead() || canWrite();
}

void STPTransport::attendNews() {
  if (!platform::readiness().hasNews()) return;
  const STPProcessState& process = stpProcess();
  for (const int fd : platform::readiness().news()) {
    const auto index = static_cast<std::size_t>(fd);
    if (index < process.byDescriptor.size() && process.byDescriptor[index])
      process.byDescriptor[index]->attend();
  }
  platform::readiness().forgetNews();
}

void STPTransport::claim(int fd) {
  auto& owners = stpProcess().byDescriptor;
  const auto index = static_cast<std::size_t>(fd);
  if (fd < 0) return;
  if (index >= owners.size()) owners.resize(index + 64);
  owners[index] = this;
  attend();  // what is known of the descriptor may be known already
}

void STPTransport::disclaim(int fd) {
  auto& owners = stpProcess().byDescriptor;
  const auto index = static_cast<std::size_t>(fd);
  if (fd >= 0 && index < owners.size() && owners[index] == this) owners[index] = nullptr;
}

void STPTransport::serviceOnce(int timeout, STPStatus* status) {
  const Hold hold(this);
  status_.clear();
  if (isClosed()) {
    status_.set(STP_FAILED, "[serviceOnce]: not bound and not listening.");
  } else if (isInProcess()) {
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
    const std::int64_t pending = writeQueue_.count();
    flushMarked();
    // A write of its own is what this step was to bring: whoever waits for it doesn't sleep on.
    if (writeQueue_.count() < pending) timeout = 0;
    bool failed = false;
    if (!canWrite() && !canRead()) waitForNews(timeout, failed);
    attendNews();
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
  STPTransport::attendNews();
  STPAttention& attention = stpProcess().attention;
  // Handlers may change both sets: whatever runs one finds its place again, and holds what it
  // serves. Whether the set contains a transport is asked last, since nearly all that stand in the
  // list have nothing to do any more.
  for (std::size_t place = 0; place < attention.size();) {
    STPTransport* transport = attention[place];
    if (!transport) {
      ++place;
    } else if (transport->isClosed()) {
      if (!transports.contains(transport)) {
        ++place;
        continue;
      }
      if (status) status->set(STP_FAILED, "[serviceFirst]: not bound and not listening.");
      return;
    } else if (transport->hasDeliverable() && transports.contains(transport)) {
      const CountedPtr<STPTransport> hold(transport);
      transport->parseInput();
      timeout = 0;
      place = attention.after(transport->serial(), place);
    } else {
      if (timeout != 0 && (transport->canRead() || transport->canWrite()) &&
          transports.contains(transport))
        timeout = 0;
      ++place;
    }
  }
  bool failed = false;
  if (!STPTransport::waitForNews(timeout, failed)) {
    if (failed && status) status->set(STP_FAILED, "[serviceFirst]: select error");
    return;
  }
  STPTransport::attendNews();
  for (std::size_t place = 0; place < attention.size();) {
    STPTransport* transport = attention[place];
    if (!transport) {
      ++place;
    } else if (transport->canWrite() || transport->canRead()) {
      if (!transports.contains(transport)) {
        ++place;
        continue;
      }
      const CountedPtr<STPTransport> hold(transport);
      transport->serveReady(status);
      STPTransport::flushMarked();
      // A busy one stays: only a step that finds it with nothing to do takes it out.
      place = attention.after(transport->serial(), place);
    } else {
      if (!transport->needsAttention()) transport->restAt(place);
      ++place;
    }
  }
  attention.compact();
}

// False once there is nothing to wait for: the peer has got all and gone, or takes no more. A
// socket that is closed with something unread in it takes what it still had to send with it, so it
// is read until the peer ends too.
bool STPTransport::leaveStep(bool& hasEndedSending) {
  while (canWrite() && writeOnce() == WriteResult::wrote) continue;
  if (link_ == Link::draining) return false;
  if (writeQueue_.empty() && !hasEndedSending) {
    hasEndedSending = true;
    if (platform::endSending(fd_) != 0) return false;
  }
  if (!platform::readiness().isReadable(fd_)) return true;
  std::array<unsigned char, STP_SMALL_BLOCK> dropped;
  const platform::Transfer received =
      platform::receiveBytes(fd_, dropped.data(), static_cast<std::int64_t>(dropped.size()));
  if (received.wouldBlock) platform::readiness().drained(fd_);
  return received.wouldBlock || received.count > 0;
}

void STPTransport::takeLeave(const STPTransportSet& transports, int milliseconds) {
  struct Leaving {
    STPTransport* transport;
    bool hasEndedSending = false;
  };
  std::vector<Leaving> leaving;
  for (STPTransport* transport : transports)
    if (transport->isWritePending()) leaving.push_back({transport});
  const std::uint64_t end =
      platform::monotonicMilliseconds() + static_cast<std::uint64_t>(milliseconds);
  for (;;) {
    std::erase_if(leaving,
                  [](Leaving& one) { return !one.transport->leaveStep(one.hasEndedSending); });
    const std::uint64_t now = platform::monotonicMilliseconds();
    if (leaving.empty() || now >= end) return;
    const bool isBusy = std::any_of(leaving.begin(), leaving.end(), [](const Leaving& one) {
      return platform::readiness().isReadable(one.transport->fd_);
    });
    bool failed = false;
    platform::readiness().wait(isBusy ? 0 : static_cast<int>(end - now), failed);
    if (failed) return;
    platform::readiness().forgetNews();
  }
}
