#include "services/hublink_bridge/hub_desk.h"

#include <utility>

namespace bridge {

class HubDesk::Side : public hubbridge::Bridge {
 public:
  explicit Side(WishListener& listener) : listener_(listener) {}

 protected:
  void onWanted(const hubbridge::Wanted& message) override { listener_.wanted(message); }
  void onWantedProvider(const hubbridge::WantedProvider& message) override {
    listener_.providerWanted(message);
  }
  void onNoLongerWanted(const hubbridge::NoLongerWanted& message) override {
    listener_.noLongerWanted(message.cookie);
  }

 private:
  WishListener& listener_;
};

bool HubDesk::open(HublinkPlugin& plugin, std::string& error) {
  ServiceQuery query;
  query.serviceName = kService;
  const ServiceReply reply = plugin.requestService(query);
  if (reply.outcome != ServiceReply::Outcome::accepted) {
    error = std::string("the hub takes no bridge (") + outcomeText(reply.outcome) + ")";
    return false;
  }
  side_ = std::make_unique<Side>(listener_);
  side_->attach(reply.link);
  if (side_->knows("StandsFor")) return true;
  error = "the hub takes no bridge: it is of an older version, or of another user";
  side_.reset();
  return false;
}

void HubDesk::standsFor(const StandIn& standIn,
                        std::function<void(const std::string& error)> done) {
  if (!isOpen()) {
    done("there is no hub");
    return;
  }
  side_->standsFor({.plugin_id = standIn.plugin().pluginID(),
                    .machine = standIn.key().machine,
                    .program = standIn.program(),
                    .remote_id = standIn.key().pluginID},
                   [done = std::move(done)](hublink::Result<hubbridge::StandsForReply> reply) {
                     done(reply ? reply->error : reply.text());
                   });
}

void HubDesk::found(std::int32_t cookie, std::int32_t pluginID, std::int32_t rn) {
  if (isOpen()) side_->found({.cookie = cookie, .plugin_id = pluginID, .rn = rn});
}

void HubDesk::notFound(std::int32_t cookie) {
  if (isOpen()) side_->notFound({.cookie = cookie});
}

}  // namespace bridge
