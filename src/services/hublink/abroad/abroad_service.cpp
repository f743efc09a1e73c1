#include "services/hublink/abroad/abroad_service.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/clock.h"
#include "services/hublink/hublink.h"

AbroadService::~AbroadService() = default;

void AbroadService::open(const HublinkConnection* bridge, std::int32_t bridgeRN) {
  desks_.push_back(makeCounted<AbroadDesk>(hub_, *this, bridge, kRN, bridgeRN));
}

// From now on it can be asked, and stands behind those who could before.
void AbroadService::ready(AbroadDesk& desk) {
  if (desk.serial() != 0) return;
  desk.setSerial(++lastSerial_);
  const auto place = std::find_if(desks_.begin(), desks_.end(),
                                  [&desk](const auto& one) { return one.get() == &desk; });
  std::rotate(place, place + 1, desks_.end());
  if (desk.bridge()->getPluginID() == comingID_) comingID_ = 0;
  goOn(0);
}

void AbroadService::close(const HublinkConnection* bridge, std::int32_t bridgeRN) {
  const auto place = std::find_if(desks_.begin(), desks_.end(), [&](const auto& desk) {
    return desk->bridge() == bridge && desk->bridgeRN() == bridgeRN;
  });
  if (place != desks_.end()) endDesk(place);
}

void AbroadService::endDesk(Desks::iterator place) {
  const CountedPtr<AbroadDesk> desk = *place;
  desks_.erase(place);
  desk->end();
  if (desk->serial() != 0) goOn(desk->serial());
}

bool AbroadService::isBridge(const HublinkConnection* plugin) const {
  return std::any_of(desks_.begin(), desks_.end(),
                     [plugin](const auto& desk) { return desk->bridge() == plugin; });
}

bool AbroadService::canAsk() const {
  return std::any_of(desks_.begin(), desks_.end(),
                     [](const auto& desk) { return desk->serial() != 0; });
}

void AbroadService::traceAll() {
  for (const auto& desk : desks_) desk->setLogs(hub_.log().internal());
}

void AbroadService::arrived(ArrivalID arrival, std::int32_t pluginID) {
  if (arrival != comingArrival_) return;
  comingArrival_ = 0;
  comingID_ = pluginID;
}

void AbroadService::arrivalFailed(ArrivalID arrival) {
  if (arrival != comingArrival_) return;
  comingArrival_ = 0;
  goOn(0);
}

AbroadDesk* AbroadService::deskBehind(std::uint32_t serial, const AbroadQuestion& question) const {
  const auto place = std::find_if(desks_.begin(), desks_.end(), [&](const auto& desk) {
    return desk->serial() > serial &&
           (question.bridgeID == 0 || desk->bridge()->getPluginID() == question.bridgeID);
  });
  return place == desks_.end() ? nullptr : place->get();
}

void AbroadService::ask(AbroadQuestion question) {
  do {
    lastCookie_ = lastCookie_ == std::numeric_limits<std::int32_t>::max() ? 1 : lastCookie_ + 1;
  } while (questions_.contains(lastCookie_));
  const std::int32_t cookie = lastCookie_;
  questions_.emplace(cookie, Asked{std::move(question)});
  askNext(cookie);
}

void AbroadService::askNext(std::int32_t cookie) {
  const auto place = questions_.find(cookie);
  Asked& asked = place->second;
  asked.deadline = platform::monotonicMilliseconds() + kQuestionTime;
  due_ = std::min(due_, asked.deadline);
  while (AbroadDesk* desk = deskBehind(asked.serial, asked.question)) {
    asked.serial = desk->serial();
    if (desk->ask(cookie, asked.question)) return;
  }
  if (asked.serial == 0 && asked.question.bridgeID == 0 && isBridgeComing()) return;
  AbroadQuestion question = std::move(asked.question);
  questions_.erase(place);
  hub_.broker().notFoundAbroad(question);
}

// What is told of one question may begin or end others.
void AbroadService::goOn(std::uint32_t serial) {
  std::vector<std::int32_t> cookies;
  for (const auto& [cookie, asked] : questions_)
    if (asked.serial == serial) cookies.push_back(cookie);
  for (const std::int32_t cookie : cookies)
    if (const auto place = questions_.find(cookie);
        place != questions_.end() && place->second.serial == serial)
      askNext(cookie);
}

