#include "simulation/byte_actor.h"

#include <algorithm>
#include <array>

#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/readiness.h"
#include "platform/sim/world.h"
#include "simulation/scenario.h"
#include "stp_transport/transport/stp_listener.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

constexpr std::uint32_t kFirstLinkRN = 10;
constexpr std::uint32_t kLinkPacket = 16;  // the type of the library's own packets
constexpr std::int32_t kBytesTag = 1;
constexpr std::size_t kHeader = 8;       // bytes before those of the one field of such a packet
constexpr std::size_t kLengthWord = 12;  // the word that tells how many those are

std::string linkPacket(const LinkEnd& end, const std::string& bytes) {
  STPMessage message;
  message.header.sourceRN = end.own;
  message.header.destinationRN = end.other;
  message.header.type = kLinkPacket;
  message.header.flags = STP_ONE_WAY;
  message.putArrayData(kBytesTag, bytes.data(), static_cast<std::int32_t>(bytes.size()), 1);
  message.finishMessage(2);
  return filled({reinterpret_cast<const char*>(message.storage()),
                 static_cast<std::size_t>(message.header.headerSize + message.header.payloadSize)});
}

std::int32_t number(STPReceivedMessage& message, const char* field) {
  return static_cast<std::int32_t>(message.getU32(tag(field)));
}

}  // namespace

// Waits for the hub, on both roads or on one.
int ByteActor::awaitHub() {
  STPListener listener;
  if (!listener.open(role_.port, nullptr, true, chance(50))) return 0;
  if (role_.port == 0) stage_.anchorPort = listener.port();
  std::vector<int> doors{listener.tcp()};
  if (listener.local() != 0) doors.push_back(listener.local());
  for (const int door : doors) platform::readiness().watch(door);
  int client = 0;
  bool failed = false;
  while (client <= 0 && !failed) {
    platform::readiness().wait(-1, failed);
    for (std::size_t i = 0; i < doors.size() && client <= 0 && !failed;) {
      client = acceptClient(doors[i], false, nullptr);
      if (client <= 0) {
        ++i;
      } else if (!platform::userOfClient(client).isOwn()) {
        closeSocket(client);
        client = 0;
      }
    }
  }
  for (const int door : doors) platform::readiness().forget(door);
  return client;
}

int ByteActor::run() {
  platform::sleepMilliseconds(role_.delay);
  socket_ =
      role_.listens ? awaitHub() : connectToServer("localhost", role_.port, nullptr, chance(50));
  if (socket_ <= 0) return 1;
  platform::readiness().watch(socket_);
  connected_ = true;
  connectedAt_ = platform::monotonicMilliseconds();
  if (role_.negotiates) outbox_.push_back({filled(negotiateBytes())});
  while (connected_) {
    const std::uint64_t now = platform::monotonicMilliseconds();
    if (stage_.finishing) quietUntil_ = deafUntil_ = 0;
    const bool quiet = quietUntil_ > now, deaf = quiet || deafUntil_ > now;
    // Whoever isn't known to the hub yet has nothing to ask it.
    while (connected_ && !quiet && pluginID_ != -1 && !orders_.empty()) {
      const Order order = orders_.front();
      orders_.pop_front();
      obey(order);
    }
    if (connected_ && !deaf) read();
    if (connected_ && stage_.finishing)
      for (; !offers_.empty(); offers_.pop_front()) answerOffer(offers_.front(), chance(70));
    if (needsUntil_ != 0 && needsUntil_ <= now) begin();
    if (connected_ && !quiet) write();
    if (connected_ && role_.life >= 0 && role_.life-- == 0) end();
    if (!connected_) break;
    bool failed = false;
    std::uint64_t until = platform::sim::kNever;
    if (deaf) until = quiet ? quietUntil_ : deafUntil_;
    if (needsUntil_ != 0) until = std::min(until, needsUntil_);
    const bool isEndless = until == platform::sim::kNever;
    platform::readiness().wait(isEndless ? -1 : static_cast<int>(until - now), failed);
  }
  return 0;
}

