// The exchange in which two sides tell each other their field names and messages.
//
// A record is one text. Its lists are sorted by byte value like this side's tables, so that taking
// a record in is a merge of two sorted lists; a name out of order counts as one that this side
// doesn't have. What a peer announces is never trusted for a size: lists are read to their end or
// their announced size, whichever comes first.
#include <algorithm>

#include "libcxxutil/ut_wait.h"
#include "stp_transport/spec/stp_specclass.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

using Hold = CountedPtr<STPSpecClass>;

// A peer may send records without end: of the messages that this side doesn't know so many are
// kept, and so many bytes of their names, but for the last. The others count as not taken.
constexpr std::size_t kMostExtraMessages = 65536;
constexpr std::size_t kMostExtraBytes = 4 << 20;

constexpr const char* kNoTagsDown = "[awaitTags]: virtual connection is down";
constexpr const char* kReplyTimeout = "awaitNegotiate: timed out waiting for reply.";

// Calls `visit` for each element of the array at the cursor, at most as many as the size in front
// says. What `visit` leaves unread of an element is stepped over.
template <class Visit>
void forEachElement(STPReceivedMessage& message, Visit visit) {
  STPReceivedMessage::Mark array;
  const auto size = static_cast<std::uint32_t>(message.enterArray(&array));
  for (std::uint32_t i = 0; i < size && message.nextValue(); ++i) visit(i);
  message.leaveArray(&array);
}

std::string_view wordOf(STPReceivedMessage& message, const char* name = nullptr) {
  std::int32_t length = 0;
  const char* word = name ? message.readWord(name, &length) : message.readWord(&length);
  return {word, static_cast<std::size_t>(length)};
}

gen_text ownedCopy(std::string_view text) {
  char* copy = static_cast<char*>(gen_alloc(text.size() + 1, 1));
  text.copy(copy, text.size());
  return gen_text(copy);
}

// The entry of a sorted table with this name, searched from `from` on, which moves along; null if
// the table doesn't have the name from there on.
STPMessageEntry* mergeStep(std::vector<STPMessageEntry>& table, std::size_t& from,
                           std::string_view name) {
  while (from < table.size() && table[from].name < name) ++from;
  return from < table.size() && table[from].name == name ? &table[from] : nullptr;
}

}  // namespace

void STPSpecClass::sendNegotiate(bool writeNow, RetryHandler*, STPStatus* status) {
  if (!transport) {
    STPStatus::report(status, STP_MISUSE, "[sendNegotiate]: cannot send with NULL transport");
    return;
  }
  if (!sendUp) {
    STPStatus::report(status, STP_FAILED, "[sendNegotiate]: virtual connection is down");
    return;
  }
  const Hold hold(this);
  const CountedPtr<STPTransport> link = transport;
  const auto message =
      link->newMessage(sourceRN, destinationRN, STP_NEGOTIATION, STP_NEGOTIATE, STP_ONE_WAY);
  writeNegotiateRecord(*message);
  if (writeNow) {
    ++busy;
    link->postMessage(*message, 1, status);
    --busy;
  } else {
    const bool isQueued = link->enqueueMessage(*message) != 0;
    if (status) *status = isQueued ? STPStatus() : link->status();
  }
}

void STPSpecClass::writeNegotiateRecord(STPMessage& message) const {
  message.writeWord(sideName, "name");
  message.writeString(vstamp, "vstamp");
  message.writeInt(specFlags, "flags");
  message.writeArrayBegin(tagCount, "tags");
  for (std::int32_t i = 0; i < tagCount; ++i) message.writeWord(tagNames[i]);
  message.writeArrayEnd();
  message.writeArrayBegin(receiveCount, "msgs");
  for (std::int32_t i = 0; i < receiveCount; ++i) {
    const STPMessageEntry& entry = receiveTable[i];
    message.writeBlockBegin();
    message.writeInt(entry.id, "id");
    message.writeWord(entry.name, "name");
    message.writeInt(entry.flags, "flags");
    message.writeBlockEnd();
  }
  message.writeArrayEnd();
}

