// One side of a spec (a named interface: field names and messages) on one transport.
//
// Nothing on the wire depends on numbers agreed in advance. Each side announces its field names and
// messages in a negotiate record; from then on it sends with its own tags and the peer's message
// numbers, and reads with the tag map made from the peer's record. The generated class of a side
// derives from this one and brings the tables, the receive dispatch and the send stubs.
//
// The object is counted. It holds a reference to its transport and registers a listener with it for
// the packet types of a spec. Messages can run nested inside a wait of the same object, and its
// last outside reference may be dropped meanwhile: it goes away when the stack unwinds.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "indgen/memory.h"
#include "libcxxutil/ut_retryhandler.h"
#include "stp_transport/log/stp_log.h"
#include "stp_transport/message/stp_received_message.h"
#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/spec/stp_shared_table.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/response_listener.h"
#include "stp_transport/transport/stp_status.h"

class STPTransport;

/// A message of a spec. In a receive table `id` and `flags` are this side's; in a send table and
/// among the peer's extra messages they are the peer's, `id` being the number that goes into the
/// packet, or STP_NO_MESSAGE if the peer doesn't take the message.
struct STPMessageEntry {
  const char* name;  ///< not owned
  const char* fmt;   ///< format string, may be null; not owned
  std::uint32_t id;
  std::uint32_t flags;

  bool operator==(const STPMessageEntry&) const = default;
};

/// The static tables of one side, as the generated class hands them over. Names are sorted by byte.
struct STPSpecTables {
  const char* specName;
  const char* sideName;
  const char* vstamp;
  std::uint32_t specFlags;
  const char* const* tagNames;
  std::int32_t tagCount;
  const STPMessageEntry* receiveTable;
  std::int32_t receiveCount;
  const STPMessageEntry* sendTable;  ///< copied, since negotiation writes into it
  std::int32_t sendCount;
};

class STPSpecClass;

/// The listener through which a transport reaches a spec.
class STPSpecClass_HandleMessages : public ResponseListener {
 public:
  explicit STPSpecClass_HandleMessages(STPSpecClass* spec) : spec_(spec) {}
  bool handleMessage(STPReceivedMessage& message, bool exclusive) override;
  void connectionEnded() override;
  /// Removes the listener from every registration with the spec's transport.
  ~STPSpecClass_HandleMessages() override;

 private:
  STPSpecClass* spec_;
};

class STPSpecClass {
 public:
  STPSpecClass(const STPSpecClass&) = delete;
  STPSpecClass& operator=(const STPSpecClass&) = delete;

  // --- Life ---
  void addRef();
  void release();
  /// Attaches to `transport`, or leaves the one held for null. An RN of 0 takes the side's default.
  void setTransport(STPTransport* transport, std::int32_t source = 0, std::int32_t destination = 0);
  /// Takes ownership of `handler` (not null), which later transports don't replace.
  virtual void setRetryHandler(RetryHandler* handler);
  virtual RetryHandler* getRetryHandler() { return retryHandler.get(); }
  /// Takes ownership of `handler` (not null), unless one was set explicitly.
  void setDefaultRetryHandler(RetryHandler* handler);
  /// Traces; not owned, null turns them off.
  void setLogs(STPLog* log);
  void setSendLog(STPLog* log) { sendLog = log; }
  void setReceiveLog(STPLog* log) { receiveLog = log; }

  STPTransport* getTransport() const { return transport.get(); }
  std::int32_t getSourceRN() const { return sourceRN; }
  std::int32_t getDestinationRN() const { return destinationRN; }
  std::int32_t getBusy() const { return busy; }
  bool isNegotiated() const { return negotiated; }
  /// What the peer has said of itself; null before its record came.
  const char* getPeerName() const { return peerName; }
  const char* getPeerVstamp() const { return peerVstamp; }

  // --- Negotiation ---
  /// Sends this side's record; with `writeNow` it tries to write it at once, without waiting.
  void sendNegotiate(bool writeNow, RetryHandler* retry, STPStatus* status);
  /// Waits for the peer's record.
  void awaitTags(RetryHandler* retry, STPStatus* status);
  /// sendNegotiate, then awaitTags.
  void negotiate(RetryHandler* retry, STPStatus* status);
  /// Declares both sides to be built from the same tables; no packet.
  void negotiateLocally();
  /// A barrier: each side has taken in the other's record before it goes on.
  void awaitNegotiate(RetryHandler* retry, STPStatus* status);
  /// Asks for the peer's format strings.
  void fetchFormats(RetryHandler* retry, STPStatus* status);
  /// Whether a message may be sent now; every stub asks first.
  bool canSend(bool needReceive, bool supported, STPStatus* status);

  // --- Tables ---
  std::int32_t messageCount() const { return receiveCount; }
  const char* messageName(std::int32_t index) const;  ///< the empty text if out of range
  /// Number of a message that this side receives, or -1.
  std::int32_t messageId(const char* name) const;
  std::int32_t messageId(const char* name, std::int32_t length) const;
  /// The message among those the peer takes, or null; valid until the next record comes.
  const STPMessageEntry* peerEntry(const char* name) const;
  const STPMessageEntry* peerEntry(const char* name, std::int32_t length) const;