bool ByteActor::isAwake() const {
  const std::uint64_t now = stage_.world.now();
  return quietUntil_ <= now && deafUntil_ <= now;
}

void ByteActor::end() {
  if (!connected_) return;
  say("ends its connection");
  lose();
  platform::readiness().forget(socket_);
  platform::closeStream(socket_);
}

void ByteActor::obey(const Order& order) {
  const std::uint64_t choice = order.choice;
  say(actName(order.act));
  switch (order.act) {
    case Act::provide:
      provide(serviceName(choice, stage_.seed));
      break;
    case Act::withdraw:
      if (services_.empty()) break;
      send("UnregisterService",
           {{"serviceRN", static_cast<std::uint32_t>(services_[choice % services_.size()])}});
      break;
    case Act::request:
      request(requestShape(choice, stage_.seed));
      break;
    case Act::query:
      query(choice);
      break;
    case Act::answer:
      if (!offers_.empty()) {
        answerOffer(offers_.front(), choice % 4 != 0);
        offers_.pop_front();
      }
      if (!starts_.empty()) {
        beginStart(starts_.front());
        starts_.pop_front();
      }
      break;
    case Act::drop:
      if (LinkEnd* link = stage_.ledger.pick(*this, choice)) {
        send("DropServiceConnection", {{"localRN", static_cast<std::uint32_t>(link->own)},
                                       {"serviceRN", static_cast<std::uint32_t>(link->other)}});
        stage_.ledger.drop(*this, link->own, link->other);
      }
      break;
    case Act::send:
      sendPackets(choice);
      break;
    case Act::reserve:
      numberQuestions_.push_back(++lastCookie_);
      stage_.ledger.ask(*this, Question::numbers, lastCookie_);
      send("ReserveRNBlock", {{"count", static_cast<std::uint32_t>(choice % 3000)}});
      break;
    case Act::launch:
      launch(choice);
      break;
    case Act::reach: {
      const std::int32_t cookie = ++lastCookie_;
      stage_.ledger.ask(*this, Question::launch, cookie);
      const std::uint32_t port = choice & 2 ? stage_.startListener() : 5u;
      send("RequestPluginConnect", [&](STPMessage& message) {
        message.putString(tag("host"), choice & 1 ? "localhost" : "nowhere");
        message.putU32(tag("port"), port);
        message.putU32(tag("cookie"), static_cast<std::uint32_t>(cookie));
      });
      break;
    }
    case Act::locate:
      placeQuestions_.push_back(++lastCookie_);
      stage_.ledger.ask(*this, Question::location, lastCookie_);
      send("RequestLocation");
      break;
    case Act::ask:
      send("RequestValueOfNameOnPlugin", [&](STPMessage& message) {
        message.putU32(tag("plugin_id"), static_cast<std::uint32_t>(choice % 8));
        message.putString(tag("name"), "colour");
      });
      break;
    case Act::persist:
      send("PersistentService",
           [&](STPMessage& message) { message.putU8(tag("persistent"), choice & 1 ? 1 : 0); });
      break;
    case Act::move:
      send("SetWorkingDir", [&](STPMessage& message) {
        message.putString(tag("working_dir"), choice & 1 ? "/here" : "/there");
      });
      break;
    case Act::hush:
      if (!stage_.finishing) quietUntil_ = platform::monotonicMilliseconds() + choice % 3000;
      break;
    case Act::flood:
      flood(choice);
      break;
    case Act::disconnect:
      stage_.ledger.leave(*this, false);
      send("RequestHublinkDisconnect");
      break;
    case Act::leave:
      end();
      break;
    default:
      break;
  }
}

void ByteActor::provide(const std::string& service) {
  numberQuestions_.push_back(-1);
  say("registers " + service);
  send("RegisterServiceList", [&](STPMessage& message) {
    putTexts(message, tag("name_list"), tag("count"), 1, {service.c_str()});
  });
}

