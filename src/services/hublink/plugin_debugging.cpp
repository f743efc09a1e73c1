#include "services/hublink/plugin_debugging.h"

#include "active_hub/plugin_options.h"
#include "indgen/find.h"
#include "services/hublink/hub_log.h"
#include "services/hublink/plugin_bounds.h"

namespace {

// The debugger of the installation, looked for once.
const std::string& locatedDebugger() {
  static const std::string located = [] {
    for (const char* name : {"vestrel", "adavestrel"})
      if (const gen_text path = gen_find_program(name, true, true)) return std::string(path);
    return std::string("could_not_locate_vestrel_or_adavestrel");
  }();
  return located;
}

}  // namespace

void PluginDebugging::debugPlugin(const char* pluginName, bool doDebug, const char* debugger,
                                  const char* debuggerOpts) {
  if (pluginName && !doDebug) debugPlugins_.erase(pluginName);
  if (pluginName && doDebug) {
    if (debugPlugins_.size() < kMostDebugNames)
      debugPlugins_.insert(pluginName);
    else if (!debugPlugins_.contains(pluginName))
      log_.logInternal("Warning: Too many plugins to be debugged: ignored \"%s\".\n", pluginName);
  }
  if (debugger) debugger_ = debugger;
  if (debuggerOpts) debuggerOpts_ = debuggerOpts;
}

std::vector<std::string> PluginDebugging::debugArgsFor(const std::string& pluginName) const {
  if (!debugPlugins_.contains(pluginName)) return {};
  return {plugin_options::kDebugStartup, plugin_options::kDebugger,
          debugger_ ? *debugger_ : locatedDebugger(), plugin_options::kDebuggerOptions,
          debuggerOpts_.value_or(" -hl_private -P ")};
}
