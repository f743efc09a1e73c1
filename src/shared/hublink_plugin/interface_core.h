// The inside of a side of an interface: it speaks the protocol on behalf of an author's object
// (interface_side.h), which may go at any time, while calls and handlers of it are on the stack.
// For what stpc writes, not for the programs of authors.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "hublink_plugin/interface_codec.h"
#include "hublink_plugin/interface_side.h"
#include "hublink_plugin/open_questions.h"
#include "stp_transport/spec/stp_specclass.h"

namespace hublink {

/// The tables of one side.
struct SideTables {
  STPSpecTables spec;
  std::int32_t refusal;  ///< tag of the text that a refused call is answered with, or -1
};

/// One message of the table of those that are sent, with the flags of its packet.
struct SentMessage {
  std::uint32_t index;
  std::uint32_t packetFlags;
};

/// What a message is written from.
struct Fields {
  const void* object;
  void (*put)(FieldWriter& out, const void* object);

  template <class Struct>
  static Fields of(const Struct& fields) {
    return {&fields, [](FieldWriter& out, const void* source) {
              putFields(out, *static_cast<const Struct*>(source));
            }};
  }
};

class InterfaceCore : public STPSpecClass {
 public:
  InterfaceCore(const SideTables& tables, InterfaceSide* side);
  static InterfaceCore& of(InterfaceSide& side) { return *side.core_; }

  void attachTo(const std::shared_ptr<HublinkLink>& link);
  /// Takes over the object whose inside this is, until the link has ended and nothing of it is on
  /// the stack.
  void keep(std::unique_ptr<InterfaceSide> side);
  /// The object goes.
  void leave();

  /// Waits for the peer's record; false if it hasn't come.
  bool awaitRecord(int milliseconds);
  bool takesMessage(std::string_view name) const;
  bool hasField(std::string_view name) const;

  // --- For the calls of a side ---
  using Response = std::unique_ptr<STPReceivedMessage>;
  /// The response, or null with the reason in `error`.
  Response call(const SentMessage& sent, const Fields& fields, int milliseconds, Error& error);
  /// Gets the response, or null and the reason.
  using Answered = std::function<void(STPReceivedMessage* response, Error error)>;
  /// The same without waiting. What fails at once is told at once.
  void start(const SentMessage& sent, const Fields& fields, int milliseconds, Answered answered);
  std::optional<Error> send(const SentMessage& sent, const Fields& fields, int milliseconds);
  /// Whether a response says that the call was refused, and why.
  std::optional<Error> refusal(STPReceivedMessage& response) const;
  FieldReader reader(STPReceivedMessage& message) const { return {message, tagMap}; }
  std::int32_t refusalTag() const { return refusal_; }

 protected:
  ~InterfaceCore() override;
  void virtualConnectionDown() override;
  void peerRecordTaken() override;
  // A link has RNs of its own.
  std::int32_t defaultSourceRN() const override { return 0; }
  std::int32_t defaultDestinationRN() const override { return 0; }
  void handleAsciiMessage(STPReceivedMessage&, STPMessage*, std::uint32_t) override {}
  void handleBinaryMessage(STPReceivedMessage& message, STPMessage* reply,
                           std::uint32_t id) override;
  bool handleCommandMessage(STPReceivedMessage&, STPMessage*, std::uint32_t,
                            std::uint32_t) override {
    return false;
  }

 private:
  /// Gets the responses to calls that nobody waits for.
  class Responses : public ResponseListener {
   public:
    explicit Responses(InterfaceCore& core) : core_(core) {}
    bool handleMessage(STPReceivedMessage& message, bool exclusive) override;

   private:
    InterfaceCore& core_;
  };
  using CallNumber = std::uint64_t;
  /// A call that nobody waits for.
  struct OpenCall {
    std::uint32_t index = 0;
    std::unique_ptr<STPMessage> unsent;  ///< until the peer's record has come
    std::uint32_t sequence = 0;          ///< from then on
  };
  /// Is told its response; or null and why there is none, or that whyNotSent() tells.
  using CallHandler =
      std::function<void(STPReceivedMessage* response, std::optional<NoAnswer> reason)>;
  /// Keeps the object for as long as one of its calls or handlers is on the stack.
  class Busy;