void STPSpecClass::readNegotiateRecord(STPReceivedMessage& message) {
  peerName = ownedCopy(wordOf(message, "name"));
  peerVstamp = message.readString("vstamp");
  peerFlags = message.readInt("flags");
  readTags(message);
  readMessages(message);
  tagMap.share();
  if (!formatsFetched) sendTable.share();  // its formats would be this link's alone
  negotiated = true;
  peerRecordTaken();
}

void STPSpecClass::readTags(STPReceivedMessage& message) {
  if (!message.findAsciiField("tags")) return;
  std::vector<std::int32_t>& map = tagMap.edit();
  std::size_t j = 0;
  forEachElement(message, [&](std::uint32_t position) {
    const std::string_view word = wordOf(message);
    peerTagTaken(position, word);
    while (j < map.size() && tagNames[j] < word) ++j;
    if (!word.empty() && j < map.size() && tagNames[j] == word)
      map[j] = static_cast<std::int32_t>(position);
  });
}

void STPSpecClass::readMessages(STPReceivedMessage& message) {
  if (!message.findAsciiField("msgs")) return;
  std::vector<STPMessageEntry>& table = sendTable.edit();
  if (!messagesListed_) {
    messagesListed_ = true;
    for (STPMessageEntry& entry : table) entry.id = STP_NO_MESSAGE;
  }
  std::size_t from = 0;
  forEachElement(message, [&](std::uint32_t) {
    STPReceivedMessage::Mark block;
    message.enterBlock(&block);
    const std::uint32_t id = message.readInt("id");
    const std::string_view name = wordOf(message, "name");
    const std::uint32_t flags = message.readInt("flags");
    message.leaveBlock(&block);
    if (name.empty()) return;
    if (STPMessageEntry* entry = mergeStep(table, from, name)) {
      entry->id = id;
      entry->flags = flags;
    } else {
      takeMessageEntry(name, id, flags);
    }
  });
}

// A message of the peer that this side doesn't know.
void STPSpecClass::takeMessageEntry(std::string_view name, std::uint32_t id, std::uint32_t flags) {
  const bool isFull = extraTable.size() >= kMostExtraMessages || extraBytes_ >= kMostExtraBytes;
  if (isFull && !extraIndex_.contains(name)) return;
  const auto [place, isNew] = extraIndex_.try_emplace(std::string(name), extraTable.size());
  if (isNew) {
    extraTable.push_back({place->first.c_str(), nullptr, id, flags});
    extraBytes_ += name.size();
  }
  STPMessageEntry& entry = extraTable[place->second];
  entry.id = id;
  entry.flags = flags;
}

void STPSpecClass::negotiateLocally() {
  std::int32_t tag = 0;
  for (std::int32_t& number : tagMap.edit()) number = tag++;
  std::uint32_t id = 0;
  for (STPMessageEntry& entry : sendTable.edit()) entry.id = id++;
  negotiated = true;
}

// Serves the transport until a message has set the flag or the virtual connection goes down, which
// `downText` tells.
void STPSpecClass::awaitFlag(const bool& flag, RetryHandler* retry, const char* downText,
                             STPStatus* status) {
  const Hold hold(this);
  const CountedPtr<STPTransport> link = transport;
  if (status) status->clear();
  // What failed before this wait and left the connection up is no reason to end it.
  if (!link->isClosed()) link->clearStatus();
  ++busy;
  bool hasFailed = false;
  const auto look = [&] {
    if (flag) return WaitState::reached;
    if (hasFailed) return WaitState::failed;
    if (isVirtualConnectionUp()) return WaitState::waiting;
    STPStatus::report(status, STP_FAILED, downText);
    return WaitState::failed;
  };
  const auto pass = [&] {
    link->serviceOnce(STP_WAIT_STEP, status);
    hasFailed = !link->status().good();
  };
  if (waitUntil(retry, WaitOrder::lookFirst, look, pass) == WaitState::gaveUp) {
    // The handler may have given up because the transport has failed, which says more.
    if (link->isClosed() && link->status().good()) link->serviceOnce(0);
    hasFailed = !link->status().good();
    STPStatus::report(status, hasFailed ? link->status().code : STP_TIMEOUT,
                      hasFailed ? link->status().message : kReplyTimeout);
  }
  --busy;
}

