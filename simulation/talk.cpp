#include "simulation/talk.h"

#include <array>
#include <cstring>
#include <vector>

#include "talknew_asker_impl.h"
#include "talknew_giver_impl.h"
#include "talkold_asker_impl.h"
#include "talkold_giver_impl.h"

namespace {

// Some texts are none, some are empty.
const char* textFor(std::int32_t number) {
  static const std::array<std::string, 4> texts{"", "a text", std::string(300, 'x'), "more"};
  return number % 5 == 0 ? nullptr : texts[static_cast<std::size_t>(number) % texts.size()].c_str();
}

std::vector<const char*> namesFor(std::int32_t number) {
  std::vector<const char*> names;
  for (std::int32_t i = 0; i < number % 7; ++i) names.push_back(textFor(number + i));
  return names;
}

bool same(const char* a, const char* b) {
  return a && b ? std::strcmp(a, b) == 0 : a == b;
}

/// What both versions and both sides do alike.
template <class Side, bool isNew>
class End : public Side, public Talk {
 public:
  explicit End(TalkEvents events) : events_(std::move(events)) {}
  bool isUnlikePeer() const override { return isPeerNew() != isNew; }

 protected:
  // A field that the older side alone has.
  bool isGone(std::int32_t number, std::int32_t gone) const {
    return gone == (isPeerNew() ? 0 : -number);
  }
  void take(std::int32_t number, bool isWhole) {
    if (!isWhole)
      events_.garbled("a note of another content than number " + std::to_string(number));
    events_.noted(number);
  }
  void answer(std::int32_t number, std::int32_t& result) {
    events_.asked();
    result = number * 2;
  }
  bool check(bool came, bool isWhole) {
    if (came && !isWhole) events_.garbled("a call with a wrong answer");
    return came;
  }
  void refuse() { events_.garbled("a message that only the other version has"); }
  bool isPeerNew() const {
    return this->getPeerVstamp() && std::strcmp(this->getPeerVstamp(), "new") == 0;
  }

  TalkEvents events_;
};

template <class Array, class Element>
Array arrayOf(const std::vector<Element>& elements) {
  return {static_cast<std::int32_t>(elements.size()), elements.data()};
}

bool areNames(std::int32_t number, const StringArray& names) {
  const std::vector<const char*> wanted = namesFor(number);
  if (names.count != static_cast<std::int32_t>(wanted.size())) return false;
  for (std::size_t i = 0; i < wanted.size(); ++i)
    if (!same(names.data[i], wanted[i])) return false;
  return true;
}

class OldAsker : public End<TalkOld_asker_Impl, false> {
 public:
  using End::End;
  void note(std::int32_t number, STPStatus& status) override {
    Note(number, textFor(number), -number, false, nullptr, &status);
  }
  bool call(std::int32_t number, RetryHandler& retry, STPStatus& status) override {
    std::int32_t result = 0;
    const bool came = Twice(number, &result, &retry, &status);
    return check(came, result == number * 2);
  }
  void sayOwn(STPStatus& status) override { Farewell(1, false, nullptr, &status); }

 protected:
  void Tell(std::int32_t number, StringArray names, std::int32_t gone) override {
    take(number, areNames(number, names) && isGone(number, gone));
  }
  void Square(std::int32_t number, std::int32_t gone, gen_text& text,
              std::int32_t& result) override {
    if (!isGone(number, gone)) events_.garbled("a call with another field");
    answer(number, result);
    text = gen_strdup(textFor(number));
  }
  void Parting(std::int32_t) override {
    if (isPeerNew()) refuse();
  }
};

class NewAsker : public End<TalkNew_asker_Impl, true> {
 public:
  using End::End;
  void note(std::int32_t number, STPStatus& status) override {
    const std::vector<std::int32_t> marks(static_cast<std::size_t>(number % 9), number);
    Note({number, "place"}, arrayOf<RNArray>(marks), textFor(number), number, false, nullptr,
         &status);
  }
  bool call(std::int32_t number, RetryHandler& retry, STPStatus& status) override {
    std::int32_t result = 0;
    std::uint64_t spare = 0;
    const bool came = Twice(number / 2.0, number, &spare, &result, &retry, &status);
    return check(came, result == number * 2 && spare == (isPeerNew() ? 7u : 0u));
  }
  void sayOwn(STPStatus& status) override { Greeting(1, false, nullptr, &status); }

