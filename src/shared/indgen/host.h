// The name of this host.
#pragma once

#include "indgen/memory.h"

/// The name that the machine gives itself; an empty text if it has none.
gen_text gen_host_name();
/// The same with its domain, if the resolver knows it. Remembered, and valid until the process
/// ends.
const char* gen_full_host_name();
