// The options on the command line of a plugin that is started: how it comes to its hub, and whether
// it is to be debugged.
//
// They stand beside the record because they are the other way to a hub: who is told a port doesn't
// look for one. The hub writes them; the plugin library and plugins read them, in any case. Each is
// a word of its own, and its value is the next one. A plugin passes over those that mean nothing to
// it.
#pragma once

namespace plugin_options {

/// The port to connect to, decimal, 1 to 65535. Of a plugin that the hub starts itself it is a port
/// of this machine for this plugin alone, else the hub's own.
inline constexpr const char* kHubPort = "-hl_connect_hublink_port";
/// The full name of the hub's machine. Only for a plugin that another plugin starts for the hub;
/// without it the hub is on this machine.
inline constexpr const char* kHubHost = "-hl_connect_hublink_host";
/// The cookie to answer with in `StartPluginEvent`, decimal, from 1 on. Only for a plugin that
/// another plugin starts for the hub.
inline constexpr const char* kStartCookie = "-hl_client_start_cookie";

/// The plugin is to be debugged from its start on; no value. The next two are there with it.
inline constexpr const char* kDebugStartup = "-hl_debug_startup";
/// The debugger: its path, or a name for the system to search.
inline constexpr const char* kDebugger = "-hl_debug_debugger";
/// The debugger's options in one text, with blanks as they were given.
inline constexpr const char* kDebuggerOptions = "-hl_debug_debugger_opts";

}  // namespace plugin_options
