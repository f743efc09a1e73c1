// Speaks with the provider of a service by whatever interface it has: learns it, and sends and
// takes its messages.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/hublinkctl/interface/peer_spec.h"
#include "tools/hublinkctl/session.h"

namespace hublinkctl {

/// Works over a session, whose failures it tells there.
class InterfaceClient {
 public:
  explicit InterfaceClient(Session& session) : session_(session) {}
  ~InterfaceClient();
  InterfaceClient(const InterfaceClient&) = delete;
  InterfaceClient& operator=(const InterfaceClient&) = delete;

  /// Connects to a provider and takes its record. To be called before all others.
  bool open(const std::string& service);
  /// Learns the messages that the provider takes, for all but listening.
  bool learnMessages();
  /// Takes what the provider sends, and the fields of that, from a catalogue file.
  bool readCatalogue(const std::string& file);

  const std::string& service() const { return service_; }
  std::int32_t pluginID() const { return link_->peerPluginID(); }
  const PeerSpec& peer() const { return *spec_; }
  /// The messages that the provider sends; none without a catalogue.
  std::vector<const stpc::Message*> sent() const;

  /// Tells the provider what it can send: the messages `names`, or if there are none, those of the
  /// catalogue, or if there is none, all, without their names.
  bool listen(const std::vector<std::string>& names, PeerSpec::Handler handler);
  /// Sends a message, FIELD=VALUE. The fields of its answer; none on a failure, null if it is a
  /// one-way message. `awaited` messages are taken from here on.
  std::optional<Facts> call(const std::string& message, const std::vector<std::string>& arguments,
                            const std::vector<std::string>& awaited, PeerSpec::Handler handler);
  /// Serves until `done`, within the session's time. `what` hasn't come otherwise.
  bool await(const std::function<bool()>& done, const std::string& what);
  /// Serves on for a while; false, which is told, when the link or the hub has gone.
  bool serve(int milliseconds);

 private:
  /// Tells the failure if the link or the hub has gone.
  bool isThere();
  std::vector<TakenMessage> taken(const std::vector<std::string>& names) const;

  Session& session_;
  std::string service_;
  std::shared_ptr<HublinkLink> link_;
  CountedPtr<PeerSpec> spec_;
  std::optional<stpc::Catalogue> catalogue_;
  std::size_t side_ = 0;  // the provider's in the catalogue
};

}  // namespace hublinkctl
