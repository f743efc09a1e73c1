// Sets of transports, in an order that doesn't depend on where they lie in memory.
#pragma once

#include <set>

class STPTransport;

/// By construction, the oldest first.
struct STPTransportOrder {
  bool operator()(const STPTransport* a, const STPTransport* b) const;
};
using STPTransportSet = std::set<STPTransport*, STPTransportOrder>;
