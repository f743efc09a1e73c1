// What the hub's tables tell those who look into it, read where it stands: the tables know nothing
// of this, and nothing is kept here.
//
// Lists come in pages. The key of an item says where it stands among the others, so that a page
// goes on behind the one before, whatever has come and gone meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

class Hublink;
class HublinkConnection;
class STPTransport;

/// What there is of something that has an end.
struct FillLevel {
  std::int64_t used = 0;
  std::int64_t most = 0;  ///< 0 if it isn't known
};

struct HubFacts {
  std::string program, options, record, internalLog;  ///< empty for none
  std::int32_t port = 0;
  std::int64_t since = 0;  ///< ms since 1970, like all times here
  bool pluginLog = false;
  bool stopsWhenIdle = false;
  FillLevel descriptors, pluginIDs, rns;
  std::int32_t plugins = 0, negotiating = 0, persistent = 0;
  std::int32_t services = 0, links = 0, launches = 0, waiting = 0;
  std::uint64_t packets = 0, bytes = 0;  ///< relayed since the hub's start
};

struct PluginFacts {
  std::int32_t pluginID = 0;
  std::string program;  ///< empty if it isn't known
  std::int32_t process = -1, user = -1;
  bool wasLaunched = false;
  const char* road = "";  ///< "local", "tcp", or "remote"
  std::string address, workingDir, version;
  std::int64_t since = 0;
  bool isNegotiated = false, isPersistent = false;
  std::int32_t services = 0, links = 0, waiting = 0;
  std::uint64_t queuedBytes = 0;  ///< to be written to it
  std::int64_t slowSince = 0;     ///< 0 while it keeps up
  std::int32_t waitsFor = 0;      ///< the plugin for whose sake it isn't read
  std::int32_t stalled = 0;       ///< how many aren't read for its sake
  std::uint64_t sentPackets = 0, sentBytes = 0, receivedPackets = 0, receivedBytes = 0;
  std::string machine;        ///< of the plugin that it stands for; empty for none
  std::int32_t remoteID = 0;  ///< of that plugin, there
};

struct ServiceFacts {
  ServiceFacts(std::string what, const char* how) : name(std::move(what)), state(how) {}

  std::string name;
  const char* state;  ///< "registered", "awaited" or "startable"
  std::int32_t serviceRN = -1, pluginID = 0, waiting = 0;
  std::string program, file;  ///< of the description
  std::int32_t line = 0;
};

struct LinkFacts {
  std::string service;
  std::int32_t requesterID = 0, requesterRN = 0, providerID = 0, providerRN = 0;
  std::int64_t since = 0;
  std::uint64_t requesterPackets = 0, requesterBytes = 0;  ///< sent by it
  std::uint64_t providerPackets = 0, providerBytes = 0;
};

struct LaunchFacts {
  std::string program, service;
  std::int32_t process = -1;
  std::int64_t since = 0, until = 0;  ///< the deadline, 0 for none
  std::int32_t waiting = 0;
};

class HubReader {
 public:
  explicit HubReader(Hublink& hub) : hub_(hub) {}

  HubFacts hub() const;

  /// Each shows up to `most` items behind the key `after`, or from the first one on for an empty
  /// key, in order. Gives the key to go on with, or an empty text behind the last item.
  template <class Facts>
  using Visit = std::function<void(const Facts&)>;
  std::string plugins(const std::string& after, int most, const Visit<PluginFacts>& visit) const;
  std::string services(const std::string& after, int most, const Visit<ServiceFacts>& visit) const;
  std::string links(const std::string& after, int most, const Visit<LinkFacts>& visit) const;
  std::string launches(const std::string& after, int most, const Visit<LaunchFacts>& visit) const;

 private:
  PluginFacts factsOf(const HublinkConnection& connection) const;

  Hublink& hub_;
};
