#include "hublink_plugin/hublink_plugin.h"

#include <algorithm>

#include "active_hub/plugin_options.h"
#include "hublink_plugin/countdown.h"
#include "hublink_plugin/hublink_plugin_spec.h"
#include "indgen/number.h"
#include "indgen/text.h"
#include "libcxxutil/ut_wait.h"
#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/readiness.h"
#include "stp_transport/retry/stp_retryhandler.h"
#include "stp_transport/transport/stp_byte_block.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

// Milliseconds between two tries to reach a hub that isn't there yet.
constexpr int kConnectPause = 20;
constexpr const char* kConnectionEnded = "the connection to the hub has ended";
constexpr const char* kTimedOut = "the hub hasn't answered in time";

// The texts as a message takes them, valid while they live.
std::vector<const char*> pointersOf(const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  return pointers;
}

StringArray arrayOf(const std::vector<const char*>& pointers) {
  return {static_cast<std::int32_t>(pointers.size()), pointers.data()};
}

}  // namespace

const char* outcomeText(ServiceReply::Outcome outcome) {
  switch (outcome) {
    case ServiceReply::Outcome::accepted:
      return "accepted";
    case ServiceReply::Outcome::refused:
      return "refused";
    case ServiceReply::Outcome::notFound:
      return "not found";
    case ServiceReply::Outcome::lostProvider:
      return "provider lost";
    case ServiceReply::Outcome::sharedObject:
      return "shared object";
    case ServiceReply::Outcome::timedOut:
      return "timed out";
    case ServiceReply::Outcome::disconnected:
      return "disconnected";
  }
  return "";
}

HublinkPlugin::HublinkPlugin()
    : replies_(timedCalls_,
               [](const ReplyHandler& tell, NoAnswer reason) {
                 ServiceReply reply;
                 if (reason == NoAnswer::timedOut) reply.outcome = ServiceReply::Outcome::timedOut;
                 tell(reply);
               }),
      providers_(timedCalls_, [](const ProviderHandler& tell, NoAnswer) { tell(-1); }),
      plugins_(timedCalls_,
               [](const PluginHandler& tell, NoAnswer reason) {
                 tell(-1, reason == NoAnswer::timedOut ? kTimedOut : kConnectionEnded);
               }),
      rns_(timedCalls_, [](const RNHandler& tell, NoAnswer) { tell({}); }),
      locations_(timedCalls_, [](const LocationHandler& tell, NoAnswer) { tell("", -1); }),
      values_(timedCalls_, [](const AnswerHandler& tell, NoAnswer) { tell(std::nullopt); }) {}

HublinkPlugin::~HublinkPlugin() {
  disconnect();
  handlePutOff();
  posted_.close();
  if (spec_) {
    spec_->detach();
    spec_->setTransport(nullptr);
  }
}

bool HublinkPlugin::isConnected() const {
  return transport_ && transport_->isConnected();
}

bool HublinkPlugin::connect(std::uint16_t port, std::string& error, const char* host,
                            int milliseconds) {
  disconnect();
  const Countdown countdown(milliseconds);
  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  for (;;) {
    reach(*transport, host, port, &status);
    if (status.good())
      return takesHub(*transport, port, error) && attach(transport.get(), error, countdown.left());
    if (countdown.left() == 0) {
      error = status.message;
      return false;
    }
    platform::sleepMilliseconds(kConnectPause);
  }
}

void HublinkPlugin::reach(STPTransport& transport, const char* host, std::uint16_t port,
                          STPStatus* status) const {
  transport.connect(host, port, status, !tcpOnly_);
}

bool HublinkPlugin::takesHub(const STPTransport& transport, std::uint16_t port,
                             std::string& error) const {
  if (anyUser_) return true;
  const platform::PeerUser hub = platform::userOfServer(transport.fileDescriptor());
  if (hub.kind == platform::PeerUser::Kind::elsewhere || hub.isOwn()) return true;
  error = "the hub on port " + std::to_string(port);
  if (hub.kind == platform::PeerUser::Kind::known)
    error += " runs as another user (" + std::to_string(hub.user) + ")";
  else
    error += " has gone, or its user can't be told";
  return false;
}

bool HublinkPlugin::attach(STPTransport* transport, std::string& error, int milliseconds) {
  disconnect();
  if (spec_) {
    spec_->detach();
    spec_->setTransport(nullptr);
  }
  transport_ = CountedPtr<STPTransport>(transport);
  transport_->setPacketSink(packetSink_);
  owesEnd_ = true;
  spec_ = makeCounted<HublinkPluginSpec>(this);
  pluginID_ = -1;
  logKept_ = false;
  spec_->setTransport(transport, STP_PLUGIN_RN, STP_HUB_RN);
  STPStatus status;
  spec_->sendNegotiate(true, nullptr, &status);
  serveUntil([this] { return pluginID_ != -1; }, milliseconds);
  if (pluginID_ != -1) return true;
  error = isConnected() ? "the hub has given no plugin ID in time" : transport->status().message;
  disconnect();
  return false;
}

