#include "stp_transport/spec/stp_specclass.h"

#include <algorithm>
#include <cstring>

#include "indgen/report.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

using Hold = CountedPtr<STPSpecClass>;

}  // namespace

bool STPSpecClass_HandleMessages::handleMessage(STPReceivedMessage& message, bool) {
  return spec_->handleMessage(message, message.header.type, message.header.id);
}

void STPSpecClass_HandleMessages::connectionEnded() {
  spec_->forgetDeferred();
}

STPSpecClass_HandleMessages::~STPSpecClass_HandleMessages() {
  if (STPTransport* transport = spec_->getTransport()) transport->removeListener(this);
}

STPSpecClass::STPSpecClass(const STPSpecTables& tables)
    : retryHandler(std::make_shared<STPRetryHandler>()),
      specName(tables.specName),
      tagCount(tables.tagCount),
      tagNames(tables.tagNames),
      sideName(tables.sideName),
      vstamp(tables.vstamp),
      specFlags(tables.specFlags),
      receiveCount(tables.receiveCount),
      receiveTable(tables.receiveTable),
      tagMap(std::vector<std::int32_t>(static_cast<std::size_t>(tables.tagCount), -1)),
      sendTable({tables.sendTable, tables.sendTable + tables.sendCount}) {}

STPSpecClass::~STPSpecClass() {
  GEN_ASSERT(refCount == 0);
  leaveTransport();
}

void STPSpecClass::addRef() {
  if (!dying) ++refCount;
}

void STPSpecClass::release() {
  if (dying || --refCount > 0) return;
  dying = true;
  refCount = 0;
  delete this;
}

void STPSpecClass::leaveTransport() {
  listener.reset();
  transport.reset();
}

// Gives back the reference that put-off messages hold: they may never come back for it.
void STPSpecClass::forgetDeferred() {
  if (deferredCount == 0) return;
  deferredCount = 0;
  release();
}

void STPSpecClass::setTransport(STPTransport* newTransport, std::int32_t source,
                                std::int32_t destination) {
  const Hold hold(this);
  CountedPtr<STPTransport> next(newTransport);
  leaveTransport();
  forgetDeferred();
  transport = std::move(next);
  sourceRN = source != 0 ? source : defaultSourceRN();
  destinationRN = destination != 0 ? destination : defaultDestinationRN();
  if (transport) {
    listener = std::make_unique<STPSpecClass_HandleMessages>(this);
    for (const std::uint32_t type : {STP_NEGOTIATION, STP_COMMAND, STP_ASCII, STP_BINARY})
      transport->addListener(destinationRN, sourceRN, listener.get(), type);
  }
  setDefaultRetryHandler(std::make_unique<STPRetryHandler>(transport.get()).release());
}

void STPSpecClass::setRetryHandler(RetryHandler* handler) {
  gen_assert(handler != nullptr, "rt != NULL", __FILE__, __LINE__);
  retryHandler.reset(handler);
  retrySet = true;
}

void STPSpecClass::setDefaultRetryHandler(RetryHandler* handler) {
  gen_assert(handler != nullptr, "rt != NULL", __FILE__, __LINE__);
  std::shared_ptr<RetryHandler> offered(handler);
  if (!retrySet) retryHandler = std::move(offered);
}

void STPSpecClass::setLogs(STPLog* log) {
  sendLog = log;
  receiveLog = log;
}

bool STPSpecClass::canSend(bool needReceive, bool supported, STPStatus* status) {
  if (!transport || !negotiated) {
    STPStatus::report(status, STP_MISUSE, "Attempted send before negotiation is complete.");
    return false;
  }
  if (!sendUp || (needReceive && !receiveUp)) {
    STPStatus::report(status, STP_FAILED, "[send]: virtual connection is down");
    return false;
  }
  if (supported || (peerFlags & STP_TAKES_UNLISTED)) return true;
  STPStatus::report(status, STP_UNSUPPORTED,
                    "[send]: sending a message the other side does not support");
  return false;
}

const char* STPSpecClass::messageName(std::int32_t index) const {
  return index >= 0 && index < receiveCount ? receiveTable[index].name : "";
}

std::int32_t STPSpecClass::messageId(const char* name) const {
  return name ? messageId(name, static_cast<std::int32_t>(std::strlen(name))) : -1;
}

std::int32_t STPSpecClass::messageId(const char* name, std::int32_t length) const {
  if (!name || length < 1) return -1;
  const std::string_view wanted(name, static_cast<std::size_t>(length));
  const STPMessageEntry* end = receiveTable + receiveCount;
  const STPMessageEntry* place = std::lower_bound(
      receiveTable, end, wanted,
      [](const STPMessageEntry& entry, std::string_view text) { return entry.name < text; });
  return place != end && place->name == wanted ? static_cast<std::int32_t>(place - receiveTable)
                                               : -1;
}

const STPMessageEntry* STPSpecClass::peerEntry(const char* name) const {
  return name ? peerEntry(name, static_cast<std::int32_t>(std::strlen(name))) : nullptr;
}

const STPMessageEntry* STPSpecClass::peerEntry(const char* name, std::int32_t length) const {
  if (!name || length < 1) return nullptr;
  const std::string_view wanted(name, static_cast<std::size_t>(length));
  for (const STPMessageEntry& entry : sendTable)
    if (entry.name == wanted) return &entry;
  const auto place = extraIndex_.find(wanted);
  return place == extraIndex_.end() ? nullptr : &extraTable[place->second];
}

