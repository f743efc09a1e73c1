#include "simulation/ledger.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/sim/world.h"
#include "simulation/actor.h"

namespace {

using Leaving = LinkEnd::Leaving;

std::string named(std::int32_t own, std::int32_t other) {
  return "link " + std::to_string(own) + "-" + std::to_string(other);
}

char patternAt(std::uint32_t number, std::size_t place) {
  return static_cast<char>(number * 31 + place * 7);
}

}  // namespace

void Ledger::fault(const Actor& actor, const std::string& text) {
  world_.report(actor.name() + ": " + text);
}

void Ledger::ask(const Actor& actor, Question question, std::int32_t cookie) {
  Questions& questions = questions_[&actor];
  questions.answers[{question, cookie}] = 0;
  questions.open[{question, cookie}] = world_.now();
}

void Ledger::answer(const Actor& actor, Question question, std::int32_t cookie) {
  Questions& questions = questions_[&actor];
  questions.open.erase({question, cookie});
  const auto place = questions.answers.find({question, cookie});
  if (place == questions.answers.end())
    fault(actor, "an answer to nothing that was asked, cookie " + std::to_string(cookie));
  else if (++place->second > 1)
    fault(actor, "a second answer, cookie " + std::to_string(cookie));
}

void Ledger::giveUp(const Actor& actor, Question question, std::int32_t cookie) {
  Questions& questions = questions_[&actor];
  questions.open.erase({question, cookie});
  ++questions.givenUp;
}

int Ledger::open(const Actor& actor, Question question, std::uint64_t age) const {
  const auto questions = questions_.find(&actor);
  if (questions == questions_.end()) return 0;
  return static_cast<int>(std::count_if(
      questions->second.open.begin(), questions->second.open.end(), [&](const auto& one) {
        return one.first.first == question && one.second + age <= world_.now();
      }));
}

bool Ledger::isOpen(const Actor& actor, std::int32_t cookie) const {
  const auto questions = questions_.find(&actor);
  return questions != questions_.end() &&
         std::any_of(questions->second.open.begin(), questions->second.open.end(),
                     [cookie](const auto& one) { return one.first.second == cookie; });
}

int Ledger::givenUp(const Actor& actor) const {
  const auto questions = questions_.find(&actor);
  return questions == questions_.end() ? 0 : questions->second.givenUp;
}

std::pair<LinkEnd*, LinkEnd*> Ledger::ends(const Actor& actor, std::int32_t own,
                                           std::int32_t other) {
  const auto asProvider = links_.find({own, other});
  if (asProvider != links_.end() && asProvider->second.provider.actor == &actor)
    return {&asProvider->second.provider, &asProvider->second.requester};
  const auto asRequester = links_.find({other, own});
  if (asRequester != links_.end() && asRequester->second.requester.actor == &actor)
    return {&asRequester->second.requester, &asRequester->second.provider};
  return {nullptr, nullptr};
}

// A link may come up for somebody whose wish to leave is on its way.
LinkEnd Ledger::newEnd(Actor& actor, std::int32_t own, std::int32_t other) const {
  return {&actor, own, other, leaving_.contains(&actor) ? Leaving::perhaps : Leaving::no};
}

void Ledger::accept(Actor& provider, std::int32_t serviceRN, std::int32_t requesterRN) {
  links_[{serviceRN, requesterRN}].provider = newEnd(provider, serviceRN, requesterRN);
}

void Ledger::link(Actor& requester, std::int32_t requesterRN, std::int32_t serviceRN) {
  Link& link = links_[{serviceRN, requesterRN}];
  if (!link.provider.actor)
    fault(requester, named(requesterRN, serviceRN) + " is up without the provider's word");
  link.requester = newEnd(requester, requesterRN, serviceRN);
}

void Ledger::drop(const Actor& actor, std::int32_t own, std::int32_t other) {
  if (LinkEnd* end = ends(actor, own, other).first) end->left = Leaving::dropped;
}

