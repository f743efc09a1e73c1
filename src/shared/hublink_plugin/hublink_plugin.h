// What the author of a plugin uses: the connection to a hub, services that are provided, and
// services of others that are asked for.
//
//   HublinkPlugin plugin;
//   std::string error;
//   if (!plugin.connect(port, error)) ...
//   plugin.registerService("Echo", [](const std::shared_ptr<HublinkLink>& link) { ... });
//   plugin.run();
//
// A plugin runs on one thread, and all plugins of a process on the same. Handlers run inside run(),
// serve() or any call that waits, and may themselves send, ask and wait. Another thread may call
// post() and nothing else.
//
// A program with a loop of its own sleeps until descriptor() is readable, for nextTimeout() at
// most, and then calls serve(0).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "hublink_plugin/hublink_link.h"
#include "hublink_plugin/open_questions.h"
#include "hublink_plugin/posted_calls.h"
#include "hublink_plugin/timed_calls.h"

class Hublink_plugin_Impl;
class PacketSink;
class HublinkPluginSpec;
struct STPStatus;

/// A request for one of this plugin's services.
struct ConnectionRequest {
  std::string serviceName;
  std::int32_t requestingPluginID = -1;
  std::vector<std::string> nameValuePairs;
};

/// What to ask for.
struct ServiceQuery {
  std::string serviceName;
  std::int32_t providingPluginID = -1;  ///< -1: any provider will do
  std::vector<std::string> nameValuePairs;
  std::optional<std::string> workingDir;  ///< only a provider with this working directory will do
  bool localOnly = false;
  bool noReuse = false;
  bool clientStart = false;
};

/// What came of it.
struct ServiceReply {
  enum class Outcome {
    accepted,      ///< `link` is up
    refused,       ///< the provider said no
    notFound,      ///< nobody provides the service, or the awaited plugin has gone
    lostProvider,  ///< the provider went before it answered
    sharedObject,  ///< the service is a library that the requester loads by itself
    timedOut,      ///< no answer in time
    disconnected,  ///< the connection to the hub has ended
  };
  Outcome outcome = Outcome::disconnected;
  std::shared_ptr<HublinkLink> link;
  std::int32_t pluginID = -1;    ///< of the provider
  std::string sharedObjectName;  ///< for Outcome::sharedObject
};
/// How many plugins a hub has.
struct PluginCounts {
  std::int32_t persistent = 0;  ///< of them, those for whose sake it stays up
  std::int32_t total = 0;
};

/// A word for an outcome, for messages to people.
const char* outcomeText(ServiceReply::Outcome outcome);

class HublinkPlugin {
 public:
  using LinkHandler = std::function<void(const std::shared_ptr<HublinkLink>& link)>;
  using AcceptHandler = std::function<bool(const ConnectionRequest& request)>;
  using ReplyHandler = std::function<void(const ServiceReply& reply)>;
  using RNHandler = std::function<void(const std::vector<std::int32_t>& list)>;
  using ValueHandler = std::function<std::optional<std::string>(const std::string& name)>;

  /// How long answers are waited for unless told otherwise, in ms: those that only the hub or a
  /// plugin gives, requests for a service, and whatever may start a program, for whose connection
  /// the hub waits 30 seconds.
  static constexpr int kAnswerTime = 10000;
  static constexpr int kServiceTime = 30000;
  static constexpr int kStartTime = 40000;

  HublinkPlugin();
  /// Disconnects. Not to be destroyed within one of its handlers.
  ~HublinkPlugin();
  HublinkPlugin(const HublinkPlugin&) = delete;
  HublinkPlugin& operator=(const HublinkPlugin&) = delete;