void HublinkPlugin::disconnect() {
  if (!transport_) return;
  flush();
  transport_->disconnect();
  connectionEnded();
}

Hublink_plugin_Impl& HublinkPlugin::hub() {
  return *spec_;
}

void HublinkPlugin::setPersistent(bool persistent) {
  if (isConnected()) spec_->PersistentService(persistent);
}

template <class Key, class Handler>
bool HublinkPlugin::ask(OpenQuestions<Key, Handler>& questions, std::type_identity_t<Key> key,
                        std::type_identity_t<Handler> handler, int milliseconds,
                        std::type_identity_t<Handler> late) {
  const bool goes = isConnected();
  if (goes)
    questions.ask(std::move(key), std::move(handler), milliseconds, std::move(late));
  else
    questions.fail(handler, NoAnswer::disconnected);
  return goes;
}

std::int32_t HublinkPlugin::registerService(const std::string& name, LinkHandler connected,
                                            AcceptHandler accept, int milliseconds) {
  const auto serviceRN = std::make_shared<std::optional<std::int32_t>>();
  const auto answered = [this, serviceRN,
                         service = Service{name, std::move(connected), std::move(accept)}](
                            const std::vector<std::int32_t>& list) {
    *serviceRN = list.empty() ? -1 : list.front();
    if (!list.empty()) services_[list.front()] = service;
  };
  const auto withdraw = [this](const std::vector<std::int32_t>& list) {
    for (const std::int32_t rn : list) spec_->UnregisterService(rn);
  };
  if (!ask(rns_, {}, answered, milliseconds, withdraw)) return -1;
  const char* text = name.c_str();
  spec_->RegisterServiceList({1, &text});
  serveUntil([&] { return serviceRN->has_value(); }, -1);
  return serviceRN->value_or(-1);
}

void HublinkPlugin::offerRN(std::int32_t rn, LinkHandler connected, AcceptHandler accept) {
  services_[rn] = {"", std::move(connected), std::move(accept)};
}

void HublinkPlugin::unregisterService(std::int32_t serviceRN) {
  if (services_.erase(serviceRN) == 0 || !isConnected()) return;
  spec_->UnregisterService(serviceRN);
}

ServiceReply HublinkPlugin::requestService(const ServiceQuery& query, int milliseconds) {
  const auto reply = std::make_shared<std::optional<ServiceReply>>();
  requestService(
      query, [reply](const ServiceReply& answer) { *reply = answer; }, milliseconds);
  serveUntil([&] { return reply->has_value(); }, -1);
  return reply->value_or(ServiceReply());
}

std::int32_t HublinkPlugin::requestService(const ServiceQuery& query, ReplyHandler handler,
                                           int milliseconds) {
  const std::int32_t cookie = ++lastCookie_;
  if (!ask(replies_, cookie, std::move(handler), milliseconds)) return -1;
  const auto pairs = pointersOf(query.nameValuePairs);
  spec_->RequestServiceConnection(query.serviceName.c_str(), query.providingPluginID,
                                  arrayOf(pairs),
                                  query.workingDir ? query.workingDir->c_str() : nullptr,
                                  query.localOnly, cookie, query.noReuse, query.clientStart);
  return cookie;
}

void HublinkPlugin::reserveRNs(std::int32_t count, RNHandler handler, int milliseconds) {
  const auto giveBack = [this](const std::vector<std::int32_t>& list) {
    for (const std::int32_t rn : list) spec_->ReleaseRN(rn);
  };
  if (ask(rns_, {}, std::move(handler), milliseconds, giveBack)) spec_->ReserveRNBlock(count);
}

void HublinkPlugin::requestLocation(LocationHandler handler, int milliseconds) {
  const auto ignore = [](const std::string&, std::int32_t) {};
  if (ask(locations_, {}, std::move(handler), milliseconds, ignore)) spec_->RequestLocation();
}

void HublinkPlugin::requestProvider(const std::string& serviceName, const char* workingDir,
                                    bool startIfNotRunning, ProviderHandler handler,
                                    int milliseconds) {
  const std::int32_t cookie = ++lastCookie_;
  if (ask(providers_, cookie, std::move(handler), milliseconds))
    spec_->RequestPluginIdForService(cookie, serviceName.c_str(), workingDir, startIfNotRunning);
}

void HublinkPlugin::requestValue(std::int32_t pluginID, const std::string& name,
                                 AnswerHandler handler, int milliseconds) {
  if (ask(values_, {pluginID, name}, std::move(handler), milliseconds))
    spec_->RequestValueOfNameOnPlugin(pluginID, name.c_str());
}

