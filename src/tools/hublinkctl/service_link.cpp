#include "tools/hublinkctl/service_link.h"

#include "tools/hublinkctl/launch_watch.h"

namespace hublinkctl {

std::shared_ptr<HublinkLink> openLink(Session& session, const std::string& service) {
  ServiceQuery query;
  query.serviceName = service;
  LaunchWatch watch(session);
  if (!watch.watchService(service)) return nullptr;
  const auto reply = session.ask<ServiceReply>(
      [&](const auto& answered) { session.plugin().requestService(query, answered, kNoLimit); });
  if (!reply || reply->link) return reply ? reply->link : nullptr;
  const bool isMissing = reply->outcome == ServiceReply::Outcome::notFound;
  const std::string reason = isMissing ? watch.reason() : std::string();
  session.fail(ExitCode::no, service + ": " + outcomeText(reply->outcome) +
                                 (reason.empty() ? "" : ": " + reason));
  return nullptr;
}

}  // namespace hublinkctl