  /// Whether a hub of this machine that runs as another user than this one or root is taken too. At
  /// first it isn't: it could have anything done in its plugins.
  void setAnyUser(bool flag) { anyUser_ = flag; }
  /// Whether a hub of this machine is reached by its port alone.
  void setTcpOnly(bool flag) { tcpOnly_ = flag; }
  /// Connects to the hub on `port` of `host`, negotiates and learns the plugin ID. A hub that isn't
  /// there yet is tried again until `milliseconds` have passed (negative: no limit). False with a
  /// text in `error`. A connection that this plugin has is ended first.
  bool connect(std::uint16_t port, std::string& error, const char* host = "localhost",
               int milliseconds = 5000);
  /// The same on a transport that is connected to a hub already; the plugin takes a reference to
  /// it.
  bool attach(STPTransport* transport, std::string& error, int milliseconds = 5000);
  /// Connects a transport to a hub as this plugin's are.
  void reach(STPTransport& transport, const char* host, std::uint16_t port,
             STPStatus* status) const;
  /// Whether this plugin takes the hub at the other end of a connection that this process has made;
  /// if not, there is a text in `error`.
  bool takesHub(const STPTransport& transport, std::uint16_t port, std::string& error) const;
  /// Ends the connection, after writing what is queued as far as that goes without waiting. As at
  /// any end of it, links end, services go, and open questions are answered as failed.
  void disconnect();
  bool isConnected() const;
  /// The number that the hub has given this plugin; -1 before.
  std::int32_t pluginID() const { return pluginID_; }

  /// Offers a service: each requester that `accept` takes (none: all are taken) gives `connected` a
  /// link. Waits until the hub has the registration (negative time: no limit); the service's RN, or
  /// -1, and then the service isn't offered, also if the hub's answer comes later.
  std::int32_t registerService(const std::string& name, LinkHandler connected,
                               AcceptHandler accept = {}, int milliseconds = 5000);
  /// Offers a service under an RN that the plugin has reserved and under no name: only for those
  /// whom the hub sends there itself. unregisterService() withdraws it.
  void offerRN(std::int32_t rn, LinkHandler connected, AcceptHandler accept = {});
  /// Withdraws a service; links that are up stay so.
  void unregisterService(std::int32_t serviceRN);
  // Questions to the hub. A handler is called once: with the answer, or with what stands for none
  // when the time is up (negative: no limit) or the connection has ended, which without one is at
  // once.

  /// Asks for a service and waits for the answer.
  ServiceReply requestService(const ServiceQuery& query, int milliseconds = kServiceTime);
  /// Asks without waiting. The request's number; -1 without a connection. A provider that accepts
  /// when the time is up is told at once that the link has ended.
  std::int32_t requestService(const ServiceQuery& query, ReplyHandler handler,
                              int milliseconds = kServiceTime);
  /// Takes back a request by its number: its handler isn't called any more. False if it was
  /// answered already.
  bool cancelRequest(std::int32_t request) { return replies_.giveUp(request); }
  /// Asks for `count` RNs for the plugin's own use, given back with `hub().ReleaseRN`; no RNs if
  /// that failed. Those that come too late are given back.
  void reserveRNs(std::int32_t count, RNHandler handler, int milliseconds = kAnswerTime);
  /// Asks where the hub listens; an empty name and -1 if that failed.
  using LocationHandler = std::function<void(const std::string& hostName, std::int32_t port)>;
  void requestLocation(LocationHandler handler, int milliseconds = kAnswerTime);
  /// Asks who provides a service; -1 for nobody. With `workingDir` (or null) only a provider with
  /// this working directory counts.
  using ProviderHandler = std::function<void(std::int32_t pluginID)>;
  void requestProvider(const std::string& serviceName, const char* workingDir,
                       bool startIfNotRunning, ProviderHandler handler,
                       int milliseconds = kStartTime);
  /// Asks a plugin for a named value; none if there is no such plugin or value.
  using AnswerHandler = std::function<void(const std::optional<std::string>& value)>;
  void requestValue(std::int32_t pluginID, const std::string& name, AnswerHandler handler,
                    int milliseconds = kAnswerTime);
  /// Has the hub start a plugin: a program that is sought beside the hub and in PATH, with its
  /// arguments, in a working directory (null: the hub's). -1 with a text if it doesn't come up; one
  /// that comes later stays up.
  using PluginHandler = std::function<void(std::int32_t pluginID, const std::string& errors)>;
  void requestPluginLaunch(const std::vector<std::string>& command, const char* workingDir,
                           PluginHandler handler, int milliseconds = kStartTime);
  /// Has the hub connect to a plugin that listens; -1 with a text if it can't.
  void requestPluginConnect(const std::string& host, std::uint16_t port, PluginHandler handler,
                            int milliseconds = kStartTime);
  /// Asks how many plugins there are, this one among them, and waits for the answer; none if
  /// it didn't come. All that was sent to the hub before has then been done.
  std::optional<PluginCounts> countPlugins(int milliseconds = 5000);
  /// Whether the hub keeps a log, to which `hub().LogMessageEvent` adds.
  bool isLogKept() const { return logKept_; }
  /// Answers questions about named values; none means that there is no such value.
  void onValueRequest(ValueHandler handler) { valueHandler_ = std::move(handler); }
  /// The same for who has to ask further himself: the answer is given, in this connection, whenever
  /// it is there. Such a handler goes before one of the other kind.
  using ValueAnswer = std::function<void(const std::optional<std::string>& value)>;
  using ValueQuestionHandler = std::function<void(std::int32_t requestingPluginID,
                                                  const std::string& name, ValueAnswer answer)>;
  void onValueQuestion(ValueQuestionHandler handler) { valueQuestionHandler_ = std::move(handler); }
  /// Whether the hub stays up for this plugin's sake; it does unless told otherwise. Ignored
  /// without a connection.
  void setPersistent(bool persistent);
  /// The messages between plugin and hub, for what has no call of its own here. Only after a
  /// connect() that went well, and until the next.
  Hublink_plugin_Impl& hub();