  // --- Virtual connection: the spec's logical link, apart from the transport's ---
  void closeSend() { sendUp = false; }
  void closeReceive() { receiveUp = false; }
  /// Takes both directions down and calls virtualConnectionDown() if either was up.
  void virtualConnectionClose();
  bool isVirtualConnectionUp() const { return sendUp || receiveUp; }

  /// Runs a message that the transport delivers; false puts it off.
  bool handleMessage(STPReceivedMessage& message, std::uint32_t type, std::uint32_t id);

 protected:
  explicit STPSpecClass(const STPSpecTables& tables);
  virtual ~STPSpecClass();

  virtual void virtualConnectionDown() {}
  /// The peer's record gives its field names: this is the name of its tag `number`, from 0 on.
  virtual void peerTagTaken(std::uint32_t /*number*/, std::string_view /*name*/) {}
  /// A negotiate record of the peer has been taken in.
  virtual void peerRecordTaken() {}
  virtual std::int32_t defaultSourceRN() const = 0;
  virtual std::int32_t defaultDestinationRN() const = 0;
  /// `reply` is null unless the packet asked for a response.
  virtual void handleAsciiMessage(STPReceivedMessage& message, STPMessage* reply, std::uint32_t id);
  virtual void handleBinaryMessage(STPReceivedMessage& message, STPMessage* reply,
                                   std::uint32_t id);
  virtual bool handleCommandMessage(STPReceivedMessage& message, STPMessage* reply,
                                    std::uint32_t id, std::uint32_t action);

  // --- For the generated stubs ---
  /// True if the transport's own status holds a failure.
  bool transportFailed() const;
  /// A new outgoing binary message under the peer's number `id`.
  std::unique_ptr<STPMessage> newStubMessage(std::uint32_t id, std::uint32_t packetFlags) const;
  /// Sends a stub's message: waiting for it to leave, under `retry` with the condition that the
  /// virtual connection stays up, or queued only.
  void sendStubMessage(STPMessage& message, bool wait, RetryHandler* retry, STPStatus* status);
  /// Sends a two-way stub's message and waits for the response; null with the failure in `status`.
  std::unique_ptr<STPReceivedMessage> callStubMessage(STPMessage& message, RetryHandler* retry,
                                                      STPStatus* status);

  bool negotiated = false;
  bool formatsFetched = false;
  bool peerReady = false;
  CountedPtr<STPTransport> transport;
  std::int32_t sourceRN = 0;
  std::int32_t destinationRN = 0;
  STPLog* sendLog = nullptr;
  STPLog* receiveLog = nullptr;
  std::int32_t busy = 0;
  std::int32_t refCount = 1;
  bool dying = false;
  bool retrySet = false;
  /// Shared with the waits that use it: within one, another may take its place.
  std::shared_ptr<RetryHandler> retryHandler;
  const char* specName;
  std::int32_t tagCount;
  const char* const* tagNames;
  const char* sideName;
  const char* vstamp;
  std::uint32_t specFlags;
  std::int32_t receiveCount;
  const STPMessageEntry* receiveTable;
  gen_text peerName;
  gen_text peerVstamp;
  std::uint32_t peerFlags = 0;
  /// For each of this side's field names the number by which the peer knows it, or -1.
  STPSharedTable<std::int32_t> tagMap;
  STPSharedTable<STPMessageEntry> sendTable;
  /// Messages of the peer that this side doesn't know, in the order of the peer's list.
  std::vector<STPMessageEntry> extraTable;
  bool sendUp = true;
  bool receiveUp = true;
  std::int32_t deferredCount = 0;
  std::unique_ptr<STPSpecClass_HandleMessages> listener;

 private:
  friend class STPSpecClass_HandleMessages;

  void forgetDeferred();
  void awaitFlag(const bool& flag, RetryHandler* retry, const char* downText, STPStatus* status);
  void leaveTransport();
  void takeMessageEntry(std::string_view name, std::uint32_t id, std::uint32_t flags);
  void takeFormat(std::string_view name, std::string_view format);
  void writeNegotiateRecord(STPMessage& message) const;
  void readNegotiateRecord(STPReceivedMessage& message);
  void readTags(STPReceivedMessage& message);
  void readMessages(STPReceivedMessage& message);
  void writeFormatRecord(STPMessage& message) const;
  void readFormatRecord(STPReceivedMessage& message);
  void runMessage(STPReceivedMessage& message, STPMessage* reply, std::uint32_t type,
                  std::uint32_t id);

  // A record with a message list has come: what none has listed is marked as not taken.
  bool messagesListed_ = false;
  // Positions in extraTable by name; the entries' names point to the keys.
  std::map<std::string, std::size_t, std::less<>> extraIndex_;
  std::size_t extraBytes_ = 0;
  // Format strings that the peer has sent, by message name; entries point into them.
  std::map<std::string, std::string, std::less<>> peerFormats_;
};
