// The bridge as a whole: its parts, and the pass in which all of its work is done.
//
//   HublinkPlugin    its own connection to the hub       HubDesk     what the hub wants abroad
//   NatsConnection   the road to the other machines      Announcer   who is there, and what exports
//   Members          the other machines                  Exports     what this one exports
//   SessionTable     reliable streams of frames          StandInTable  the hub's view of others
//   Wishes           links that plugins here ask for     Visits      and those of elsewhere
//   LinkTable        links that are up                   Values      questions about values
//   RealmDesk        what people are told of all that
//
// One thread does it all. A pass reads what has come on either side, and writes at its end what has
// become of it, so that a packet goes through in one pass.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "hublink_plugin/hublink_plugin.h"
#include "services/hublink_bridge/announcer.h"
#include "services/hublink_bridge/exports.h"
#include "services/hublink_bridge/hub_desk.h"
#include "services/hublink_bridge/link.h"
#include "services/hublink_bridge/members.h"
#include "services/hublink_bridge/nats_connection.h"
#include "services/hublink_bridge/options.h"
#include "services/hublink_bridge/realm_desk.h"
#include "services/hublink_bridge/session_table.h"
#include "services/hublink_bridge/stand_in_table.h"
#include "services/hublink_bridge/values.h"
#include "services/hublink_bridge/visits.h"
#include "services/hublink_bridge/wishes.h"

namespace bridge {

class Bridge : private NatsListener,
               private MembersListener,
               private SessionHost,
               private StandInListener {
 public:
  explicit Bridge(Options options);
  ~Bridge() override;

  /// Connects on both sides. A hub or a server that isn't there yet is waited for in run().
  bool start(std::string& error);
  /// Works until a signal or until there is no reason to go on; the program's exit code.
  int run();

 private:
  // --- The hub ---
  bool connectHub(std::string& error);
  void watchHub();
  void leaveHub();
  void hubGone();

  // --- NATS ---
  void natsMessage(const NatsMessage& message) override;
  void natsState(bool isConnected, const std::string& text) override;
  void memberCame(const std::string& machine) override;
  void memberGone(const std::string& machine, const std::string& why) override;

  // --- Sessions ---
  bool sendTo(const std::string& machine, const unsigned char* message, std::size_t size);
  bool transmit(Session& session, const unsigned char* message, std::size_t size) override;
  void frameArrived(Session& session, const Frame& frame) override;
  void roomAgain(Session& session) override;
  void sessionEnded(Session& session, const std::string& why) override;
  bool handle(Session& session, const Frame& frame);
  bool handleLink(Session& session, const Frame& frame);

  // --- Links ---
  void packetsArrived(StandIn& standIn, std::int32_t localRN, const unsigned char* packets,
                      std::int64_t size) override;
  void valueAsked(StandIn& standIn, std::int32_t requestingPluginID, const std::string& name,
                  HublinkPlugin::ValueAnswer answer) override;
  void linkEnded(Link& link);

  // --- The pass ---
  void noteTraffic(std::size_t bytes);
  void trimWhenQuiet();
  void pass();
  void sleep();
  void stop(int exitCode, const std::string& why);
  void tell(const std::string& text) const;
  void tellReady();

  Options options_;
  HublinkPlugin plugin_;
  HubDesk desk_;
  Exports exports_;
  Members members_;
  NatsConnection nats_;
  SessionTable sessions_;
  StandInTable standIns_;
  LinkTable links_;
  Parts parts_;
  Wishes wishes_;
  Visits visits_;
  Values values_;
  Announcer announcer_;
  RealmDesk realm_;
  std::vector<unsigned char> arrived_;  // a message for a session, which is changed there
  std::uint64_t traffic_ = 0;           // bytes of links since memory was trimmed
  bool isTrimDue_ = false;
  std::int64_t nextStep_ = 0;  // ms until something of the tables is due; -1: nothing
  bool hasHub_ = false;
  bool isHubReady_ = true;   // there is something to read or write at the hub
  bool isTold_ = false;      // that all is ready
  std::int64_t hubDue_ = 0;  // when the hub is tried again
  bool stops_ = false;
  int exitCode_ = 0;
};

}  // namespace bridge
