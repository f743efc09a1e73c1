// What many plugins cost a hub: how long a thousand take that come at once, how much memory each
// idle one holds, and what a round trip between two plugins takes beside thousands of idle ones.
#pragma once

#include "bench/measurement.h"

void addCrowdMeasurement(const Settings& settings, Measurements& measurements);
