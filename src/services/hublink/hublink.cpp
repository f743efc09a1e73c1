#include "services/hublink/hublink.h"

#include <algorithm>

#include "platform/clock.h"
#include "stp_transport/transport/stp_byte_block.h"
#include "stp_transport/transport/stp_process_state.h"

namespace {

// Milliseconds that what is queued has to leave at the hub's end.
constexpr int kFarewell = 500;

}  // namespace

// The parts know each other, but none calls another before all are there.
Hublink::Hublink(const ServiceDatabase& database, std::uint32_t port, STPFileLog* log,
                 std::FILE* internalFile)
    : log_(this, log, internalFile),
      gate_(log_),
      plugins_(*this, broker_, transports_, events_, log_),
      entrance_(port, plugins_, gate_, transports_, log_),
      launcher_(plugins_, broker_, entrance_, transports_, events_, log_),
      connector_(plugins_, broker_, gate_, log_),
      status_(*this, events_),
      abroad_(*this),
      broker_(database, plugins_, launcher_, connector_, status_, abroad_, events_, log_),
      since_(platform::unixMilliseconds()) {}

Hublink::~Hublink() {
  log_.logInternal("Shutting down Hublink.\n");
  plugins_.clear();
  for (STPTransport* transport : transports_) transport->release();
}

bool Hublink::connectToPeer(const char* host, std::uint32_t peerPort) {
  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  transport->connect(host, static_cast<std::uint16_t>(peerPort), &status);
  if (!status.good() || !gate_.mayConnectTo(*transport, peerPort)) return false;
  plugins_.add(transport)->refuseHub();
  return true;
}

bool Hublink::startListening(bool notShared, const char* zone, bool loopbackOnly) {
  if (!entrance_.open(loopbackOnly)) return false;
  if (!notShared)
    activeRecord_ = std::make_unique<ActiveHubRecord>(entrance_.port(), zone, nullptr, nullptr);
  return true;
}

void Hublink::servicePass(int timeout, STPStatus* status) {
  entrance_.acceptNewConnections();
  plugins_.stepNegotiation();
  launcher_.step();
  connector_.step();
  abroad_.step();
  if (const int limit = STPByteBlock::sleepLimit(); limit >= 0) timeout = std::min(timeout, limit);
  serviceFirst(abroad_.timeLeft(connector_.timeLeft(launcher_.timeLeft(timeout))), transports_,
               status);
  STPByteBlock::freeUnused();
  // A plugin that goes is no failure of the hub's.
  if (status && status->code == STP_PEER_CLOSED) status->clear();
  reap();
  platform::collectChildren();
}

// Without an end since the last time there is nobody to take down.
void Hublink::reap() {
  const std::uint64_t closings = stpProcess().closings;
  if (closings == reapedClosings_) return;
  reapedClosings_ = closings;
  plugins_.reap();
  for (auto place = transports_.begin(); place != transports_.end();) {
    STPTransport* transport = *place;
    if (!transport->isClosed()) {
      ++place;
      continue;
    }
    place = transports_.erase(place);
    transport->release();
  }
}

void Hublink::traceAll() {
  for (const auto* connections : {&plugins_.active(), &plugins_.negotiating()})
    for (const auto& connection : *connections) connection->setLogs(log_.internal());
  status_.traceAll();
  abroad_.traceAll();
}

bool Hublink::isNeeded() const {
  return numPersistentPlugins() > 0 || launcher_.inHand() > 0 || connector_.inHand() > 0;
}

bool Hublink::removeActiveRecord() {
  if (!activeRecord_ || !activeRecord_->lock()) return false;
  const bool removed = activeRecord_->remove();
  activeRecord_->unlock();
  if (removed) log_.logInternal("Removed active hublink file.\n");
  return true;
}

void Hublink::shutdownPlugins(bool report, int wait) {
  connector_.giveUp();
  const auto unconnected = launcher_.giveUp();
  STPTransport::takeLeave(transports_, kFarewell);
  for (const auto* connections : {&plugins_.active(), &plugins_.negotiating()})
    for (const auto& connection : *connections) broker_.disconnectPlugin(connection.get());
  for (const auto* connections : {&plugins_.active(), &plugins_.negotiating()})
    for (const auto& connection : *connections)
      if (connection->getProcess() != 0)
        awaitChild(connection->getProcess(), connection->getName(), report, wait);
  for (const auto& [child, name] : unconnected) awaitChild(child, name, report, wait);
}

void Hublink::awaitChild(platform::ProcessId child, const std::string& name, bool report,
                         int wait) {
  std::size_t ended = 0;
  const platform::WaitOutcome outcome = platform::waitForChildren(&child, 1, true, wait, ended);
  if (!report || outcome == platform::WaitOutcome::ended) return;
  if (outcome == platform::WaitOutcome::timedOut)
    std::fprintf(stderr, "hublink: (%s, pid=%d) took more than %d msecs to shut down", name.c_str(),
                 child, wait);
  else
    std::fprintf(stderr, "unexpected GetSingleObject(pid) ret=%d", -1);
}

STPTransport* Hublink::forwardTarget(std::int32_t destinationRN) {
  const HublinkConnection* owner = broker_.connectionForRN(destinationRN);
  return owner ? owner->getTransport() : nullptr;
}

// A sender may write any RN there: what it counts for is its own.
void Hublink::relayed(const STPTransport& sender, std::int32_t sourceRN, std::int32_t destinationRN,
                      std::int64_t packets, std::int64_t bytes) {
  const HublinkConnection* owner = broker_.connectionForRN(sourceRN);
  const bool isOwn = owner && owner->getTransport() == &sender;
  broker_.countTraffic(isOwn ? sourceRN : 0, destinationRN,
                       {static_cast<std::uint64_t>(packets), static_cast<std::uint64_t>(bytes)});
}

void Hublink::slownessChanged(STPTransport* target, bool isSlow) {
  if (const HublinkConnection* connection = plugins_.ownerOf(target))
    events_.tell(isSlow ? "receiver slow" : "receiver recovered", connection->getPluginID());
}

void Hublink::congestionChanged(STPTransport* target, bool isCongested) {
  const HublinkConnection* connection = plugins_.ownerOf(target);
  if (!connection) return;
  log_.logInternal(isCongested ? "Plugin ID %d doesn't read: those who send to it wait.\n"
                               : "Plugin ID %d no longer holds others up.\n",
                   connection->getPluginID());
}