void Ledger::hearEnd(const Actor& actor, std::int32_t own, std::int32_t other) {
  const auto [end, far] = ends(actor, own, other);
  const std::string name = named(own, other);
  if (!end) {
    fault(actor, "the end of an unknown " + name);
    return;
  }
  if (++end->endsHeard > 1) fault(actor, "hears twice of the end of " + name);
  if (!far->actor || end->left != Leaving::no) return;
  if (far->left == Leaving::no) fault(actor, "hears of the end of " + name + ", which is up");
  // What had left the other side before its end has come before it.
  const bool isCertain =
      far->left == Leaving::dropped || (far->left == Leaving::gone && !far->actor->isLibrary());
  if (isCertain && end->received < far->sent)
    fault(actor, name + " ends after " + std::to_string(end->received) + " of " +
                     std::to_string(far->sent) + " packets");
}

void Ledger::leave(const Actor& actor, bool certain) {
  if (!certain) leaving_.insert(&actor);
  for (auto& [key, link] : links_)
    for (LinkEnd* end : {&link.provider, &link.requester})
      if (end->actor == &actor && (certain || end->left == Leaving::no))
        end->left = certain ? Leaving::gone : Leaving::perhaps;
}

LinkEnd* Ledger::pick(const Actor& actor, std::uint64_t choice) {
  std::vector<LinkEnd*> up;
  for (auto& [key, link] : links_)
    for (LinkEnd* end : {&link.provider, &link.requester})
      if (end->actor == &actor && end->left == Leaving::no && end->endsHeard == 0)
        up.push_back(end);
  return up.empty() ? nullptr : up[choice % up.size()];
}

std::string Ledger::packet(LinkEnd& end, std::uint32_t size) {
  const std::uint32_t number = end.queued++;
  std::string bytes(sizeof number + size, '\0');
  std::memcpy(bytes.data(), &number, sizeof number);
  for (std::size_t i = sizeof number; i < bytes.size(); ++i) bytes[i] = patternAt(number, i);
  return bytes;
}

void Ledger::receive(const Actor& actor, std::int32_t own, std::int32_t other,
                     std::string_view bytes) {
  const auto [end, far] = ends(actor, own, other);
  const std::string name = named(own, other);
  if (!end) {
    fault(actor, "bytes on an unknown " + name);
    return;
  }
  if (end->left == Leaving::dropped) return;
  if (end->endsHeard > 0) fault(actor, "bytes after the end of " + name);
  std::uint32_t number = 0;
  if (bytes.size() >= sizeof number) std::memcpy(&number, bytes.data(), sizeof number);
  if (bytes.size() < sizeof number || number != end->received) {
    fault(actor, name + ": packet " + std::to_string(number) + " instead of " +
                     std::to_string(end->received));
    return;
  }
  for (std::size_t i = sizeof number; i < bytes.size(); ++i)
    if (bytes[i] != patternAt(number, i)) {
      fault(actor, name + ": packet " + std::to_string(number) + " has other bytes");
      return;
    }
  ++end->received;
}

void Ledger::hearNote(const Actor& actor, std::int32_t own, std::int32_t other,
                      std::int32_t number) {
  const auto [end, far] = ends(actor, own, other);
  const std::string name = named(own, other);
  // One that a call has put off may come after the end, which ends that call.
  if (!end)
    fault(actor, "a note on " + name + ", which isn't up");
  else if (number > far->notesSent || !end->notesHeard.insert(number).second)
    fault(actor, name + ": note " + std::to_string(number) + " of " +
                     std::to_string(far->notesSent) + " comes unsent or twice");
}

void Ledger::checkEnd(const LinkEnd& end, const LinkEnd& other) {
  if (!end.actor || !other.actor || !end.actor->isConnected() || end.left != Leaving::no) return;
  const std::string name = named(end.own, end.other);
  const bool otherLeft = other.left == Leaving::dropped || !other.actor->isConnected();
  if (otherLeft && end.endsHeard == 0) fault(*end.actor, "never hears of the end of " + name);
  if (!otherLeft && other.left == Leaving::no && end.received != other.sent)
    fault(*end.actor, name + ": " + std::to_string(end.received) + " of " +
                          std::to_string(other.sent) + " packets have come");
  if (!otherLeft && other.left == Leaving::no &&
      end.notesHeard.size() != static_cast<std::size_t>(other.notesSent))
    fault(*end.actor, name + ": " + std::to_string(end.notesHeard.size()) + " of " +
                          std::to_string(other.notesSent) + " notes have come");
}

void Ledger::checkRest() {
  for (const auto& [key, link] : links_) {
    checkEnd(link.provider, link.requester);
    checkEnd(link.requester, link.provider);
  }
}
