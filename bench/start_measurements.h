// How long a hub takes to listen, with no description file and with many, and how long a service
// that isn't running takes to be there, beside what starting the same program takes without a hub.
// And what it costs a process to start a program while it holds much memory.
#pragma once

#include "bench/measurement.h"

void addStartMeasurements(const Settings& settings, Measurements& measurements);
