#include "simulation/library_actor.h"

#include "generated/hublink_plugin_impl.h"
#include "hublink_plugin/hub_finder.h"
#include "platform/clock.h"
#include "simulation/scenario.h"

namespace {

// Of a question whose answer the hub owes, however long it takes.
constexpr int kNoLimit = -1;

}  // namespace

// As a program of its own it goes by its command line.
bool LibraryActor::beConnected(HublinkPlugin& plugin) {
  std::string error;
  plugin.setTcpOnly(chance(25));
  std::vector<char*> words;
  for (std::string& argument : role_.arguments) words.push_back(argument.data());
  const bool isConnected =
      words.empty() ? plugin.connect(role_.port, error)
                    : connectToHub(plugin, static_cast<int>(words.size()), words.data(), error);
  if (!isConnected) say("can't connect: " + error);
  if (error.find("another user") != std::string::npos) stage_.ledger.fault(*this, error);
  return isConnected;
}

// What it needs is a connection of its own for, which it has before it is known to the hub.
void LibraryActor::runErrand() {
  HublinkPlugin errand;
  std::string error;
  if (!errand.connect(stage_.hubPort, error)) return;
  ServiceQuery query;
  query.serviceName = role_.needs;
  say("runs an errand for " + role_.needs);
  errand.requestService(query, role_.patience);
}

int LibraryActor::run() {
  platform::sleepMilliseconds(role_.delay);
  if (role_.isErrand) runErrand();
  HublinkPlugin plugin;
  plugin_ = &plugin;
  if (!beConnected(plugin)) return 1;
  connected_ = true;
  pluginID_ = plugin.pluginID();
  say("is plugin " + std::to_string(pluginID_));
  plugin.onValueRequest([](const std::string&) { return std::optional<std::string>("green"); });
  if (!role_.needs.empty() && !role_.isErrand) request({.service = role_.needs}, role_.patience);
  if (!role_.service.empty()) provide(role_.service);
  while (connected_ && plugin.isConnected()) {
    while (connected_ && !orders_.empty()) {
      const Order order = orders_.front();
      orders_.pop_front();
      obey(order);
    }
    if (role_.life >= 0 && role_.life-- == 0) break;
    if (connected_)
      plugin.serveUntil([this] { return !orders_.empty() || !connected_; },
                        stage_.finishing ? -1 : 2000);
  }
  say("ends its connection");
  if (connected_) lose();
  plugin.disconnect();
  // The end of the connection has answered whatever was open.
  for (const Question question : {Question::service, Question::query, Question::launch,
                                  Question::lookUp, Question::numbers, Question::location})
    if (stage_.ledger.open(*this, question) > 0)
      stage_.ledger.fault(*this, "the library has left a question open");
  links_.clear();
  return 0;
}

std::int32_t LibraryActor::begin(Question question) {
  stage_.ledger.ask(*this, question, ++lastCookie_);
  return lastCookie_;
}

