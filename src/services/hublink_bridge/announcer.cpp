#include "services/hublink_bridge/announcer.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/clock.h"

namespace bridge {

namespace {

constexpr const char* kHello = "hello";
constexpr const char* kState = "state";
constexpr const char* kAlive = "alive";
constexpr const char* kBye = "bye";
constexpr const char* kPing = "ping";
constexpr const char* kPong = "pong";

constexpr const char* kIncarnation = "Hublink-Incarnation";
constexpr const char* kSince = "Hublink-Since";
constexpr const char* kVersion = "Hublink-Version";
constexpr const char* kStateNumber = "Hublink-State";
constexpr const char* kPage = "Hublink-Page";

// Each machine hears all others, so that those of a large realm speak half as often. In ms.
constexpr std::int64_t kAliveInterval = 2000;
constexpr std::int64_t kRareAliveInterval = 4000;
constexpr std::size_t kLargeRealm = 50;
// In how many of these intervals each machine is measured once.
constexpr std::size_t kMeasuringRound = 15;
// More than the headers of a page take of a message.
constexpr std::int64_t kBytesOfHeaders = 1024;
// In ms: how long a bridge that has come listens whether its name is taken before it announces
// itself, and how often it asks meanwhile; how long it counts as one that has just come; and how
// often it tells of another of its name.
constexpr std::int64_t kListenTime = 450;
constexpr std::int64_t kListenInterval = 225;
constexpr std::int64_t kStartTime = 2000;
constexpr std::int64_t kWarnInterval = 60000;
// A machine that asks more often than this in ms gets no answer: it asks again with the next alive.
constexpr std::int64_t kHelloInterval = 200;
constexpr std::size_t kMostAnswered = 2 * Members::kMostMachines;

std::string randomName() {
  char text[17];
  std::snprintf(text, sizeof text, "%016" PRIx64, randomNumber());
  return text;
}

std::uint64_t numberIn(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

}  // namespace

Announcer::Announcer(NatsConnection& nats, Members& members, const Exports& exports,
                     std::string realm, std::string machine, std::function<void()> taken)
    : nats_(nats),
      members_(members),
      exports_(exports),
      realm_(std::move(realm)),
      machine_(std::move(machine)),
      taken_(std::move(taken)),
      incarnation_(randomName()),
      since_(platform::unixMilliseconds()) {}

NatsHeaders Announcer::ownHeaders() const {
  return {{kIncarnation, incarnation_}, {kSince, std::to_string(since_)}};
}

void Announcer::say(const std::string& to, const char* what) {
  NatsHeaders headers = ownHeaders();
  headers.emplace_back(kStateNumber, std::to_string(state_));
  nats_.publish(subjectOf(realm_, to, machine_, what), headers, "", 0);
}

void Announcer::sayState(const std::string& to) {
  const std::int64_t room = std::max(nats_.maxPayload(), 2 * kBytesOfHeaders) - kBytesOfHeaders;
  const auto pages = pagesOf(exports_.services(), static_cast<std::size_t>(room));
  for (std::size_t page = 0; page < pages.size(); ++page) {
    NatsHeaders headers = ownHeaders();
    headers.emplace_back(kVersion, HUBLINK_VERSION);
    headers.emplace_back(kStateNumber, std::to_string(state_));
    headers.emplace_back(kPage, std::to_string(page + 1) + "/" + std::to_string(pages.size()));
    const std::string& json = pages[page];
    nats_.publish(subjectOf(realm_, to, machine_, kState), headers, json.data(), json.size());
  }
}

void Announcer::connected(std::int64_t now) {
  pings_.clear();
  if (!isAnnounced_) {
    startedUntil_ = now + kStartTime;
    announceAt_ = now + kListenTime;
    askOwnNameAt_ = now + kListenInterval;
    say(kEverybody, kHello);
    return;
  }
  // Who misses this one is to see by the number that he did.
  if (std::exchange(isStateDue_, false)) ++state_;
  say(kEverybody, kHello);
  sayState(kEverybody);
}

void Announcer::memberCame(const std::string& machine) {
  ping(machine);
}

void Announcer::memberGone(const std::string& machine) {
  pings_.erase(machine);
}

void Announcer::ask(const std::string& machine) {
  say(machine, kHello);
}

void Announcer::answerHello(const std::string& machine, std::int64_t now) {
  if (!isAnnounced_) return;
  if (answered_.size() >= kMostAnswered) answered_.clear();
  const auto [place, isNew] = answered_.try_emplace(machine, now);
  if (!isNew && now - place->second < kHelloInterval) return;
  place->second = now;
  sayState(machine);
}

void Announcer::bye() {
  if (isAnnounced_) say(kEverybody, kBye);
}

void Announcer::ping(const std::string& machine) {
  const std::uint64_t now = platform::monotonicNanoseconds();
  if (nats_.publish(subjectOf(realm_, machine, machine_, kPing), &now, sizeof now))
    pings_[machine] = now;
}

// One after the other, so that each has its turn within kMeasuringRound intervals.
void Announcer::pingNext() {
  const auto& all = members_.all();
  if (all.empty()) return;
  for (std::size_t i = 0; i < (all.size() + kMeasuringRound - 1) / kMeasuringRound; ++i) {
    auto next = all.upper_bound(lastPinged_);
    if (next == all.end()) next = all.begin();
    lastPinged_ = next->first;
    ping(lastPinged_);
  }
}

std::int64_t Announcer::step(std::int64_t now) {
  if (!nats_.isConnected()) return -1;
  if (!isAnnounced_) {
    if (now < announceAt_) return listen(now);
    isAnnounced_ = true;
    isStateDue_ = true;
  }
  if (std::exchange(isStateDue_, false)) {
    ++state_;
    sayState(kEverybody);
  }
  if (now >= aliveDue_) {
    aliveDue_ = now + (members_.all().size() >= kLargeRealm ? kRareAliveInterval : kAliveInterval);
    say(kEverybody, kAlive);
    pingNext();
  }
  return aliveDue_ - now;
}

// The others keep what they know of this name until nobody else has turned out to bear it: an
// announcement would end the links of that one.
std::int64_t Announcer::listen(std::int64_t now) {
  if (now >= askOwnNameAt_) {
    say(machine_, kHello);
    askOwnNameAt_ = announceAt_;
  }
  return std::min(askOwnNameAt_, announceAt_) - now;
}

// Who has just come leaves it to one who was here, whatever the clocks say: one who has come as
// lately as this one says nothing but hello. Among those the older one stays.
void Announcer::ownNameHeard(std::string_view what, const NatsMessage& message, std::int64_t now) {
  const std::string incarnation = message.header(kIncarnation);
  const std::string since = message.header(kSince);
  if (incarnation.empty() || incarnation == incarnation_ || since.empty() || what == kBye) return;
  const auto theirs = static_cast<std::int64_t>(numberIn(since));
  const bool isOlder = std::pair(theirs, incarnation) < std::pair(since_, incarnation_);
  const bool wasHere = !isAnnounced_ && what != kHello;
  if ((isOlder || wasHere) && now < startedUntil_) {
    taken_();
  } else if (!isAnnounced_) {
    say(machine_, kHello);  // so that the younger one learns of this one
  } else if (now - warnedAt_ >= kWarnInterval) {
    warnedAt_ = now;
    std::fprintf(stderr, "hublink-bridge: somebody else in the realm goes by the name of %s\n",
                 machine_.c_str());
  }
}

void Announcer::stateArrived(const std::string& machine, const NatsMessage& message,
                             std::int64_t now) {
  StatePage page;
  page.incarnation = message.header(kIncarnation);
  page.version = message.header(kVersion);
  page.since = static_cast<std::int64_t>(numberIn(message.header(kSince)));
  page.state = numberIn(message.header(kStateNumber));
  const std::string pages = message.header(kPage);
  page.page = numberIn(pages);
  const std::size_t slash = pages.find('/');
  page.pages = slash == std::string::npos ? 0 : numberIn(pages.substr(slash + 1));
  page.json = {reinterpret_cast<const char*>(message.bytes()), message.size()};
  members_.stateArrived(machine, page, now);
}

bool Announcer::take(const Subject& subject, const NatsMessage& message, std::int64_t now) {
  const std::string from(subject.from);
  const std::string_view what = subject.what;
  if (from == machine_) {
    if (what == kHello) answerHello(from, now);  // so that the other learns who was here before
    ownNameHeard(what, message, now);
    return true;
  }
  if (what == kAlive) {
    const auto since = static_cast<std::int64_t>(numberIn(message.header(kSince)));
    if (!members_.alive(from, message.header(kIncarnation), since,
                        numberIn(message.header(kStateNumber)), now))
      say(from, kHello);
  } else if (what == kState) {
    stateArrived(from, message, now);
  } else if (what == kHello) {
    members_.heard(from, now);
    answerHello(from, now);
  } else if (what == kBye) {
    members_.bye(from, message.header(kIncarnation));
  } else if (what == kPing) {
    if (message.size() == sizeof(std::uint64_t))
      nats_.publish(subjectOf(realm_, from, machine_, kPong), message.bytes(), message.size());
  } else if (what == kPong) {
    std::uint64_t sent = 0;
    if (message.size() != sizeof sent) return true;
    std::memcpy(&sent, message.bytes(), sizeof sent);
    const auto place = pings_.find(from);
    if (place == pings_.end() || place->second != sent) return true;
    pings_.erase(place);
    constexpr std::uint64_t kMicrosecond = 1000;
    members_.measured(
        from, static_cast<std::int64_t>((platform::monotonicNanoseconds() - sent) / kMicrosecond));
  } else {
    return false;
  }
  return true;
}

}  // namespace bridge
