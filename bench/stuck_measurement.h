// What a receiver that has stopped reading costs the others: one plugin streams to it and plays
// round trips with a third.
#pragma once

#include "bench/measurement.h"

void addStuckMeasurement(const Settings& settings, Measurements& measurements);
