#include "services/hublink_bridge/bridge.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "generated/hublink_plugin_impl.h"
#include "platform/clock.h"
#include "platform/descriptor_wait.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/readiness.h"
#include "services/hublink_bridge/names.h"

namespace bridge {

namespace {

constexpr const char* kSession = "session";
// How long the realm may take to make itself known to a bridge that has come, which is no less than
// until that one announces itself, and how long that may take with a server that isn't there, in
// ms.
constexpr int kSettleTime = 500;
constexpr int kMostSettleTime = 3000;
// Bounds of how long a NATS server may be silent, in ms: less could be a line's bad moment.
constexpr std::int64_t kLeastSilence = 4500;
constexpr std::int64_t kMostSilence = 10000;
// How often a hub is looked for that isn't there, in ms.
constexpr std::int64_t kHubInterval = 1000;
// For the hub's first answer, in ms.
constexpr int kHubTime = 5000;
// The most bytes of a session's message: larger ones cost the servers more than they gain.
constexpr std::int64_t kMostMessage = 256 << 10;
// What a server may lay on top of a message.
constexpr std::int64_t kSlack = 1024;
// Freed memory is given back after this many ms without more bytes of links than these.
constexpr int kQuietTime = 2000;
constexpr std::uint64_t kLittle = 256 << 10;

}  // namespace

std::int64_t clockNow() {
  return static_cast<std::int64_t>(platform::monotonicMilliseconds());
}

Bridge::Bridge(Options options)
    : options_(std::move(options)),
      desk_(wishes_),
      exports_(options_.exports, options_.exportValues, [this] { announcer_.exportsChanged(); }),
      members_(*this, options_.grace + Session::kSilence),
      nats_(*this, [this] { plugin_.post([] {}); }),
      sessions_(*this, [this](const std::string& machine, const unsigned char* message,
                              std::size_t size) { return sendTo(machine, message, size); }),
      standIns_(*this, desk_),
      links_([this](Link& link) { linkEnded(link); }),
      parts_{plugin_, desk_, exports_, members_, sessions_, standIns_, links_},
      wishes_(parts_),
      visits_(parts_),
      values_(parts_),
      announcer_(nats_, members_, exports_, options_.realm, options_.machine,
                 [this] {
                   stop(1, "the realm " + options_.realm + " has another bridge of the name " +
                               options_.machine);
                 }),
      realm_(parts_, nats_, options_) {
  members_.setImports(options_.imports);
}

Bridge::~Bridge() {
  nats_.close();
  standIns_.disconnectAll();
  plugin_.disconnect();
}

void Bridge::tell(const std::string& text) const {
  std::fprintf(stderr, "hublink-bridge: %s\n", text.c_str());
}

// --- The hub ---

bool Bridge::connectHub(std::string& error) {
  HubSearch found = HubSearch::none;
  if (options_.hubPort != 0)
    found = joinHubOnPort(plugin_, options_.hubPort, error);
  else if (options_.keepsHub)
    found = joinOrStartHub(plugin_, options_.hub, error);
  else
    found = joinHub(plugin_, options_.hub, error);
  if (found != HubSearch::joined && found != HubSearch::started) return false;
  plugin_.setPersistent(options_.keepsHub);
  std::int32_t port = -1;
  bool isAnswered = false;
  plugin_.requestLocation([&](const std::string&, std::int32_t hubPort) {
    port = hubPort;
    isAnswered = true;
  });
  plugin_.serveUntil([&] { return isAnswered; }, kHubTime);
  if (port <= 0) {
    error = "the hub doesn't tell where it listens";
  } else if (standIns_.setHubPort(static_cast<std::uint16_t>(port));
             desk_.open(plugin_, error) && exports_.watch(plugin_, error) && realm_.open(error)) {
    hasHub_ = true;
    return true;
  }
  leaveHub();
  return false;
}

// Also if all of it is only half there.
void Bridge::leaveHub() {
  hasHub_ = isTold_ = false;
  plugin_.disconnect();  // first: who has asked something is told that there is no answer
  wishes_.clear();
  visits_.clear();
  standIns_.disconnectAll();
  desk_.close();
  exports_.unwatch();
}

void Bridge::hubGone() {
  leaveHub();
  if (options_.hubPort != 0)
    stop(0, "the hub has gone");
  else
    tell("the hub has gone");
  hubDue_ = clockNow() + kHubInterval;
}

void Bridge::watchHub() {
  if (hasHub_ && !plugin_.isConnected()) hubGone();
  if (hasHub_ || stops_ || clockNow() < hubDue_) return;
  std::string error;
  if (!connectHub(error)) hubDue_ = clockNow() + kHubInterval;
}

// --- NATS ---

void Bridge::natsState(bool isConnected, const std::string& text) {
  realm_.natsState(isConnected, text);
  if (isConnected) {
    SessionOptions session;
    session.grace = options_.grace;
    session.maxMessage = static_cast<std::size_t>(std::clamp<std::int64_t>(
        nats_.maxPayload() - kSlack, Session::kLeastMaxMessage, kMostMessage));
    sessions_.setOptions(session);
    announcer_.connected(clockNow());
    plugin_.callLater(kSettleTime, [this] { wishes_.settle(); });
  }
  sessions_.carrierChanged(isConnected, clockNow());
  if (isTold_ || !isConnected) tell(isConnected ? "connected to " + text : "NATS: " + text);
}

void Bridge::natsMessage(const NatsMessage& message) {
  const auto subject = readSubject(options_.realm, message.subject());
  if (!subject) return;
  const std::int64_t now = clockNow();
  const std::string from(subject->from);
  if (subject->what == kSession) {
    if (subject->to != options_.machine || from == options_.machine) return;
    // It may be for another bridge of this name.
    if (!announcer_.isAnnounced()) return;
    // Who hasn't said what he is has no session; he sends again.
    if (!members_.heard(from, now)) {
      announcer_.ask(from);
      return;
    }
    noteTraffic(message.size());
    arrived_.assign(message.bytes(), message.bytes() + message.size());
    sessions_.take(from, arrived_.data(), arrived_.size(), now);
    return;
  }
  if (announcer_.take(*subject, message, now)) {
    members_.heard(from, now);
    sessions_.heard(from, now);
  }
}

void Bridge::memberCame(const std::string& machine) {
  announcer_.memberCame(machine);
}

void Bridge::memberGone(const std::string& machine, const std::string& why) {
  announcer_.memberGone(machine);
  sessions_.endAll(machine, machine + " has gone: " + why);
}

// --- Sessions ---

bool Bridge::sendTo(const std::string& machine, const unsigned char* message, std::size_t size) {
  return announcer_.isAnnounced() && nats_.hasRoom(size) &&
         nats_.publish(subjectOf(options_.realm, machine, options_.machine, kSession), message,
                       size);
}

bool Bridge::transmit(Session& session, const unsigned char* message, std::size_t size) {
  return sendTo(session.machine(), message, size);
}

void Bridge::frameArrived(Session& session, const Frame& frame) {
  if (!handle(session, frame))
    session.end("what came from " + session.machine() + " is malformed", true);
}

bool Bridge::handle(Session& session, const Frame& frame) {
  switch (frame.kind) {
    case FrameKind::open:
      return visits_.open(session, frame);
    case FrameKind::opened:
      return wishes_.opened(session, frame);
    case FrameKind::value:
      return values_.asked(session, frame);
    case FrameKind::valued:
      return values_.answered(session, frame);
    case FrameKind::data:
    case FrameKind::credit:
    case FrameKind::close:
      return handleLink(session, frame);
  }
  return false;
}

bool Bridge::handleLink(Session& session, const Frame& frame) {
  Link* link = links_.find(session, frame.link);
  if (!link) {
    const bool isInHand = frame.kind == FrameKind::close &&
                          (session.isInitiator() ? wishes_.closed(session, frame.link)
                                                 : visits_.closed(session, frame.link));
    if (!isInHand) session.countStray();
    return true;
  }
  if (frame.kind == FrameKind::close) {
    if (frame.size > 0) return false;
    link->remoteEnded();
    links_.settleLater(*link);
    return true;
  }
  const bool isData = frame.kind == FrameKind::data;
  const bool isGood = isData ? link->dataArrived(frame) : link->creditArrived(frame);
  if (isData || link->isOver()) links_.settleLater(*link);
  return isGood;
}

void Bridge::roomAgain(Session& session) {
  links_.roomAgain(session);
}

void Bridge::sessionEnded(Session& session, const std::string& why) {
  if (links_.hasAny(session)) tell("the links with " + session.machine() + " have ended: " + why);
  wishes_.sessionEnded(session);
  visits_.sessionEnded(session);
  values_.sessionEnded(session);
  links_.sessionEnded(session);
}

// --- Links ---

void Bridge::packetsArrived(StandIn& standIn, std::int32_t localRN, const unsigned char* packets,
                            std::int64_t size) {
  noteTraffic(static_cast<std::size_t>(size));
  if (Link* link = links_.find(standIn, localRN))
    link->packetsArrived(packets, static_cast<std::size_t>(size));
}

void Bridge::valueAsked(StandIn& standIn, std::int32_t requestingPluginID, const std::string& name,
                        HublinkPlugin::ValueAnswer answer) {
  values_.ask(standIn, requestingPluginID, name, std::move(answer));
}

void Bridge::linkEnded(Link& link) {
  realm_.linkEnded(link);
  StandIn* standIn = link.standIn();
  if (!standIn) return;
  // The RN was made for this link; one of a request's goes by itself.
  if (link.ends().isRequesterLocal && standIn->plugin().isConnected())
    standIn->plugin().hub().ReleaseRN(link.localRN());
  standIns_.linkEnds(*standIn, clockNow());
}

// --- The pass ---

void Bridge::noteTraffic(std::size_t bytes) {
  if (!std::exchange(isTrimDue_, true)) trimWhenQuiet();
  traffic_ += bytes;
}

void Bridge::trimWhenQuiet() {
  plugin_.callLater(kQuietTime, [this, before = traffic_] {
    if (traffic_ - before > kLittle) return trimWhenQuiet();
    if (traffic_ > kLittle) platform::trimFreedMemory();
    traffic_ = 0;
    isTrimDue_ = false;
  });
}

bool Bridge::start(std::string& error) {
  if (!connectHub(error)) {
    if (options_.keepsHub || options_.hubPort != 0) return false;
    tell("waiting for a hub: " + error);
  }
  plugin_.callLater(kMostSettleTime, [this] { wishes_.settle(); });
  // A server that vanishes has to be noticed in time to go on with another within the grace.
  options_.nats.silence = std::clamp(options_.grace, kLeastSilence, kMostSilence);
  const std::string prefix = "hublink." + options_.realm + ".";
  // In this order they are handed over: who a machine is before what it wants of this one.
  nats_.subscribe(prefix + kEverybody + ".>");
  nats_.subscribe(prefix + options_.machine + ".>");
  std::string why;
  if (!nats_.connect(options_.nats, why)) {
    error = "NATS: " + why;
    return false;
  }
  if (!why.empty()) {
    realm_.natsState(false, why);
    tell("waiting for NATS: " + why);
  }
  return true;
}

int Bridge::run() {
  while (!stops_ && !platform::stopRequested()) {
    pass();
    if (!stops_) sleep();
  }
  sessions_.endAll("the bridge of " + options_.machine + " has ended");
  announcer_.bye();
  nats_.flush();
  return exitCode_;
}

void Bridge::pass() {
  watchHub();
  if (isHubReady_ || plugin_.nextTimeout() == 0) plugin_.serve(0);
  standIns_.serve();
  const std::int64_t now = clockNow();
  const std::int64_t others[] = {announcer_.step(now), members_.step(now)};
  links_.settle();
  standIns_.sweep(now);
  sessions_.flush(now);
  nats_.flush();
  standIns_.flush();
  plugin_.flush();
  // Credit for what was written just now.
  links_.settle();
  sessions_.flush(now);
  nats_.flush();
  // Behind the flush, which may have begun to wait for something.
  nextStep_ = sessions_.step(now, [this](const Session& session) {
    return links_.hasAny(session) || wishes_.uses(session);
  });
  for (const std::int64_t step : others)
    if (step >= 0 && (nextStep_ < 0 || step < nextStep_)) nextStep_ = step;
  tellReady();
}

// What has come of NATS is handed over here, so that a pass finds all that there is, and sessions
// have another try as soon as the line takes more.
void Bridge::sleep() {
  std::int64_t timeout = nextStep_;
  const auto atMost = [&timeout](std::int64_t milliseconds) {
    if (milliseconds >= 0 && (timeout < 0 || milliseconds < timeout)) timeout = milliseconds;
  };
  atMost(plugin_.nextTimeout());
  const std::int64_t now = clockNow();
  atMost(standIns_.nextTimeout(now));
  atMost(nats_.nextTimeout(now));
  if (!hasHub_) atMost(std::max<std::int64_t>(hubDue_ - now, 0));
  platform::DescriptorWait waits[2];
  waits[0].descriptor = plugin_.descriptor();
  waits[1].descriptor = nats_.descriptor();
  waits[1].wantsWrite = nats_.wantsWrite();
  platform::waitForDescriptors(waits, 2, static_cast<int>(timeout));
  isHubReady_ = waits[0].isReadable;
  nats_.serve(waits[1].isReadable, waits[1].isWritable);
}

void Bridge::tellReady() {
  if (isTold_ || !hasHub_ || !nats_.isConnected() || !announcer_.isAnnounced()) return;
  isTold_ = true;
  std::printf("bridge: machine %s of realm %s, NATS %s\n", options_.machine.c_str(),
              options_.realm.c_str(), nats_.server().c_str());
  std::fflush(stdout);
}

void Bridge::stop(int exitCode, const std::string& why) {
  if (std::exchange(stops_, true)) return;
  tell(why);
  exitCode_ = exitCode;
}

}  // namespace bridge