  /// How many bytes may wait to be written to the hub, which reads on as long as receivers take
  /// what they get or it has room for it; 8 MiB unless told otherwise, 0: no limit. Packets of all
  /// links count, and messages to the hub, which themselves never wait.
  void setSendLimit(std::int64_t bytes);
  /// Serves until a stop() in a handler or the end of the connection.
  void run();
  void stop() { stopped_ = true; }
  /// Hands `call` over to the plugin's thread, from any thread at any time in the plugin's life. It
  /// is made in serve(), run() or a call that waits, which it wakes, behind those that were posted
  /// before, with or without a connection. Those that are still there when the plugin goes are
  /// destroyed unmade. With `post([&plugin] { plugin.stop(); })` another thread ends run().
  void post(std::function<void()> call) { posted_.add(std::move(call)); }
  /// One step of at most `milliseconds`, in which handlers run; false once the connection has
  /// ended, which all who wait have then been told. Without a connection it doesn't wait.
  bool serve(int milliseconds);
  /// Serves until `done` or the time is up (negative: no limit); the last word of `done`.
  bool serveUntil(const std::function<bool()>& done, int milliseconds);
  /// Writes what is queued as far as it goes without waiting.
  void flush();

  /// Has `call` made in serve(), run() or a call that waits, once `milliseconds` have passed, with
  /// or without a connection. It is forgotten by cancelLater(), and with the plugin.
  TimedCallID callLater(int milliseconds, std::function<void()> call) {
    return timedCalls_.add(milliseconds, std::move(call));
  }
  /// False if the call was made already, or has been taken back before.
  bool cancelLater(TimedCallID id) { return timedCalls_.cancel(id); }

  // --- For who carries links on elsewhere, packets unread ---
  /// All that comes on links goes to `sink` (not owned; null: no longer), in the next connection
  /// too; their HublinkLink tells of their end only.
  void carryPackets(PacketSink* sink);
  /// Queues whole packets as they stand, `size` bytes with the fill of each. Only they say which
  /// link they belong to. Nothing waits, whatever the send limit says; without a connection they
  /// are dropped.
  void sendPackets(const unsigned char* packets, std::int64_t size);
  /// Whether what comes from the hub is read. Meanwhile the hub lets those who send here wait.
  void setReading(bool flag);
  /// Bytes that wait to be written to the hub.
  std::int64_t waitingBytes() const;