void STPSpecClass::awaitTags(RetryHandler* retry, STPStatus* status) {
  if (!transport) {
    STPStatus::report(status, STP_MISUSE, "[awaitTags]: cannot receive tags on NULL transport");
    return;
  }
  if (!receiveUp) {
    STPStatus::report(status, STP_FAILED, kNoTagsDown);
    return;
  }
  const Hold hold(this);
  // The record may have come before there was a listener for it.
  transport->redispatchUnclaimed(destinationRN, sourceRN, STP_NEGOTIATION);
  awaitFlag(negotiated, retry, kNoTagsDown, status);
}

void STPSpecClass::negotiate(RetryHandler* retry, STPStatus* status) {
  STPStatus outcome;
  sendNegotiate(true, retry, &outcome);
  if (outcome.good()) awaitTags(retry, &outcome);
  if (status) *status = outcome;
}

void STPSpecClass::awaitNegotiate(RetryHandler* retry, STPStatus* status) {
  if (!canSend(false, true, status)) return;
  const Hold hold(this);
  const CountedPtr<STPTransport> link = transport;
  link->enqueueMessage(
      *link->newMessage(sourceRN, destinationRN, STP_NEGOTIATION, STP_READY, STP_ONE_WAY));
  STPStatus outcome;
  awaitFlag(peerReady, retry, "[send]: virtual connection is down", &outcome);
  if (outcome.good()) peerReady = false;
  if (status) *status = outcome;
}

void STPSpecClass::fetchFormats(RetryHandler* retry, STPStatus* status) {
  if (!transport) {
    STPStatus::report(status, STP_MISUSE, "Attempted send before negotiation is complete.");
    return;
  }
  const Hold hold(this);
  const auto query = transport->newMessage(sourceRN, destinationRN, STP_NEGOTIATION,
                                           STP_FORMAT_QUERY, STP_WANTS_RESPONSE);
  const auto response = callStubMessage(*query, retry, status);
  if (response) readFormatRecord(*response);
}

void STPSpecClass::writeFormatRecord(STPMessage& message) const {
  message.writeArrayBegin(receiveCount, "msgs");
  for (std::int32_t i = 0; i < receiveCount; ++i) {
    message.writeBlockBegin();
    message.writeWord(receiveTable[i].name, "name");
    message.writeQuoted(receiveTable[i].fmt, "fmt");
    message.writeBlockEnd();
  }
  message.writeArrayEnd();
}

void STPSpecClass::readFormatRecord(STPReceivedMessage& message) {
  formatsFetched = true;
  if (!message.findAsciiField("msgs")) return;
  forEachElement(message, [&](std::uint32_t) {
    STPReceivedMessage::Mark block;
    message.enterBlock(&block);
    const std::string_view name = wordOf(message, "name");
    std::int32_t length = 0;
    const char* text = message.readQuoted("fmt", &length);
    message.leaveBlock(&block);
    if (!name.empty()) takeFormat(name, {text, static_cast<std::size_t>(length)});
  });
}

void STPSpecClass::takeFormat(std::string_view name, std::string_view format) {
  STPMessageEntry* entry = nullptr;
  std::vector<STPMessageEntry>& table = sendTable.edit();
  const auto place = std::lower_bound(
      table.begin(), table.end(), name,
      [](const STPMessageEntry& e, std::string_view text) { return e.name < text; });
  if (place != table.end() && place->name == name) {
    entry = &*place;
  } else if (const auto extra = extraIndex_.find(name); extra != extraIndex_.end()) {
    entry = &extraTable[extra->second];
  }
  if (!entry) return;
  std::string& owned = peerFormats_[entry->name];
  owned = format;
  entry->fmt = owned.c_str();
}
