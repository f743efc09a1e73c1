#include "hublink_plugin/interface_core.h"

#include <algorithm>
#include <vector>

#include "hublink_plugin/countdown.h"
#include "hublink_plugin/hublink_plugin.h"
#include "stp_transport/retry/stp_retryhandler.h"

namespace hublink {
namespace {

using Hold = CountedPtr<InterfaceCore>;

}  // namespace

class InterfaceCore::Busy {
 public:
  explicit Busy(InterfaceCore& core) : core_(&core) { ++core_->depth_; }
  ~Busy() {
    if (--core_->depth_ == 0 && core_->hasEnded_) core_->leaveLink();
  }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  const Hold core_;
};

InterfaceCore::InterfaceCore(const SideTables& tables, InterfaceSide* side)
    : STPSpecClass(tables.spec), refusal_(tables.refusal), side_(side) {}

InterfaceCore::~InterfaceCore() {
  if (getTransport()) getTransport()->removeListener(&responses_);
}

void InterfaceCore::attachTo(const std::shared_ptr<HublinkLink>& link) {
  const Busy held(*this);
  link_ = link;
  plugin_ = link->plugin_;
  if (plugin_)
    questions_.emplace(plugin_->timedCalls_, [](const CallHandler& handler, NoAnswer reason) {
      handler(nullptr, reason);
    });
  link->attach(this);
  if (!link->isUp()) return;
  getTransport()->addListener(destinationRN, sourceRN, &responses_, STP_RESPONSE);
  sendNegotiate(false, nullptr, nullptr);
}

void InterfaceCore::keep(std::unique_ptr<InterfaceSide> side) {
  kept_ = std::move(side);
}

// Handlers that are forgotten may hold anything, this object included.
void InterfaceCore::leave() {
  const Busy held(*this);
  side_ = nullptr;
  openCalls_.clear();
  bySequence_.clear();
  if (questions_) const auto forgotten = questions_->takeAll();
}

// Nothing is on the stack any more. Whoever called may still be a function of the object, so that
// it goes in the plugin's next step.
void InterfaceCore::leaveLink() {
  if (getTransport()) {
    getTransport()->removeListener(&responses_);
    setTransport(nullptr);
  }
  if (kept_ && plugin_) plugin_->callLater(0, [kept = kept_] {});
  kept_ = nullptr;
  plugin_ = nullptr;
}

bool InterfaceCore::awaitRecord(int milliseconds) {
  if (negotiated || !isUp()) return negotiated;
  const Busy held(*this);
  plugin_->serveUntil([this] { return negotiated || !isUp(); }, milliseconds);
  return negotiated;
}

bool InterfaceCore::takesMessage(std::string_view name) const {
  const STPMessageEntry* entry = peerEntry(name.data(), static_cast<std::int32_t>(name.size()));
  return negotiated && entry && entry->id != STP_NO_MESSAGE;
}

bool InterfaceCore::hasField(std::string_view name) const {
  for (std::int32_t i = 0; i < tagCount; ++i)
    if (tagNames[i] == name) return negotiated && tagMap[static_cast<std::size_t>(i)] >= 0;
  return false;
}

Error InterfaceCore::linkEnded(std::uint32_t index) const {
  std::string text = nameOf(index);
  text += link_ ? ": the link to plugin " + std::to_string(link_->peerPluginID()) + " has ended"
                : ": there is no link";
  return {Failure::linkEnded, std::move(text)};
}

Error InterfaceCore::timedOut(std::uint32_t index, int milliseconds) const {
  std::string text = nameOf(index);
  text += ": no ";
  text += negotiated ? "answer" : "word on what it knows";
  text += " of plugin " + std::to_string(link_->peerPluginID()) + " within " +
          std::to_string(milliseconds) + " ms";
  return {Failure::timedOut, std::move(text)};
}

std::optional<Error> InterfaceCore::whyNotSent(std::uint32_t index, int milliseconds) const {
  if (!isUp()) return linkEnded(index);
  if (!negotiated) return timedOut(index, milliseconds);
  if (sendTable[index].id != STP_NO_MESSAGE || (peerFlags & STP_TAKES_UNLISTED))
    return std::nullopt;
  return Error{Failure::notSupported, "plugin " + std::to_string(link_->peerPluginID()) +
                                          " doesn't take " + nameOf(index)};
}

std::unique_ptr<STPMessage> InterfaceCore::write(const SentMessage& sent, const Fields& fields,
                                                 Error& error) const {
  auto message = newStubMessage(sendTable[sent.index].id, sent.packetFlags);
  FieldWriter out(*message);
  fields.put(out, fields.object);
  const std::optional<Failure> fault = out.fault();
  if (!fault) return message;
  error = {*fault, nameOf(sent.index) + std::string(": ") + failureText(*fault)};
  return nullptr;
}

InterfaceCore::Response InterfaceCore::call(const SentMessage& sent, const Fields& fields,
                                            int milliseconds, Error& error) {
  const Busy held(*this);
  const Countdown countdown(milliseconds);
  awaitRecord(milliseconds);
  if (auto why = whyNotSent(sent.index, milliseconds)) {
    error = *std::move(why);
    return nullptr;
  }
  const auto message = write(sent, fields, error);
  if (!message) return nullptr;
  STPRetryHandler limit(transport.get());
  limit.setStep([&] { return plugin_->serve(countdown.step()) && countdown.left() != 0; });
  auto response = callStubMessage(*message, &limit, nullptr);
  if (!response) error = isUp() ? timedOut(sent.index, milliseconds) : linkEnded(sent.index);
  return response;
}

std::optional<Error> InterfaceCore::send(const SentMessage& sent, const Fields& fields,
                                         int milliseconds) {
  const Busy held(*this);
  const Countdown countdown(milliseconds);
  awaitRecord(milliseconds);
  if (auto why = whyNotSent(sent.index, milliseconds)) return why;
  if (!link_->awaitRoom(countdown.left())) {
    if (!isUp()) return linkEnded(sent.index);
    return Error{Failure::timedOut, nameOf(sent.index) +
                                        std::string(": what was sent before hasn't gone within ") +
                                        std::to_string(milliseconds) + " ms"};
  }
  Error error;
  const auto message = write(sent, fields, error);
  if (!message) return error;
  sendStubMessage(*message, false, nullptr, nullptr);
  return std::nullopt;
}

void InterfaceCore::start(const SentMessage& sent, const Fields& fields, int milliseconds,
                          Answered answered) {
  const Busy held(*this);
  std::optional<Error> why;
  if (!isUp() || negotiated) why = whyNotSent(sent.index, milliseconds);
  OpenCall open;
  Error error;
  if (!why && !(open.unsent = write(sent, fields, error))) why = std::move(error);
  if (why) {
    answered(nullptr, *std::move(why));
    return;
  }
  const CallNumber number = ++lastCall_;
  open.index = sent.index;
  openCalls_.emplace(number, std::move(open));
  questions_->ask(
      number,
      [this, number, index = sent.index, milliseconds, answered = std::move(answered)](
          STPReceivedMessage* response, std::optional<NoAnswer> reason) {
        const Busy busyWithIt(*this);
        forget(number);
        if (response)
          answered(response, {});
        else if (reason == NoAnswer::timedOut)
          answered(nullptr, timedOut(index, milliseconds));
        else if (side_)  // it may have gone by one of those that are told before
          answered(nullptr, whyNotSent(index, milliseconds).value_or(linkEnded(index)));
      },
      milliseconds);
  if (negotiated) sendStarted(number);
}

void InterfaceCore::forget(CallNumber number) {
  const auto node = openCalls_.extract(number);
  if (!node.empty()) bySequence_.erase(node.mapped().sequence);
}

void InterfaceCore::sendStarted(CallNumber number) {
  OpenCall& open = openCalls_.at(number);
  const auto message = std::move(open.unsent);
  message->header.id = sendTable[open.index].id;
  bySequence_.emplace(transport->enqueueMessage(*message), number);
  open.sequence = message->header.sequence;
}

void InterfaceCore::peerRecordTaken() {
  const Busy held(*this);
  std::vector<std::pair<CallNumber, std::uint32_t>> unsent;
  for (const auto& [number, open] : openCalls_)
    if (open.unsent) unsent.emplace_back(number, open.index);
  for (const auto& [number, index] : unsent) {
    if (!openCalls_.contains(number)) continue;
    if (whyNotSent(index, 0))
      questions_->answer(number, nullptr, std::nullopt);
    else
      sendStarted(number);
  }
}

void InterfaceCore::answer(STPReceivedMessage& response) {
  const auto place = bySequence_.find(response.header.responseTo);
  // Otherwise its call has given up.
  if (place != bySequence_.end()) questions_->answer(place->second, &response, std::nullopt);
}

bool InterfaceCore::Responses::handleMessage(STPReceivedMessage& message, bool exclusive) {
  if (!exclusive) return true;  // somebody waits for it
  if (!core_.getTransport()->canDeliver(message)) return false;
  core_.answer(message);
  return true;
}

void InterfaceCore::handleBinaryMessage(STPReceivedMessage& message, STPMessage* reply,
                                        std::uint32_t id) {
  if (!side_) return;
  const Busy held(*this);
  IncomingMessage incoming(*this, message, reply, id);
  side_->receive(incoming);
}

// The link has ended. What a wait has put off comes before that is told, as packets do.
void InterfaceCore::virtualConnectionDown() {
  const Busy held(*this);
  while (transport) {
    const auto message = transport->takeDeferred(destinationRN, sourceRN, STP_BINARY);
    if (!message) break;
    handleBinaryMessage(*message, nullptr, message->header.id);
    if (deferredCount > 0 && --deferredCount == 0) release();
  }
  while (transport) {
    const auto response = transport->takeDeferred(destinationRN, sourceRN, STP_RESPONSE);
    if (!response) break;
    answer(*response);
  }
  if (questions_) questions_->takeAll()();
  hasEnded_ = true;
  if (side_) side_->onEnd();
}

std::optional<Error> InterfaceCore::refusal(STPReceivedMessage& response) const {
  auto why = reader(response).textIfThere(refusal_);
  if (!why) return std::nullopt;
  return refuse(*std::move(why));
}

void IncomingMessage::answer(const Fields& fields) {
  if (!reply_) return;
  FieldWriter out(*reply_);
  fields.put(out, fields.object);
  const std::optional<Failure> fault = out.fault();
  if (!fault) return;
  reply_->dropFields();
  refuse(std::string("the reply: ") + failureText(*fault));
}

void IncomingMessage::refuse(const std::string& why) {
  // A text ends at its first zero, and nobody reads one that fills a packet.
  constexpr std::size_t kMostBytes = 1 << 20;
  if (reply_ && core_.refusalTag() >= 0)
    reply_->putText(core_.refusalTag(), why.substr(0, std::min(why.find('\0'), kMostBytes)));
}

}  // namespace hublink
