// Round trips and streams on all three paths: what lies between two processes, and what it costs.
#pragma once

#include "bench/measurement.h"

void addPathMeasurements(const Settings& settings, Measurements& measurements);
