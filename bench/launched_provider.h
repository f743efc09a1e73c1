// The plugin that is launched in measurements, and what it is told on its command line besides what
// every started plugin is.
#pragma once

namespace launched_provider {

inline constexpr const char* kProgram = "launched_provider";

/// The service that it provides. It ends with the last of its links.
inline constexpr const char* kService = "-service";
/// A service that it asks for, once it is connected, before it registers its own.
inline constexpr const char* kNeeds = "-needs";
/// A port that it connects to in place of the hub's, and where it hangs until that connection ends.
inline constexpr const char* kHangs = "-hangs";

}  // namespace launched_provider
