// A hub as its record tells of it (active_hub_record.h).
#pragma once

#include <cstdint>

/// What a record says; a value that it lacks is -1, and so are both without a record.
struct ActiveHub {
  std::int32_t port = -1;
  std::int32_t process = -1;

  /// The port of a hub whose process runs, or 0.
  std::uint16_t livePort() const;
};