void STPSpecClass::virtualConnectionClose() {
  const Hold hold(this);
  const bool wasUp = isVirtualConnectionUp();
  sendUp = false;
  receiveUp = false;
  if (wasUp) virtualConnectionDown();
}

void STPSpecClass::handleAsciiMessage(STPReceivedMessage&, STPMessage*, std::uint32_t) {
  gen_warning("unexpected stp ascii message");
}

void STPSpecClass::handleBinaryMessage(STPReceivedMessage&, STPMessage*, std::uint32_t) {
  gen_warning("unexpected stp binary message");
}

bool STPSpecClass::handleCommandMessage(STPReceivedMessage&, STPMessage*, std::uint32_t,
                                        std::uint32_t) {
  gen_warning("unexpected stp command message");
  return false;
}

bool STPSpecClass::handleMessage(STPReceivedMessage& message, std::uint32_t type,
                                 std::uint32_t id) {
  const Hold hold(this);
  const CountedPtr<STPTransport> link = transport;
  // A message that was put off has its name behind it, known or not.
  if (id == STP_NO_MESSAGE && !message.deferred && (type == STP_COMMAND || type == STP_ASCII)) {
    std::int32_t length = 0;
    const char* word = message.readWord(&length);
    id = static_cast<std::uint32_t>(messageId(word, length));
    message.header.id = id;
  }
  if (type == STP_NEGOTIATION) {
    message.header.flags |= id < STP_FIRST_HELD_SUBTYPE ? STP_ANY_TIME : STP_IN_CHAIN_ONLY;
  } else if (id < static_cast<std::uint32_t>(receiveCount)) {
    message.header.flags |= receiveTable[id].flags & (STP_IN_CHAIN_ONLY | STP_ANY_TIME);
  }
  if (!link->canDeliver(message)) {
    if (!message.deferred && ++deferredCount == 1) addRef();
    message.deferred = true;
    return false;
  }
  const STPHeader& header = message.header;
  link->enterCall(header.chain, header.depth, header.flags);
  std::unique_ptr<STPMessage> reply;
  if (header.flags & STP_WANTS_RESPONSE)
    reply = link->newResponse(sourceRN, destinationRN, header.sequence, 0);
  ++busy;
  runMessage(message, reply.get(), type, id);
  --busy;
  if (reply && sendUp && link->postMessage(*reply, 2) == 0) {
    // Whoever waits for it would wait for ever.
    gen_warning("reply is too large: an empty one is sent");
    link->postMessage(*link->newResponse(sourceRN, destinationRN, header.sequence, 0), 2);
  }
  link->leaveCall();
  if (deferredCount > 0 && message.deferred && --deferredCount == 0) release();
  return true;
}

void STPSpecClass::runMessage(STPReceivedMessage& message, STPMessage* reply, std::uint32_t type,
                              std::uint32_t id) {
  switch (type) {
    case STP_NEGOTIATION:
      if (id == STP_NEGOTIATE) readNegotiateRecord(message);
      if (id == STP_FORMAT_QUERY && reply) writeFormatRecord(*reply);
      if (id == STP_READY) peerReady = true;
      break;
    case STP_COMMAND: {
      const std::uint32_t action = message.readInt("__action");
      const bool result = handleCommandMessage(message, reply, id, action);
      if (reply) reply->writeInt(result ? 1 : 0, "__ret");
      break;
    }
    case STP_ASCII:
      handleAsciiMessage(message, reply, id);
      break;
    case STP_BINARY:
      handleBinaryMessage(message, reply, id);
      break;
    default:
      gen_warning("oops");
      break;
  }
}

bool STPSpecClass::transportFailed() const {
  return !transport->status().good();
}

std::unique_ptr<STPMessage> STPSpecClass::newStubMessage(std::uint32_t id,
                                                         std::uint32_t packetFlags) const {
  return transport->newMessage(sourceRN, destinationRN, STP_BINARY, id, packetFlags);
}

void STPSpecClass::sendStubMessage(STPMessage& message, bool wait, RetryHandler* retry,
                                   STPStatus* status) {
  const CountedPtr<STPTransport> link = transport;
  if (!wait) {
    const bool isQueued = link->enqueueMessage(message) != 0;
    if (status) *status = isQueued ? STPStatus() : link->status();
    return;
  }
  const Hold hold(this);
  const std::shared_ptr<RetryHandler> held = retryHandler;
  if (!retry) retry = getRetryHandler();
  gen_assert(retry != nullptr, "rt != NULL", __FILE__, __LINE__);
  STP_RetryCondition condition(this);
  retry->addCondition(&condition);
  ++busy;
  link->sendMessage(message, retry, status);
  --busy;
  retry->removeCondition(&condition);
}

std::unique_ptr<STPReceivedMessage> STPSpecClass::callStubMessage(STPMessage& message,
                                                                  RetryHandler* retry,
                                                                  STPStatus* status) {
  const Hold hold(this);
  const CountedPtr<STPTransport> link = transport;
  const std::shared_ptr<RetryHandler> held = retryHandler;
  if (!retry) retry = getRetryHandler();
  gen_assert(retry != nullptr, "rt != NULL", __FILE__, __LINE__);
  STP_RetryCondition condition(this);
  retry->addCondition(&condition);
  ++busy;
  const std::uint32_t sequence = link->sendMessage(message, retry, status);
  auto response = link->awaitResponse(sequence, retry, status);
  --busy;
  retry->removeCondition(&condition);
  return response;
}