// What it needs is there, or it has waited for long enough.
void ByteActor::begin() {
  needsUntil_ = 0;
  if (!role_.service.empty()) provide(role_.service);
}

std::int32_t ByteActor::request(const RequestShape& shape) {
  const std::int32_t cookie = ++lastCookie_;
  stage_.ledger.ask(*this, Question::service, cookie);
  say("asks for " + shape.service + " as " + std::to_string(cookie));
  send("RequestServiceConnection", [&](STPMessage& message) {
    message.putString(tag("serviceName"), shape.service.c_str());
    message.putU32(tag("providingPluginID"), static_cast<std::uint32_t>(shape.pluginID));
    putTexts(message, tag("name_value_pairs"), tag("count"), 2, {"key", "value"});
    message.putString(tag("working_dir"), shape.workingDir);
    message.putU8(tag("local_only"), shape.localOnly ? 1 : 0);
    message.putU32(tag("client_cookie"), static_cast<std::uint32_t>(cookie));
    message.putU8(tag("no_reuse"), shape.noReuse ? 1 : 0);
    message.putU8(tag("client_start"), shape.clientStart ? 1 : 0);
  });
  return cookie;
}

void ByteActor::query(std::uint64_t choice) {
  const std::int32_t cookie = ++lastCookie_;
  const bool isStarting = (choice & 0x100) != 0;
  if (!isStarting) lookUps_.insert(cookie);
  stage_.ledger.ask(*this, isStarting ? Question::query : Question::lookUp, cookie);
  const std::string service = serviceName(choice, stage_.seed);
  send("RequestPluginIdForService", [&](STPMessage& message) {
    message.putU32(tag("cookie"), static_cast<std::uint32_t>(cookie));
    message.putString(tag("serviceName"), service.c_str());
    message.putString(tag("working_dir"), nullptr);
    message.putU8(tag("startup_if_not_running"), isStarting ? 1 : 0);
  });
}

void ByteActor::launch(std::uint64_t choice) {
  const std::int32_t cookie = ++lastCookie_;
  stage_.ledger.ask(*this, Question::launch, cookie);
  const std::string program = programName(choice, stage_.seed);
  say("has " + program + " started as " + std::to_string(cookie));
  send("RequestPluginLaunch", [&](STPMessage& message) {
    putTexts(message, tag("argv"), tag("count"), 1, {program.c_str()});
    message.putU32(tag("cookie"), static_cast<std::uint32_t>(cookie));
    message.putU8(tag("client_start"), choice & 0x10000 ? 1 : 0);
    message.putString(tag("working_dir"), nullptr);
  });
}

void ByteActor::sendPackets(std::uint64_t choice) {
  LinkEnd* link = stage_.ledger.pick(*this, choice);
  if (!link) return;
  for (std::uint64_t count = 1 + (choice >> 8) % 12; count > 0; --count)
    outbox_.push_back(
        {linkPacket(*link, Ledger::packet(*link, packetSize(choice >> 16, count))), link});
}

// Questions whose answers come to more than the hub keeps for one who doesn't read; fewer of them
// over a narrow network, which would take too long.
void ByteActor::flood(std::uint64_t choice) {
  if (stage_.finishing) return;
  const std::size_t share = std::min<std::size_t>(stage_.world.weather.streamSize, 16384);
  deafUntil_ = platform::monotonicMilliseconds() + choice / 8 % 3000;
  switch (choice % 3) {
    case 0:
      for (std::size_t count = share; count > 0; --count)
        outbox_.push_back({filled(hubMessageBytes("NumPersistentServices", nullptr, 0x01))});
      break;
    case 1:
      for (std::size_t count = share / 512; count > 0; --count) {
        numberQuestions_.push_back(++lastCookie_);
        stage_.ledger.ask(*this, Question::numbers, lastCookie_);
        send("ReserveRNBlock", {{"count", 20000}});
      }
      break;
    default:
      for (std::size_t count = share / 2; count > 0; --count) {
        placeQuestions_.push_back(++lastCookie_);
        stage_.ledger.ask(*this, Question::location, lastCookie_);
        send("RequestLocation");
      }
  }
}

