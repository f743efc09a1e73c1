// The threads beside the main one, on which names are resolved.
#pragma once

namespace platform {

/// Whether the resolver runs on one of them, and may read the environment. A `false` holds until
/// the main thread begins a lookup.
bool anyLookupRuns();

}  // namespace platform