void HublinkPlugin::requestPluginLaunch(const std::vector<std::string>& command,
                                        const char* workingDir, PluginHandler handler,
                                        int milliseconds) {
  const std::int32_t cookie = ++lastCookie_;
  if (!ask(plugins_, cookie, std::move(handler), milliseconds)) return;
  const auto texts = pointersOf(command);
  spec_->RequestPluginLaunch(arrayOf(texts), cookie, false, workingDir);
}

void HublinkPlugin::requestPluginConnect(const std::string& host, std::uint16_t port,
                                         PluginHandler handler, int milliseconds) {
  const std::int32_t cookie = ++lastCookie_;
  if (ask(plugins_, cookie, std::move(handler), milliseconds))
    spec_->RequestPluginConnect(host.c_str(), port, cookie);
}

std::optional<PluginCounts> HublinkPlugin::countPlugins(int milliseconds) {
  if (!isConnected()) return std::nullopt;
  const Countdown countdown(milliseconds);
  STPRetryHandler limit(transport_.get());
  limit.setStep([&] { return serve(countdown.step()) && countdown.left() != 0; });
  PluginCounts counts;
  if (!spec_->NumPersistentServices(&counts.persistent, &counts.total, &limit)) return std::nullopt;
  return counts;
}

void HublinkPlugin::run() {
  stopped_ = false;
  while (!stopped_ && serve(STP_WAIT_STEP)) {
  }
}

bool HublinkPlugin::serve(int milliseconds) {
  if (isConnected()) {
    const CountedPtr<STPTransport> hold = transport_;
    const int due = nextTimeout();
    hold->serviceOnce(due >= 0 && (milliseconds < 0 || due < milliseconds) ? due : milliseconds);
  } else {
    bool failed = false;  // takes in what has woken a loop
    platform::readiness().wait(0, failed);
  }
  if (!isConnected()) connectionEnded();
  handlePutOff();
  tellRoom();
  posted_.callAll();
  timedCalls_.callDue();
  STPByteBlock::freeUnused();
  return isConnected();  // a handler may have connected again
}

int HublinkPlugin::descriptor() const {
  return platform::readiness().descriptor();
}

int HublinkPlugin::nextTimeout() const {
  const bool hasToStep = owesEnd_ && (!isConnected() || transport_->hasToStep());
  if (hasToStep || hasToHandle()) return 0;
  const int due = timedCalls_.next(), limit = STPByteBlock::sleepLimit();
  return due < 0 || (limit >= 0 && limit < due) ? limit : due;
}

bool HublinkPlugin::serveUntil(const std::function<bool()>& done, int milliseconds) {
  const Countdown countdown(milliseconds);
  bool goesOn = true;
  const auto look = [&] {
    if (done()) return WaitState::reached;
    return goesOn && countdown.left() != 0 ? WaitState::waiting : WaitState::failed;
  };
  const auto pass = [&] { goesOn = serve(countdown.step()); };
  return waitUntil(nullptr, WaitOrder::lookFirst, look, pass) == WaitState::reached;
}

void HublinkPlugin::flush() {
  while (wantsWrite()) {
    const std::int64_t before = transport_->writeCount();
    transport_->handleWrite();
    if (transport_->writeCount() >= before) return;
  }
}

void HublinkPlugin::setSendLimit(std::int64_t bytes) {
  sendLimit_ = bytes;
  full_ = false;
}

bool HublinkPlugin::wantsWrite() const {
  return transport_ && transport_->isWritePending();
}

void HublinkPlugin::carryPackets(PacketSink* sink) {
  packetSink_ = sink;
  if (transport_) transport_->setPacketSink(sink);
}

void HublinkPlugin::sendPackets(const unsigned char* packets, std::int64_t size) {
  if (isConnected()) transport_->queuePackets(packets, size);
}

void HublinkPlugin::setReading(bool flag) {
  if (transport_) transport_->setReading(flag);
}

std::int64_t HublinkPlugin::waitingBytes() const {
  return wantsWrite() ? transport_->writeCount() : 0;
}

bool HublinkPlugin::isFull() {
  if (full_ && waitingBytes() <= sendLimit_ / 2) {
    full_ = false;
    ++rooms_;
  } else if (!full_ && sendLimit_ > 0 && waitingBytes() >= sendLimit_) {
    full_ = true;
  }
  return full_;
}

// Room that has been there in between counts: handlers that run meanwhile may use up all of it
// again and again.
bool HublinkPlugin::awaitRoom(const std::function<bool()>& isVain, int milliseconds) {
  const std::uint64_t before = rooms_;
  const int waiting = packetDepth_ > 0 ? 1 : 0;
  waitingHandlers_ += waiting;
  flush();
  const bool isThere =
      serveUntil([&] { return isVain() || !isFull() || rooms_ != before; }, milliseconds);
  waitingHandlers_ -= waiting;
  return isThere;
}

