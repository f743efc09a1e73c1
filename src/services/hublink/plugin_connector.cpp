#include "services/hublink/plugin_connector.h"

#include <algorithm>
#include <utility>

#include "services/hublink/broker.h"
#include "services/hublink/connected_plugins.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/user_gate.h"

bool PluginConnector::connect(ArrivalID arrival, UsageShare share, const char* host,
                              std::int32_t port) {
  const auto port16 = static_cast<std::uint16_t>(port);
  if (!host || port16 != port || !plugins_.ids().areLeft()) return false;
  attempts_.emplace_back(arrival, std::move(share), host, port16);
  return true;
}

void PluginConnector::step() {
  for (auto place = attempts_.begin(); place != attempts_.end();) {
    if (!place->connect.poll()) {
      ++place;
      continue;
    }
    finish(*place);
    place = attempts_.erase(place);
  }
}

void PluginConnector::finish(Attempt& attempt) {
  if (attempt.connect.status().good() && plugins_.ids().areLeft()) {
    auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
    transport->bindFD(attempt.connect.takeSocket());
    if (gate_.mayConnectTo(*transport, attempt.port)) {
      HublinkConnection* connection = plugins_.add(transport);
      connection->refuseHub();
      log_.logInternal("Created plugin ID %d on host %s, port %d.\n", connection->getPluginID(),
                       attempt.host.c_str(), attempt.port);
      broker_.arrived(attempt.arrival, connection);
      return;
    }
    transport->disconnect();
  }
  broker_.arrivalFailed(attempt.arrival, attempt.host);
}

void PluginConnector::giveUp() {
  for (const Attempt& attempt : attempts_) broker_.arrivalFailed(attempt.arrival, attempt.host);
  attempts_.clear();
}

int PluginConnector::timeLeft(int most) const {
  for (const Attempt& attempt : attempts_) most = std::min(most, attempt.connect.timeLeft());
  return most;
}