 protected:
  void Tell(const Tell_place& place, StringArray names, std::int32_t number) override {
    take(number, areNames(number, names) && place.x == (isPeerNew() ? number : 0) &&
                     same(place.text, isPeerNew() ? "place" : nullptr));
  }
  void Square(std::int32_t number, std::int32_t& result, std::uint64_t& spare,
              gen_text& text) override {
    answer(number, result);
    spare = 7;
    text = gen_strdup(textFor(number));
  }
  void Welcome(std::int32_t) override {
    if (!isPeerNew()) refuse();
  }
};

class OldGiver : public End<TalkOld_giver_Impl, false> {
 public:
  using End::End;
  void note(std::int32_t number, STPStatus& status) override {
    Tell(number, arrayOf<StringArray>(namesFor(number)), -number, false, nullptr, &status);
  }
  bool call(std::int32_t number, RetryHandler& retry, STPStatus& status) override {
    gen_text text;
    std::int32_t result = 0;
    const bool came = Square(number, -number, &text, &result, &retry, &status);
    return check(came, result == number * 2 && same(text, textFor(number)));
  }
  void sayOwn(STPStatus& status) override { Parting(1, false, nullptr, &status); }

 protected:
  void Note(std::int32_t number, const char* text, std::int32_t gone) override {
    take(number, same(text, textFor(number)) && isGone(number, gone));
  }
  void Twice(std::int32_t number, std::int32_t& result) override { answer(number, result); }
  void Farewell(std::int32_t) override {
    if (isPeerNew()) refuse();
  }
};

class NewGiver : public End<TalkNew_giver_Impl, true> {
 public:
  using End::End;
  void note(std::int32_t number, STPStatus& status) override {
    Tell({number, "place"}, arrayOf<StringArray>(namesFor(number)), number, false, nullptr,
         &status);
  }
  bool call(std::int32_t number, RetryHandler& retry, STPStatus& status) override {
    gen_text text;
    std::int32_t result = 0;
    std::uint64_t spare = 0;
    const bool came = Square(number, &result, &spare, &text, &retry, &status);
    return check(came, result == number * 2 && same(text, textFor(number)) &&
                           spare == (isPeerNew() ? 7u : 0u));
  }
  void sayOwn(STPStatus& status) override { Welcome(1, false, nullptr, &status); }

 protected:
  void Note(const Note_place& place, RNArray marks, const char* text,
            std::int32_t number) override {
    bool isWhole = same(text, textFor(number)) && place.x == (isPeerNew() ? number : 0) &&
                   marks.count == (isPeerNew() ? number % 9 : 0);
    for (std::int32_t i = 0; i < marks.count; ++i) isWhole = isWhole && marks.data[i] == number;
    take(number, isWhole);
  }
  void Twice(double weight, std::int32_t number, std::uint64_t& spare,
             std::int32_t& result) override {
    if (weight != (isPeerNew() ? number / 2.0 : 0)) events_.garbled("a call with another weight");
    answer(number, result);
    spare = 7;
  }
  void Greeting(std::int32_t) override {
    if (!isPeerNew()) refuse();
  }
};

template <class Kind>
TalkEnd made(TalkEvents events) {
  const auto end = makeCounted<Kind>(std::move(events));
  return {CountedPtr<STPSpecClass>(end.get()), end.get()};
}

}  // namespace

TalkEnd makeTalk(bool isNew, bool isAsker, TalkEvents events) {
  if (isAsker) return isNew ? made<NewAsker>(std::move(events)) : made<OldAsker>(std::move(events));
  return isNew ? made<NewGiver>(std::move(events)) : made<OldGiver>(std::move(events));
}