  const char* nameOf(std::uint32_t index) const { return sendTable[index].name; }
  Error linkEnded(std::uint32_t index) const;
  Error timedOut(std::uint32_t index, int milliseconds) const;
  std::optional<Error> whyNotSent(std::uint32_t index, int milliseconds) const;
  std::unique_ptr<STPMessage> write(const SentMessage& sent, const Fields& fields,
                                    Error& error) const;
  bool isUp() const { return link_ && isVirtualConnectionUp(); }
  void sendStarted(CallNumber number);
  void forget(CallNumber number);
  void answer(STPReceivedMessage& response);
  void leaveLink();

  std::int32_t refusal_;
  InterfaceSide* side_;  // null when it has gone
  std::shared_ptr<InterfaceSide> kept_;
  std::shared_ptr<HublinkLink> link_;
  HublinkPlugin* plugin_ = nullptr;  // for as long as the link is up, or something is on the stack
  int depth_ = 0;                    // calls and handlers on the stack
  bool hasEnded_ = false;
  CallNumber lastCall_ = 0;
  std::optional<OpenQuestions<CallNumber, CallHandler>> questions_;  // once there is a link
  std::map<CallNumber, OpenCall> openCalls_;
  std::map<std::uint32_t, CallNumber> bySequence_;
  Responses responses_{*this};
};

/// A message for a side's handlers, and the way back for the reply.
class IncomingMessage {
 public:
  IncomingMessage(const InterfaceCore& core, STPReceivedMessage& message, STPMessage* reply,
                  std::uint32_t id)
      : core_(core), message_(message), reply_(reply), id_(id) {}

  /// Its index in the table of messages that the side receives.
  std::uint32_t id() const { return id_; }
  template <class Struct>
  Struct read() const {
    Struct fields;
    FieldReader in = core_.reader(message_);
    getFields(in, fields);
    return fields;
  }
  template <class Reply>
  void answer(const Result<Reply>& result) {
    if (result)
      answer(Fields::of(*result));
    else
      refuse(result.text());
  }

 private:
  void answer(const Fields& fields);
  void refuse(const std::string& why);

  const InterfaceCore& core_;
  STPReceivedMessage& message_;
  STPMessage* reply_;
  std::uint32_t id_;
};

template <class Reply>
Result<Reply> readReply(const InterfaceCore& core, STPReceivedMessage& response) {
  if (auto refused = core.refusal(response)) return *std::move(refused);
  Reply reply;
  FieldReader in = core.reader(response);
  getFields(in, reply);
  return reply;
}

template <class Reply, class Call>
Result<Reply> makeCall(InterfaceSide& side, const SentMessage& sent, const Call& call,
                       int milliseconds) {
  const CountedPtr<InterfaceCore> core(&InterfaceCore::of(side));
  Error error;
  const auto response = core->call(sent, Fields::of(call), milliseconds, error);
  if (!response) return error;
  return readReply<Reply>(*core, *response);
}

template <class Reply, class Call>
void startCall(InterfaceSide& side, const SentMessage& sent, const Call& call,
               ReplyHandler<Reply> handler, int milliseconds) {
  InterfaceCore* core = &InterfaceCore::of(side);
  core->start(sent, Fields::of(call), milliseconds,
              [core, handler = std::move(handler)](STPReceivedMessage* response, Error error) {
                if (!handler) return;
                if (response)
                  handler(readReply<Reply>(*core, *response));
                else
                  handler(std::move(error));
              });
}

template <class Message>
Result<void> sendMessage(InterfaceSide& side, const SentMessage& sent, const Message& message,
                         int milliseconds) {
  auto error = InterfaceCore::of(side).send(sent, Fields::of(message), milliseconds);
  if (error) return *std::move(error);
  return {};
}

}  // namespace hublink
