// A hub's figures in the text exposition format of Prometheus.
#pragma once

#include <string>

#include "tools/hublinkctl/session.h"

namespace hublinkctl {

/// Of a snapshot (see takeSnapshot): the hub, each plugin and each link, and the launches in hand
/// by program and service. Texts of others stand in labels only, where what isn't fit to be printed
/// is escaped.
std::string metricsText(const Facts& snapshot);

}  // namespace hublinkctl
