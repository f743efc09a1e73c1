// The path through one broker: its process, the far end's, and the driver's client.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "bench/far_end.h"
#include "bench/peers/peer_measure.h"

/// A directory of this run, gone with this object.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  /// A new directory in it.
  std::string make(const char* name) const;

 private:
  std::filesystem::path path_;
};

/// The executable of a kind's broker, `self` if that is this program; empty if it isn't installed.
std::string brokerProgram(const PeerKind& kind, const std::string& self);

class PeerLane {
 public:
  /// Starts the processes and waits until the far end is ready; null with a text in `error`.
  static std::unique_ptr<PeerLane> open(const PeerKind& kind, const std::string& self,
                                        const ScratchDirectory& scratch, std::int64_t window,
                                        std::string& error);

  PeerClient& client() { return *client_; }
  /// What has gone wrong, for people: the failure of the client, and which process has ended.
  std::string failure() const;

 private:
  explicit PeerLane(const PeerKind& kind) : kind_(kind) {}
  bool start(const std::string& self, const ScratchDirectory& scratch, std::int64_t window,
             std::string& error);
  bool awaitBroker(std::string& error) const;
  std::string endedProcess() const;

  const PeerKind& kind_;
  BrokerPlace place_;
  // The client goes first and the broker last.
  BenchProcess broker_;
  BenchProcess farEnd_;
  std::unique_ptr<PeerClient> client_;
};

/// The far end's process; its exit code.
int runPeerFarEnd(const PeerKind& kind, const BrokerPlace& place, std::int64_t window);
