// What the plugins of a simulated run have asked, been told, sent and received, held against each
// other: an answer comes once, an end is heard once and by those alone whom it concerns, and bytes
// arrive whole and in order.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

class Actor;

namespace platform::sim {
class World;
}

/// What the hub is asked for. It answers the last three without waiting for anybody.
enum class Question : std::uint8_t { service, query, launch, lookUp, numbers, location };

/// One side of a link between two plugins.
struct LinkEnd {
  enum class Leaving : std::uint8_t { no, perhaps, dropped, gone };

  Actor* actor = nullptr;  ///< null as long as this side doesn't know of the link
  std::int32_t own = 0, other = 0;
  Leaving left = Leaving::no;
  int endsHeard = 0;
  std::uint32_t queued = 0;    ///< packets that were made
  std::uint32_t sent = 0;      ///< packets that have left for the hub for certain
  std::uint32_t received = 0;  ///< packets
  std::int32_t notesSent = 0;  ///< with an interface of its own on the link
  std::set<std::int32_t> notesHeard{};
};

struct Link {
  LinkEnd provider, requester;
};

class Ledger {
 public:
  explicit Ledger(platform::sim::World& world) : world_(world) {}

  void fault(const Actor& actor, const std::string& text);

  void ask(const Actor& actor, Question question, std::int32_t cookie);
  void answer(const Actor& actor, Question question, std::int32_t cookie);
  /// The asker has given up waiting, and an answer may still come.
  void giveUp(const Actor& actor, Question question, std::int32_t cookie);
  /// How many answers are still to come to what was asked at least so many ms ago.
  int open(const Actor& actor, Question question, std::uint64_t age = 0) const;
  bool isOpen(const Actor& actor, std::int32_t cookie) const;
  int givenUp(const Actor& actor) const;

  void accept(Actor& provider, std::int32_t serviceRN, std::int32_t requesterRN);
  void link(Actor& requester, std::int32_t requesterRN, std::int32_t serviceRN);
  /// This side ends the link by itself.
  void drop(const Actor& actor, std::int32_t own, std::int32_t other);
  void hearEnd(const Actor& actor, std::int32_t own, std::int32_t other);
  /// Everything that this plugin had ends, for certain or if the hub agrees.
  void leave(const Actor& actor, bool certain = true);
  /// A link of the actor's that is up, or null; `choice` picks one.
  LinkEnd* pick(const Actor& actor, std::uint64_t choice);

  /// The next packet's bytes.
  static std::string packet(LinkEnd& end, std::uint32_t size);
  void receive(const Actor& actor, std::int32_t own, std::int32_t other, std::string_view bytes);
  /// A note of the other side's interface has come. Those sent from within a wait may come earlier
  /// than others.
  void hearNote(const Actor& actor, std::int32_t own, std::int32_t other, std::int32_t number);

  /// To be called when everybody rests: the ends and bytes that should have come by now.
  void checkRest();

 private:
  using Asked = std::pair<Question, std::int32_t>;  // with its cookie
  struct Questions {
    std::map<Asked, int> answers;
    std::map<Asked, std::uint64_t> open;  // with the time when each was asked
    int givenUp = 0;
  };
  using Key = std::pair<std::int32_t, std::int32_t>;  // the provider's RN, the requester's
  /// This side and the other one; nulls if there is no such link.
  std::pair<LinkEnd*, LinkEnd*> ends(const Actor& actor, std::int32_t own, std::int32_t other);
  LinkEnd newEnd(Actor& actor, std::int32_t own, std::int32_t other) const;
  void checkEnd(const LinkEnd& end, const LinkEnd& other);

  platform::sim::World& world_;
  std::map<const Actor*, Questions> questions_;
  std::map<Key, Link> links_;
  std::set<const Actor*> leaving_;  // have asked the hub to disconnect them
};
