// What many launches at once are like: how long it takes until all who ask for services that aren't
// running have them, while two of the programs hang, and what a running link feels of it.
#pragma once

#include "bench/measurement.h"

void addLaunchCrowdMeasurement(const Settings& settings, Measurements& measurements);
