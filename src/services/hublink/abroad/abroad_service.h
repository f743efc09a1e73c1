// The service that the hub itself provides to bridges (interfaces/hub_bridge.stp), and what their
// answers are awaited for. A bridge has a desk on its own link, under an address of the link that
// no RN has, from when it has opened the service; from when both sides' records are exchanged it is
// asked.
//
// Bridges are asked one after the other, in the order in which they came, each for so long. A
// question ends with the first who has found something, or with the last who hasn't; with the end
// of its requester; or as soon as the service is registered here.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "services/hublink/abroad/abroad_desk.h"
#include "services/hublink/waiting_table.h"
#include "stp_transport/transport/counted_ptr.h"

class Hublink;
class HublinkConnection;

struct AbroadQuestion {
  HublinkConnection* requester;
  Wish wish;                  ///< for a service
  bool mayStart;              ///< a query's: a provider that is to be started will do
  std::int32_t standIn = -1;  ///< only what this plugin stands for will do
  std::int32_t bridgeID = 0;  ///< only this bridge is asked; 0 for any
  UsageShare share;           ///< of what the requester waits for
};

class AbroadService {
 public:
  static constexpr const char* kName = "hublink.abroad";
  /// What a bridge itself provides; by this name the hub starts one.
  static constexpr const char* kBridgeName = "hublink.bridge";
  /// The hub's end of the links to bridges.
  static constexpr std::int32_t kRN = 5;
  /// In place of a plugin ID.
  static constexpr std::int32_t kPluginID = 0;

  explicit AbroadService(Hublink& hub) : hub_(hub) {}
  ~AbroadService();
  AbroadService(const AbroadService&) = delete;
  AbroadService& operator=(const AbroadService&) = delete;

  // --- Bridges ---
  /// Opens a desk for a bridge, whose end of the link is `bridgeRN`.
  void open(const HublinkConnection* bridge, std::int32_t bridgeRN);
  /// Closes the desk; nothing happens if there is none.
  void close(const HublinkConnection* bridge, std::int32_t bridgeRN);
  bool isBridge(const HublinkConnection* plugin) const;
  /// Has the messages of all bridges traced in the hub's internal log that there is now, if any.
  void traceAll();

  /// A bridge comes by this arrival: until it does, or can't any more, questions wait for it.
  void expectBridge(ArrivalID arrival) { comingArrival_ = arrival; }
  void arrived(ArrivalID arrival, std::int32_t pluginID);
  void arrivalFailed(ArrivalID arrival);
  /// Whether somebody can be asked, or is about to come.
  bool hasBridge() const { return canAsk() || isBridgeComing(); }

  // --- Questions: the broker is told how they end ---
  void ask(AbroadQuestion question);
  /// Goes on with those that a bridge has kept for too long. To be called in each pass.
  void step();
  /// Milliseconds until step() has something to do if nothing else happens, at most `most`.
  int timeLeft(int most) const;
  /// The questions that a plugin with this working directory (or null) answers, which has
  /// registered the service here: they are over.
  std::list<AbroadQuestion> registered(std::string_view service, const char* workingDir);
  /// A plugin has gone, with its questions, and with its answers if it is a bridge.
  void gone(const HublinkConnection* plugin);
  /// By cookie, which is the order of arrival.
  struct Asked {
    AbroadQuestion question;
    std::uint32_t serial = 0;    ///< of the desk that has the question; 0 for none so far
    std::uint64_t deadline = 0;  ///< for this desk, in ms of the steady clock
  };
  const std::map<std::int32_t, Asked>& questions() const { return questions_; }

  // --- For the desks ---
  void ready(AbroadDesk& desk);
  void found(const AbroadDesk& desk, std::int32_t cookie, std::int32_t pluginID, std::int32_t rn);
  void notFound(const AbroadDesk& desk, std::int32_t cookie);

 private:
  /// Milliseconds: a bridge itself gives up sooner.
  static constexpr std::uint64_t kQuestionTime = 60000;
  static constexpr std::uint64_t kNever = UINT64_MAX;

  using Desks = std::vector<CountedPtr<AbroadDesk>>;

  bool canAsk() const;
  bool isBridgeComing() const { return comingArrival_ != 0 || comingID_ != 0; }
  AbroadDesk* deskBehind(std::uint32_t serial, const AbroadQuestion& question) const;
  void askNext(std::int32_t cookie);
  /// Goes on with all questions that this desk has; 0: that no desk has.
  void goOn(std::uint32_t serial);
  void withdraw(std::int32_t cookie, const Asked& asked);
  void endDesk(Desks::iterator place);
  bool isAnswer(const AbroadDesk& desk, const AbroadQuestion& question,
                const HublinkConnection* provider, std::int32_t rn) const;

  Hublink& hub_;
  Desks desks_;  // in the order in which they can be asked
  std::map<std::int32_t, Asked> questions_;
  std::uint64_t due_ = kNever;  // no question's deadline is before
  std::int32_t lastCookie_ = 0;
  std::uint32_t lastSerial_ = 0;
  ArrivalID comingArrival_ = 0;  // of the bridge that is to come; then
  std::int32_t comingID_ = 0;    // its plugin ID
};