void HublinkPlugin::tellRoom() {
  while (!roomAwaited_.empty() && !isFull()) {
    const auto link = roomAwaited_.front().lock();
    roomAwaited_.pop_front();
    if (link) link->tellRoom();
  }
}

void HublinkPlugin::handlePutOff() {
  while (waitingHandlers_ == 0 && !putOff_.empty()) {
    const auto next = std::move(putOff_.front());
    putOff_.pop_front();
    next();
  }
}

bool HublinkPlugin::hasToHandle() const {
  if (!posted_.isEmpty()) return true;
  if (!putOff_.empty() && waitingHandlers_ == 0) return true;
  return !roomAwaited_.empty() && (!full_ || waitingBytes() <= sendLimit_ / 2);
}

std::shared_ptr<HublinkLink> HublinkPlugin::openLink(std::int32_t localRN, std::int32_t remoteRN,
                                                     std::int32_t peerPluginID,
                                                     const std::string& serviceName, bool ownsRN) {
  std::shared_ptr<HublinkLink> link(
      new HublinkLink(this, localRN, remoteRN, peerPluginID, serviceName, ownsRN));
  links_[{localRN, remoteRN}] = link;
  return link;
}

void HublinkPlugin::connectionRequested(const ConnectionRequest& request, std::int32_t serviceRN,
                                        std::int32_t remoteRN) {
  const auto place = services_.find(serviceRN);
  if (place == services_.end()) {
    spec_->ConnectionAcceptedEvent(serviceRN, remoteRN, false);
    return;
  }
  const Service service = place->second;  // a handler may withdraw it
  ConnectionRequest named = request;
  named.serviceName = service.name;
  const CountedPtr<STPTransport> asked = transport_;
  const bool accepted = !service.accept || service.accept(named);
  if (transport_.get() != asked.get() || !isConnected()) return;
  if (!accepted) {
    spec_->ConnectionAcceptedEvent(serviceRN, remoteRN, false);
    return;
  }
  // The link listens before the other side can hear of it, and speaks after.
  const auto link = openLink(serviceRN, remoteRN, named.requestingPluginID, service.name, false);
  spec_->ConnectionAcceptedEvent(serviceRN, remoteRN, true);
  if (service.connected) service.connected(link);
}

void HublinkPlugin::connectionReplied(std::int32_t cookie, const ServiceReply& reply,
                                      std::int32_t localRN, std::int32_t serviceRN,
                                      const std::string& serviceName) {
  ServiceReply answer = reply;
  if (reply.outcome == ServiceReply::Outcome::accepted)
    answer.link = openLink(localRN, serviceRN, reply.pluginID, serviceName, true);
  else if (localRN != -1)
    spec_->ReleaseRN(localRN);
  const bool isAwaited = replies_.answer(cookie, answer);
  if (!isAwaited && answer.link) answer.link->close();
}

void HublinkPlugin::connectionDropped(std::int32_t localRN, std::int32_t remoteRN) {
  const auto place = links_.find({localRN, remoteRN});
  if (place == links_.end()) return;
  const std::shared_ptr<HublinkLink> link = place->second;
  // Packets may wait for a call to return, but the end of their link doesn't.
  link->takeRest();
  if (!link->isUp()) return;
  links_.erase({localRN, remoteRN});
  if (link->ownsRN_) spec_->ReleaseRN(localRN);
  link->end();
}

void HublinkPlugin::closeLink(HublinkLink& link) {
  const auto node = links_.extract({link.localRN_, link.remoteRN_});
  if (isConnected()) {
    spec_->DropServiceConnection(link.localRN_, link.remoteRN_);
    if (link.ownsRN_) spec_->ReleaseRN(link.localRN_);
  }
  link.end();
}

// Nothing will be answered any more. All tables are taken first: a handler may connect again, and
// what it asks and offers then belongs to the new connection.
void HublinkPlugin::connectionEnded() {
  if (!std::exchange(owesEnd_, false)) return;
  const auto links = std::exchange(links_, {});
  const std::function<void()> failures[] = {replies_.takeAll(),   rns_.takeAll(),
                                            providers_.takeAll(), plugins_.takeAll(),
                                            values_.takeAll(),    locations_.takeAll()};
  services_.clear();
  for (const auto& [key, link] : links) link->end();
  for (const auto& tell : failures) tell();
}

std::uint16_t hublinkPortArgument(int argc, char** argv) {
  for (int i = 1; i + 1 < argc; ++i)
    if (gen_equal_nocase(argv[i], plugin_options::kHubPort)) {
      const std::uint32_t port = gen_strtoul(argv[i + 1], nullptr, 0);
      return port <= UINT16_MAX ? static_cast<std::uint16_t>(port) : std::uint16_t{0};
    }
  return 0;
}
