// A link to whoever provides a service.
#pragma once

#include <memory>
#include <string>

#include "tools/hublinkctl/session.h"

namespace hublinkctl {

/// A provider is started if there is none and the hub knows one. Null with the failure told.
std::shared_ptr<HublinkLink> openLink(Session& session, const std::string& service);

}  // namespace hublinkctl
