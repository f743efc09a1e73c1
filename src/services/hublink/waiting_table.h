// Who waits for what: one table for all that a plugin has asked for and that something still has to
// happen for.
//
// An entry says what is wished (a connection to a service, the answer who provides it, a plugin to
// be there) and what it hangs on (any provider, one plugin, a plugin that the hub is about to have,
// a start that a client has in hand). The operations are what happens; each gives back the entries
// whose waiting is over, in order of arrival, and whoever calls it answers them. So the table knows
// rules and no messages.
//
// Requesters are the hub's: it tells of their end, and they are only told apart here. Texts are the
// table's own.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "services/hublink/plugin_usage.h"
#include "services/hublink/text_pairs.h"

class HublinkConnection;

/// A plugin that the hub is about to have by itself, as a child or by connecting to it, which may
/// fail. Counted over the life of the hub.
using ArrivalID = std::int32_t;

/// A connection to a service.
struct ServiceWish {
  std::string name;
  OptionalText workingDir;  ///< only a provider with this working directory will do
  bool localOnly = false;
  bool noReuse = false;  ///< no other provider will do than the one that it is started for
  TextPairs pairs;
  std::int32_t clientCookie = -1;
};
/// The answer who provides a service.
struct QueryWish {
  std::string name;
  OptionalText workingDir;
  std::int32_t cookie = -1;
};
/// That a plugin is there.
struct PluginWish {
  std::int32_t cookie = -1;
  std::string failure;  ///< what the requester is told if that never happens
};
using Wish = std::variant<ServiceWish, QueryWish, PluginWish>;

/// The name of the service that a wish is for; null for a wish that is for none.
const std::string* serviceIn(const Wish& wish);
/// The working directory that a provider must have; null for any.
const char* workingDirOf(const Wish& wish);
/// What its texts take.
std::int64_t bytesOf(const Wish& wish);

/// Any provider.
struct OnAnybody {};
/// This plugin and no other, whether it is there or not.
struct OnPlugin {
  std::int32_t pluginID;
};
/// An arrival in hand. One that it was begun for waits for that plugin alone, unless it is a query;
/// one that joined it takes whoever comes, but fails if nobody is to come any more.
struct OnArrival {
  ArrivalID arrival;
  bool isOwn;
};
/// A start that the requester itself has in hand, by its start cookie.
struct OnClientStart {
  std::int32_t startCookie;
};
using Awaited = std::variant<OnAnybody, OnPlugin, OnArrival, OnClientStart>;

struct Waiting {
  HublinkConnection* requester;
  Wish wish;
  Awaited on;
  UsageShare share;  ///< of what the requester waits for
};
using WaitingList = std::list<Waiting>;

class WaitingTable {
 public:
  ArrivalID newArrival() { return ++lastArrival_; }

  void add(HublinkConnection* requester, Wish wish, Awaited on, UsageShare share);
  /// A provider of the service is about to come by this arrival.
  void expect(std::string service, ArrivalID arrival);
  /// The same by a start of a client's; `setAside` is the plugin ID that stands in for the plugin's
  /// own until it is known.
  void expectFromClient(std::string service, std::int32_t startCookie, std::int32_t setAside);

  /// Whether somebody waits for the service, in a working directory that fits; either may be null.
  bool isAwaited(std::string_view service, const char* workingDir) const;
  /// Whether a provider of the service is about to come: it is being launched, or started by a
  /// client, or is there and hasn't registered it yet.
  bool isExpected(std::string_view service) const;
  /// What a further request for the service hangs on.
  Awaited joining(std::string_view service) const;

  /// A plugin has registered the service.
  WaitingList registered(std::int32_t pluginID, const char* workingDir, std::string_view service);
  /// The arrival is a plugin now, which is still to negotiate.
  void arrived(ArrivalID arrival, std::int32_t pluginID);
  struct FailedArrival {
    std::optional<std::string> service;  ///< that was expected from it
    WaitingList ended;
  };
  FailedArrival arrivalFailed(ArrivalID arrival);
  /// The plugin is there.
  WaitingList negotiated(std::int32_t pluginID);

  /// How a client's start has ended.
  struct ClientStartEnd {
    std::optional<Waiting> own;  ///< the one who began it, unless that waits on
    WaitingList others;          ///< who had named the ID that was set aside
    std::int32_t setAside = 0;   ///< which is free again; 0 if there was none
  };
  /// It is this plugin; nobody hangs on the start any more. With `isProviding` the plugin provides
  /// the service already.
  ClientStartEnd clientStarted(std::int32_t startCookie, std::int32_t pluginID, bool isProviding);
  ClientStartEnd clientStartFailed(std::int32_t startCookie);
  /// The service that a client's start is for; none if there is no such start or it is for none.
  std::optional<std::string> serviceOfStart(std::int32_t startCookie) const;

  struct Departure {
    WaitingList ended;                   ///< who has waited for it in vain
    std::vector<std::int32_t> setAside;  ///< plugin IDs that are free again
  };
  /// A plugin has gone: what it waited for is forgotten.
  Departure gone(const HublinkConnection* plugin, std::int32_t pluginID);

  bool empty() const { return entries_.empty() && expected_.empty(); }
  /// In order of arrival.
  const WaitingList& entries() const { return entries_; }
  /// The service that is expected from an arrival; empty for none.
  std::string serviceOf(ArrivalID arrival) const;
  /// How many hang on it.
  int countOn(ArrivalID arrival) const;

 private:
  friend class HublinkInspector;

  struct Expected {
    std::string service;
    Awaited from;
    std::int32_t setAside = 0;
  };
  WaitingList take(const std::function<bool(const Waiting&)>& ends);
  WaitingList takeThoseOn(std::int32_t pluginID);
  ClientStartEnd endClientStart(std::int32_t startCookie);

  WaitingList entries_;  // in order of arrival
  std::list<Expected> expected_;
  ArrivalID lastArrival_ = 0;
};

/// Whether two working directories, each possibly null, name the same one. Two nulls don't.
bool sameWorkingDir(const char* a, const char* b);