void ByteActor::answerOffer(const Offer& offer, bool accept) {
  say((accept ? "takes " : "refuses ") + std::to_string(offer.requesterRN));
  if (accept) stage_.ledger.accept(*this, offer.serviceRN, offer.requesterRN);
  send("ConnectionAcceptedEvent", [&](STPMessage& message) {
    message.putU32(tag("serviceRN"), static_cast<std::uint32_t>(offer.serviceRN));
    message.putU32(tag("remoteRN"), static_cast<std::uint32_t>(offer.requesterRN));
    message.putU8(tag("accept"), accept ? 1 : 0);
  });
  // Some speak at once: nothing may overtake the reply.
  if (accept && chance(40)) sendPackets(random_());
}

// A client that was asked to start a plugin does so, says that it can't, or forgets it.
void ByteActor::beginStart(std::int32_t cookie) {
  if (chance(60)) {
    stage_.startPlugin(role_.port, cookie);
    return;
  }
  send("StartPluginEvent", [&](STPMessage& message) {
    message.putU32(tag("cookie"), static_cast<std::uint32_t>(cookie));
    message.putU8(tag("success"), 0);
    message.putString(tag("error_message"), "not today");
  });
}

void ByteActor::write() {
  while (!outbox_.empty()) {
    Outgoing& front = outbox_.front();
    const platform::Transfer outcome = platform::sendBytes(
        socket_, front.bytes.data(), static_cast<std::int64_t>(front.bytes.size()));
    if (outcome.error != 0) break;  // what was sent to it is still to be read
    if (outcome.wouldBlock) {
      platform::readiness().clearWritable(socket_);
      break;
    }
    front.bytes.erase(0, static_cast<std::size_t>(outcome.count));
    if (!front.bytes.empty()) continue;
    if (front.end) ++front.end->sent;
    outbox_.pop_front();
  }
}

void ByteActor::read() {
  std::array<char, 8192> block;
  for (;;) {
    const platform::Transfer outcome = platform::receiveBytes(socket_, block.data(), block.size());
    if (outcome.wouldBlock) {
      platform::readiness().drained(socket_);
      return;
    }
    if (outcome.error != 0 || outcome.count == 0) {
      cutOff_ = true;
      end();
      return;
    }
    input_.append(block.data(), static_cast<std::size_t>(outcome.count));
    for (;;) {
      if (input_.size() < kHeader) break;
      Packet packet{input_.substr(0, kHeader)};
      const std::size_t size = packet.word(0) + packet.word(1),
                        whole = (size + 3) & ~std::size_t{3};
      if (input_.size() < whole) break;
      packet.bytes = input_.substr(0, size);
      input_.erase(0, whole);
      handle(packet);
      if (!connected_) return;
    }
  }
}

