// Which plugins are to be started under the debugger, as plugins have said.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "services/hublink/text_pairs.h"

class HubLog;

class PluginDebugging {
 public:
  explicit PluginDebugging(HubLog& log) : log_(log) {}

  /// Each text may be null: then it changes nothing.
  void debugPlugin(const char* pluginName, bool doDebug, const char* debugger,
                   const char* debuggerOpts);
  /// What the plugin gets on its command line; nothing unless it is to be debugged.
  std::vector<std::string> debugArgsFor(const std::string& pluginName) const;

 private:
  HubLog& log_;
  OptionalText debugger_;
  OptionalText debuggerOpts_;
  std::set<std::string> debugPlugins_;
};