void LibraryActor::obey(const Order& order) {
  const std::uint64_t choice = order.choice;
  say(actName(order.act));
  Ledger& ledger = stage_.ledger;
  switch (order.act) {
    case Act::provide:
      provide(serviceName(choice, stage_.seed));
      break;
    case Act::withdraw:
      if (!services_.empty()) plugin_->unregisterService(services_[choice % services_.size()]);
      break;
    case Act::request:
      request(requestShape(choice, stage_.seed), choice & 0x1000000 ? 500 : -1);
      break;
    case Act::query: {
      const bool isStarting = (choice & 0x100) != 0;
      const Question question = isStarting ? Question::query : Question::lookUp;
      const std::int32_t cookie = begin(question);
      plugin_->requestProvider(
          serviceName(choice, stage_.seed), nullptr, isStarting,
          [&ledger, this, question, cookie](std::int32_t) {
            ledger.answer(*this, question, cookie);
          },
          kNoLimit);
      break;
    }
    case Act::drop:
      if (const LinkEnd* end = ledger.pick(*this, choice)) {
        const LinkPtr link = links_[{end->own, end->other}].link;
        ledger.drop(*this, end->own, end->other);
        if (link) link->close();
      }
      break;
    case Act::send:
      sendPackets(choice);
      break;
    case Act::speak:
      speak(choice);
      break;
    case Act::launch: {
      const std::int32_t cookie = begin(Question::launch);
      plugin_->requestPluginLaunch(
          {programName(choice, stage_.seed), "-word"}, nullptr,
          [&ledger, this, cookie](std::int32_t, const std::string&) {
            ledger.answer(*this, Question::launch, cookie);
          },
          kNoLimit);
      break;
    }
    case Act::move:
      plugin_->hub().SetWorkingDir(choice & 1 ? "/here" : "/there");
      break;
    case Act::reserve: {
      const std::int32_t cookie = begin(Question::numbers);
      plugin_->reserveRNs(
          static_cast<std::int32_t>(choice % 3000),
          [&ledger, this, cookie](const std::vector<std::int32_t>&) {
            ledger.answer(*this, Question::numbers, cookie);
          },
          kNoLimit);
      break;
    }
    case Act::reach: {
      const std::int32_t cookie = begin(Question::launch);
      plugin_->requestPluginConnect(
          choice & 1 ? "localhost" : "nowhere",
          choice & 2 ? stage_.startListener() : std::uint16_t{5},
          [&ledger, this, cookie](std::int32_t, const std::string&) {
            ledger.answer(*this, Question::launch, cookie);
          },
          kNoLimit);
      break;
    }
    case Act::locate: {
      const std::int32_t cookie = begin(Question::location);
      plugin_->requestLocation(
          [&ledger, this, cookie](const std::string&, std::int32_t) {
            ledger.answer(*this, Question::location, cookie);
          },
          kNoLimit);
      break;
    }
    case Act::ask:
      plugin_->requestValue(static_cast<std::int32_t>(choice % 8), "colour", {});
      break;
    case Act::persist:
      plugin_->setPersistent((choice & 1) != 0);
      break;
    case Act::hush:
      if (stage_.finishing) break;
      isAsleep_ = true;
      platform::sleepMilliseconds(static_cast<int>(choice % 3000));
      isAsleep_ = false;
      break;
    case Act::disconnect:
      ledger.leave(*this, false);
      plugin_->hub().RequestHublinkDisconnect();
      break;
    case Act::leave:
      lose();
      break;
    default:
      break;
  }
}

void LibraryActor::provide(const std::string& service) {
  const std::int32_t serviceRN = plugin_->registerService(
      service,
      [this](const LinkPtr& link) {
        stage_.ledger.accept(*this, link->localRN(), link->remoteRN());
        take(link, false);
        if (chance(40)) sendPackets(random_());
      },
      [this](const ConnectionRequest&) { return accept(); }, chance(30) ? 200 : -1);
  if (serviceRN != -1) services_.push_back(serviceRN);
}

// Some decide at once, others ask or wait first, with the request on the stack.
bool LibraryActor::accept() {
  if (chance(30)) linger();
  return chance(80);
}

// Something that takes time, within a handler.
void LibraryActor::linger() {
  if (nested_ >= 3 || stage_.finishing) return;
  ++nested_;
  if (chance(50))
    plugin_->serveUntil([] { return false; }, static_cast<int>(below(80)));
  else if (chance(50))
    speak(random_());
  else
    request(requestShape(random_(), stage_.seed), static_cast<int>(below(300)));
  --nested_;
}