void ByteActor::handle(const Packet& packet) {
  if (packet.word(6) == kLinkPacket) {
    stage_.ledger.receive(
        *this, static_cast<std::int32_t>(packet.word(3)), static_cast<std::int32_t>(packet.word(2)),
        std::string_view(packet.bytes).substr(packet.word(0) + kHeader, packet.word(kLengthWord)));
    return;
  }
  // An interface on a link is beyond it.
  if (packet.word(6) != STP_BINARY || packet.word(3) >= kFirstLinkRN) return;
  STPReceivedMessage message = packet.read();
  const std::string& name = packet.id() < kHubSends.size() ? kHubSends[packet.id()] : "";
  if (name == "PluginId") {
    pluginID_ = number(message, "plugin_id");
    say("is plugin " + std::to_string(pluginID_));
    if (role_.needs.empty()) {
      begin();
    } else {
      needCookie_ = request({.service = role_.needs});
      needsUntil_ = platform::monotonicMilliseconds() + static_cast<std::uint64_t>(role_.patience);
    }
    if (role_.startCookie != -1)
      send("StartPluginEvent", [&](STPMessage& answer) {
        answer.putU32(tag("cookie"), static_cast<std::uint32_t>(role_.startCookie));
        answer.putU8(tag("success"), 1);
        answer.putString(tag("error_message"), "");
      });
  } else if (name == "ConnectionRequestedEvent") {
    const std::int32_t serviceRN = number(message, "serviceRN");
    const Offer offer{serviceRN, number(message, "remoteRN")};
    if (chance(70))
      answerOffer(offer, chance(80));
    else
      offers_.push_back(offer);
  } else if (name == "ConnectionReplyEvent") {
    handleReply(message);
  } else if (name == "ConnectionDroppedEvent") {
    const std::int32_t own = number(message, "serviceRN"), other = number(message, "remoteRN");
    say("hears of the end of " + std::to_string(own));
    stage_.ledger.hearEnd(*this, own, other);
  } else if (name == "RNBlockReservedEvent") {
    if (numberQuestions_.empty()) {
      stage_.ledger.fault(*this, "numbers that it didn't ask for");
      return;
    }
    if (numberQuestions_.front() != -1) {
      stage_.ledger.answer(*this, Question::numbers, numberQuestions_.front());
    } else {
      STPReceivedMessage::Range saved;
      message.enterStruct(tag("rn_list"), saved);
      std::int32_t rn = 0;
      message.getArray(tag("data"), &rn, 1, 4);
      services_.push_back(rn);
    }
    numberQuestions_.pop_front();
  } else if (name == "PluginConnectedEvent") {
    stage_.ledger.answer(*this, Question::launch, number(message, "cookie"));
  } else if (name == "PluginIdForServiceReplyEvent") {
    const std::int32_t cookie = number(message, "cookie");
    stage_.ledger.answer(*this, lookUps_.contains(cookie) ? Question::lookUp : Question::query,
                         cookie);
  } else if (name == "LocationEvent") {
    if (placeQuestions_.empty()) {
      stage_.ledger.fault(*this, "a location that it didn't ask for");
      return;
    }
    stage_.ledger.answer(*this, Question::location, placeQuestions_.front());
    placeQuestions_.pop_front();
  } else if (name == "ForwardedRequestValueOfNameOnPlugin") {
    const std::int32_t asker = number(message, "requesting_plugin_id");
    send("ValueOfNameOnPluginResponseEvent", [&](STPMessage& answer) {
      answer.putU32(tag("requesting_plugin_id"), static_cast<std::uint32_t>(asker));
      answer.putU32(tag("plugin_id"), static_cast<std::uint32_t>(pluginID_));
      answer.putString(tag("name"), "colour");
      answer.putString(tag("value"), "blue");
    });
  } else if (name == "StartPlugin") {
    const std::int32_t cookie = number(message, "cookie");
    if (chance(50))
      beginStart(cookie);
    else if (chance(60))
      starts_.push_back(cookie);
  }
}

void ByteActor::handleReply(STPReceivedMessage& message) {
  // A field is found behind those that were read before.
  const std::int32_t requesterRN = number(message, "localRN");
  const bool accepted = message.getU8(tag("wasAccepted")) != 0;
  const std::int32_t serviceRN = number(message, "serviceRN");
  const std::int32_t cookie = number(message, "client_cookie");
  say("is answered " + std::to_string(cookie) + (accepted ? ": accepted" : ": not accepted"));
  stage_.ledger.answer(*this, Question::service, cookie);
  if (accepted) stage_.ledger.link(*this, requesterRN, serviceRN);
  if (needsUntil_ != 0 && cookie == needCookie_) begin();
}