  // --- For a loop of one's own ---
  /// Readable when there is something to serve: room to write included, and what is posted. It is
  /// the same for all plugins of the process, before, in and after a connection, and stays open.
  int descriptor() const;
  /// How many milliseconds a sleep may last if the descriptor doesn't become readable before; -1:
  /// any. To be asked before each sleep, behind all that may have sent or asked something.
  int nextTimeout() const;
  /// Whether something is still to be written to the hub.
  bool wantsWrite() const;

 private:
  friend class HublinkLink;
  friend class HublinkPluginSpec;
  friend class hublink::InterfaceCore;

  struct Service {
    std::string name;
    LinkHandler connected;
    AcceptHandler accept;
  };
  static constexpr std::int64_t kSendLimit = 8 << 20;
  using LinkKey = std::pair<std::int32_t, std::int32_t>;

  /// Takes down a question that is to be sent; false without a connection, and then it has failed.
  template <class Key, class Handler>
  bool ask(OpenQuestions<Key, Handler>& questions, std::type_identity_t<Key> key,
           std::type_identity_t<Handler> handler, int milliseconds,
           std::type_identity_t<Handler> late = {});
  std::shared_ptr<HublinkLink> openLink(std::int32_t localRN, std::int32_t remoteRN,
                                        std::int32_t peerPluginID, const std::string& serviceName,
                                        bool ownsRN);
  void connectionRequested(const ConnectionRequest& request, std::int32_t serviceRN,
                           std::int32_t remoteRN);
  void connectionReplied(std::int32_t cookie, const ServiceReply& reply, std::int32_t localRN,
                         std::int32_t serviceRN, const std::string& serviceName);
  void connectionDropped(std::int32_t localRN, std::int32_t remoteRN);
  void closeLink(HublinkLink& link);
  void connectionEnded();

  // What links may send (see HublinkLink::send).
  bool isFull();
  /// Serves until there is room or `isVain` says that nobody needs it any more; false if the time
  /// is up.
  bool awaitRoom(const std::function<bool()>& isVain, int milliseconds);
  void tellRoom();
  /// Whether what comes on links has to wait for a packet handler that waits for room, or for what
  /// has waited so.
  bool putsOff() const { return waitingHandlers_ > 0 || !putOff_.empty(); }
  void handlePutOff();
  /// Whether there is something to handle without anything having come.
  bool hasToHandle() const;

  CountedPtr<STPTransport> transport_;
  CountedPtr<HublinkPluginSpec> spec_;
  std::int32_t pluginID_ = -1;
  bool stopped_ = false;
  bool anyUser_ = false;
  bool tcpOnly_ = false;
  bool logKept_ = false;
  bool owesEnd_ = false;  // there is a connection whose end hasn't been told
  PostedCalls posted_;
  TimedCalls timedCalls_;
  std::map<std::int32_t, Service> services_;  // by serviceRN
  // Open questions; those with a number by their cookie.
  std::int32_t lastCookie_ = 0;
  OpenQuestions<std::int32_t, ReplyHandler> replies_;
  OpenQuestions<std::int32_t, ProviderHandler> providers_;
  OpenQuestions<std::int32_t, PluginHandler> plugins_;
  OpenQuestions<InTurn, RNHandler> rns_;
  OpenQuestions<InTurn, LocationHandler> locations_;
  OpenQuestions<std::pair<std::int32_t, std::string>, AnswerHandler> values_;
  std::map<LinkKey, std::shared_ptr<HublinkLink>> links_;
  ValueHandler valueHandler_;
  ValueQuestionHandler valueQuestionHandler_;
  PacketSink* packetSink_ = nullptr;
  std::int64_t sendLimit_ = kSendLimit;
  bool full_ = false;        // the limit was reached, and half of it hasn't gone since
  std::uint64_t rooms_ = 0;  // how often it has gone
  std::deque<std::weak_ptr<HublinkLink>> roomAwaited_;
  int packetDepth_ = 0;      // packet handlers that run
  int waitingHandlers_ = 0;  // calls that wait for room within those
  std::deque<std::function<void()>> putOff_;
};

/// The port after `-hl_connect_hublink_port` on a plugin's command line; 0 without one, or for a
/// number that is none. The other options of a plugin that is started: active_hub/plugin_options.h.
std::uint16_t hublinkPortArgument(int argc, char** argv);
