// How much one plugin may make the hub keep. Each bound lies far above what a tool needs, and keeps
// what a single plugin can take from all others below a few hundred megabytes; what happens beyond
// it is told with each, and in the internal log.
//
// Bytes are compared before a message is taken, so that the last one may pass the bound: a single
// large message always goes through.
#pragma once

#include <cstddef>
#include <cstdint>

/// RNs in one answer, which has 4 MiB for a question of some bytes. A larger count, like a negative
/// one, gets an empty list.
inline constexpr std::int32_t kLargestRNBlock = 1048576;
/// RNs that a plugin owns at a time, 64 MiB of the table if they are taken one by one. Beyond: an
/// empty list, and a service that is asked for isn't found.
inline constexpr std::int64_t kMostRNs = 8 * std::int64_t{kLargestRNBlock};

/// Services that it has registered, and the bytes of their names. Beyond: an empty list, and none
/// of the message's names is registered.
inline constexpr std::int64_t kMostServices = 65536;
inline constexpr std::int64_t kMostServiceBytes = std::int64_t{16} << 20;

/// What it has asked for without an answer so far (connections, providers, starts), since each is
/// looked through at every registration and departure; and the bytes of their texts. Beyond:
/// the answer of a failure, at once.
inline constexpr std::int64_t kMostWaiting = 16384;
inline constexpr std::int64_t kMostWaitingBytes = std::int64_t{64} << 20;

/// Programs that the hub is starting for it, and plugins that the hub is connecting to, each of
/// which takes some descriptors until that has ended. Beyond: the answer of a failure, at once.
inline constexpr std::int64_t kMostArrivals = 256;

/// Service connections that it has asked for and that stand. Beyond: not found.
inline constexpr std::int64_t kMostConnections = 16384;

/// Names of plugins to be started under the debugger, of all plugins together, since they outlive
/// who sent them. Beyond: ignored.
inline constexpr std::size_t kMostDebugNames = 1024;
/// A working directory, or a text about the debugger: no system takes a longer one. Beyond:
/// ignored.
inline constexpr std::size_t kLongestText = 65536;