// With a limit it waits for the answer, else the answer comes when it comes.
void LibraryActor::request(const RequestShape& shape, int milliseconds) {
  ServiceQuery query;
  query.serviceName = shape.service;
  query.providingPluginID = shape.pluginID;
  query.nameValuePairs = {"key", "value"};
  if (shape.workingDir) query.workingDir = shape.workingDir;
  query.localOnly = shape.localOnly;
  query.noReuse = shape.noReuse;
  query.clientStart = shape.clientStart;
  const std::int32_t cookie = begin(Question::service);
  say("asks for " + shape.service + " as " + std::to_string(cookie));
  const auto answered = [this, cookie](const ServiceReply& reply) {
    say("is answered " + std::to_string(cookie) + ": " + outcomeText(reply.outcome));
    stage_.ledger.answer(*this, Question::service, cookie);
    if (!reply.link) return;
    stage_.ledger.link(*this, reply.link->localRN(), reply.link->remoteRN());
    take(reply.link, true);
  };
  if (milliseconds < 0) {
    plugin_->requestService(query, answered, kNoLimit);
    return;
  }
  const ServiceReply reply = plugin_->requestService(query, milliseconds);
  if (reply.outcome == ServiceReply::Outcome::timedOut)
    stage_.ledger.giveUp(*this, Question::service, cookie);
  else
    answered(reply);
}

void LibraryActor::take(const LinkPtr& link, bool isAsker) {
  const LinkKey key(link->localRN(), link->remoteRN());
  TalkEvents events;
  events.noted = [this, key](std::int32_t number) {
    stage_.ledger.hearNote(*this, key.first, key.second, number);
  };
  events.asked = [this] {
    if (chance(20)) linger();
  };
  events.garbled = [this](const std::string& text) { stage_.ledger.fault(*this, text); };
  const TalkEnd end = makeTalk(chance(50), isAsker, std::move(events));
  links_[key] = {link, end};
  link->onPacket([this, key](const unsigned char* bytes, std::size_t size) {
    stage_.ledger.receive(*this, key.first, key.second,
                          {reinterpret_cast<const char*>(bytes), size});
  });
  link->onEnd([this, key] {
    // With the connection itself all links end, whatever their other sides do.
    if (plugin_->isConnected())
      stage_.ledger.hearEnd(*this, key.first, key.second);
    else
      stage_.ledger.leave(*this);
  });
  link->attach(end.spec.get());
  end.spec->sendNegotiate(false, nullptr, nullptr);
}

void LibraryActor::sendPackets(std::uint64_t choice) {
  LinkEnd* end = stage_.ledger.pick(*this, choice);
  if (!end) return;
  const LinkPtr link = links_[{end->own, end->other}].link;
  // What is sent while a packet waits for room may come before it.
  if (!link || std::exchange(isSending_, true)) return;
  for (std::uint64_t count = 1 + (choice >> 8) % 12; count > 0; --count) {
    const std::string bytes = Ledger::packet(*end, packetSize(choice >> 16, count));
    if (!link->send(bytes.data(), bytes.size())) {
      if (link->isUp() && plugin_->isConnected())
        stage_.ledger.fault(*this, "a link that is up takes no packet");
      break;
    }
    ++end->sent;
  }
  isSending_ = false;
}

// Until both sides have told their names there is nothing to be said, and some never do.
void LibraryActor::speak(std::uint64_t choice) {
  LinkEnd* end = stage_.ledger.pick(*this, choice);
  if (!end) return;
  const Held held = links_[{end->own, end->other}];
  if (!held.link || !held.end.spec->isNegotiated()) return;
  Talk& talk = *held.end.talk;
  const auto number = static_cast<std::int32_t>(choice >> 16 & 0xFFFFFF);
  STPStatus status;
  if (choice & 0x100) {
    TimeoutSTPRetryHandler retry(held.end.spec->getTransport(), 1 + number % 2000);
    ++calls_;
    talk.call(number, retry, status);
    --calls_;
  } else if (choice & 0x200) {
    for (int count = number % 8; count >= 0 && status.good(); --count)
      talk.note(++end->notesSent, status);
  } else {
    talk.sayOwn(status);
  }
  const bool isRefused = status.code == STP_UNSUPPORTED;
  if (isRefused != (!(choice & 0x300) && talk.isUnlikePeer()))
    stage_.ledger.fault(*this, "the versions don't tell what they have");
  if (!status.good() && !isRefused && status.code != STP_TIMEOUT && held.link->isUp() &&
      plugin_->isConnected())
    stage_.ledger.fault(*this,
                        std::string("a link that is up carries no message: ") + status.message);
}