void AbroadService::step() {
  if (questions_.empty()) return;
  const std::uint64_t now = platform::monotonicMilliseconds();
  if (now < due_) return;
  due_ = kNever;
  std::vector<std::int32_t> late;
  for (const auto& [cookie, asked] : questions_)
    if (now >= asked.deadline)
      late.push_back(cookie);
    else
      due_ = std::min(due_, asked.deadline);
  for (const std::int32_t cookie : late) {
    const auto place = questions_.find(cookie);
    if (place == questions_.end() || now < place->second.deadline) continue;
    withdraw(cookie, place->second);
    // One that has come and hasn't opened its desk won't.
    if (place->second.serial == 0) comingID_ = 0;
    askNext(cookie);
  }
}

int AbroadService::timeLeft(int most) const {
  if (questions_.empty()) return most;
  const std::uint64_t now = platform::monotonicMilliseconds();
  const std::uint64_t left = due_ > now ? due_ - now : 0;
  return left < static_cast<std::uint64_t>(most) ? static_cast<int>(left) : most;
}

void AbroadService::withdraw(std::int32_t cookie, const Asked& asked) {
  for (const auto& desk : desks_)
    if (asked.serial != 0 && desk->serial() == asked.serial) desk->NoLongerWanted(cookie);
}

std::list<AbroadQuestion> AbroadService::registered(std::string_view service,
                                                    const char* workingDir) {
  std::list<AbroadQuestion> served;
  for (auto place = questions_.begin(); place != questions_.end();) {
    const auto one = place++;
    AbroadQuestion& question = one->second.question;
    const char* wanted = workingDirOf(question.wish);
    if (question.standIn != -1 || *serviceIn(question.wish) != service ||
        (wanted && !sameWorkingDir(wanted, workingDir)))
      continue;
    withdraw(one->first, one->second);
    served.push_back(std::move(question));
    questions_.erase(one);
  }
  return served;
}

void AbroadService::gone(const HublinkConnection* plugin) {
  for (auto place = questions_.begin(); place != questions_.end();) {
    const auto one = place++;
    if (one->second.question.requester != plugin) continue;
    withdraw(one->first, one->second);
    questions_.erase(one);
  }
  while (true) {
    const auto place = std::find_if(desks_.begin(), desks_.end(),
                                    [&](const auto& desk) { return desk->bridge() == plugin; });
    if (place == desks_.end()) break;
    endDesk(place);
  }
  if (plugin->getPluginID() != comingID_) return;
  comingID_ = 0;
  goOn(0);
}

// Whether that is a plugin of the kind that the answer must name.
bool AbroadService::isAnswer(const AbroadDesk& desk, const AbroadQuestion& question,
                             const HublinkConnection* provider, std::int32_t rn) const {
  const StandIn* standIn = provider ? provider->standsFor() : nullptr;
  if (!standIn || standIn->bridgeID != desk.bridge()->getPluginID()) return false;
  if (std::holds_alternative<QueryWish>(question.wish)) return true;
  if (hub_.broker().connectionForRN(rn) != provider) return false;
  if (question.standIn == -1) return true;
  const HublinkConnection* named = hub_.plugins().find(question.standIn);
  const StandIn* wanted = named ? named->standsFor() : nullptr;
  return wanted && wanted->machine == standIn->machine && wanted->remoteID == standIn->remoteID;
}

// The answer to a question that has become void meanwhile is nobody's.
void AbroadService::found(const AbroadDesk& desk, std::int32_t cookie, std::int32_t pluginID,
                          std::int32_t rn) {
  const auto place = questions_.find(cookie);
  if (place == questions_.end() || place->second.serial != desk.serial()) return;
  HublinkConnection* provider = hub_.plugins().find(pluginID);
  if (!isAnswer(desk, place->second.question, provider, rn)) {
    hub_.log().logInternal(
        "Warning: Bridge %d has found what isn't its own: plugin ID %d, RN %d.\n",
        desk.bridge()->getPluginID(), pluginID, rn);
    withdraw(cookie, place->second);
    askNext(cookie);
    return;
  }
  AbroadQuestion question = std::move(place->second.question);
  questions_.erase(place);
  hub_.broker().foundAbroad(question, provider, rn);
}

void AbroadService::notFound(const AbroadDesk& desk, std::int32_t cookie) {
  const auto place = questions_.find(cookie);
  if (place != questions_.end() && place->second.serial == desk.serial()) askNext(cookie);
}
