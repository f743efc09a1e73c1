// Starting plugins: as children of the hub, or by the client that asks; and what plugins say about
// how that is done (debugger, environment).
//
// A child is started with the number of a private port and connects there; until then the handler
// that launches it doesn't return, while packets between other plugins are relayed all the same.
#include <algorithm>
#include <cstring>

#include "active_hub/plugin_options.h"
#include "indgen/find.h"
#include "indgen/host.h"
#include "indgen/path.h"
#include "indgen/program.h"
#include "platform/process.h"
#include "services/hublink/hublink.h"
#include "services/hublink/plugin_bounds.h"
#include "stp_transport/child/stp_child_process.h"
#include "stp_transport/retry/stp_retryhandler.h"

namespace {

constexpr const char* kLaunchFailure = "Failed to launch plugin";
// Milliseconds that a launched child may take to connect.
constexpr int kLaunchLimit = 30000;
// Milliseconds of one step of a launch: how late its limit may be noticed when nothing happens.
constexpr int kLaunchStep = 100;

// The texts of a message.
std::vector<OptionalText> textsOf(const StringArray& array) {
  std::vector<OptionalText> texts;
  for (std::int32_t i = 0; i < array.count; ++i) texts.push_back(optionalText(array.data[i]));
  return texts;
}

// As a program is started with them: a null among them is an empty argument.
std::vector<std::string> argumentsOf(const std::vector<OptionalText>& texts) {
  std::vector<std::string> arguments;
  for (const OptionalText& text : texts) arguments.push_back(text.value_or(""));
  return arguments;
}

const char* pointerOf(const std::string& text) {
  return text.c_str();
}
const char* pointerOf(const OptionalText& text) {
  return textOrNull(text);
}
template <class Text>
std::vector<const char*> pointersOf(const std::vector<Text>& texts) {
  std::vector<const char*> pointers;
  for (const Text& text : texts) pointers.push_back(pointerOf(text));
  return pointers;
}

// The program in the hub's own directory if it is there; else the system searches for the name.
std::string programFor(const std::string& name) {
  const gen_text beside = gen_join(gen_program_dir(), name.c_str());
  return gen_file_kind(beside) == 1 ? std::string(beside) : name;
}

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

std::int32_t Hublink::launchPlugin(const std::vector<std::string>& argv, const char* workingDir) {
  if (argv.empty() || argv[0].empty() || !pluginIDsLeft()) return -1;
  logInternal("Launching plugin %s.\n", argv[0].c_str());
  std::vector<std::string> arguments = argv;
  for (const std::string& text : debugArgsFor(argv[0])) arguments.push_back(text);
  arguments[0] = programFor(argv[0]);

  auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPChildProcess child(false);
  const auto pointers = pointersOf(arguments);
  child.setArguments(pointers.data(), static_cast<int>(pointers.size()));
  child.setTransport(transport.get());
  child.setPassHost(false);
  child.setPortIndex(2);
  child.insertArgumentAt(plugin_options::kHubPort, 1);
  child.setWorkingDirectory(workingDir);
  // The traffic between plugins goes on.
  TimeoutSTPRetryHandler limit(transport.get(), kLaunchLimit);
  limit.setStep([&] {
    transport->serviceOnceRelaying(kLaunchStep, transports);
    return !platform::stopRequested();
  });
  STPStatus status;
  child.launch(&limit, &status);
  if (!status.good()) {
    logInternal("Unable to launch %s: %s\n", arguments[0].c_str(),
                child.startError() != 0 ? std::strerror(child.startError()) : status.message);
    // One that never connected may go on, but not as a plugin of this hub; only at the hub's own
    // end it is waited for like a plugin.
    if (platform::stopRequested() && child.process() != 0)
      unconnectedChildren.emplace_back(child.process(), gen_base_name(argv[0].c_str()));
    else
      platform::releaseChild(child.process());
    return -1;
  }
  return addConnection(transport, child.process(), gen_base_name(argv[0].c_str()),
                       workingDir ? workingDir : gen_getcwd())
      ->getPluginID();
}

std::int32_t Hublink::clientStartPlugin(HublinkConnection* requester,
                                        const std::vector<OptionalText>& argv,
                                        const char* workingDir) {
  const std::int32_t startCookie = ++lastStartCookie;
  std::vector<OptionalText> arguments = argv;
  if (!argv.empty() && argv[0])
    for (const std::string& text : debugArgsFor(gen_base_name(argv[0]->c_str())))
      arguments.emplace_back(text);
  for (const std::string& text :
       {std::string(plugin_options::kStartCookie), std::to_string(startCookie),
        std::string(plugin_options::kHubHost), std::string(gen_full_host_name()),
        std::string(plugin_options::kHubPort), std::to_string(port)})
    arguments.emplace_back(text);
  const auto pointers = pointersOf(arguments);
  STPStatus status;
  requester->StartPlugin({static_cast<std::int32_t>(pointers.size()), pointers.data()}, startCookie,
                         workingDir, false, nullptr, &status);
  return status.good() ? startCookie : -1;
}

void Hublink::requestPluginLaunch(HublinkConnection* requester, const StringArray& argv,
                                  std::int32_t cookie, bool clientStart, const char* workingDir) {
  const std::vector<OptionalText> texts = textsOf(argv);
  const std::int32_t started = !canWait(requester) ? -1
                               : clientStart       ? clientStartPlugin(requester, texts, workingDir)
                                                   : launchPlugin(argumentsOf(texts), workingDir);
  if (started == -1)
    requester->PluginConnectedEvent(cookie, -1, kLaunchFailure);
  else if (clientStart)
    clientStarts[started] = {requester, cookie, 0, requester->shareOf(&PluginUsage::waiting)};
  else
    launchWaiters[started] = {requester, cookie, kLaunchFailure,
                              requester->shareOf(&PluginUsage::waiting)};
}

void Hublink::startPluginEvent(HublinkConnection* sender, std::int32_t cookie, bool success,
                               const char* errorMessage) {
  const auto node = clientStarts.extract(cookie);
  if (node.empty()) return;
  const ClientStart& start = node.mapped();
  const std::int32_t pluginID = sender->getPluginID();
  if (start.pluginID == 0) {
    start.requester->PluginConnectedEvent(start.cookie, success ? pluginID : -1, errorMessage);
  } else if (success) {
    // The request waits for the plugin that has really come instead of the ID set aside for it.
    for (PendingRequest& request : pendingRequests)
      if (request.pluginID == start.pluginID) request.pluginID = pluginID;
    if (findServiceRN(sender, start.serviceName.c_str(), pluginID, nullptr, false) == -1)
      comingProviders.emplace(pluginID, start.serviceName);
  } else {
    start.requester->ConnectionReplyEvent("", -1, false, false, false, 0, -1, nullptr,
                                          start.cookie);
    // Others may have named the ID before it was set aside.
    const auto own = std::find_if(
        pendingRequests.begin(), pendingRequests.end(), [&start](const PendingRequest& request) {
          return request.pluginID == start.pluginID && request.requester == start.requester &&
                 request.clientCookie == start.cookie;
        });
    if (own != pendingRequests.end()) pendingRequests.erase(own);
    failRequestsFor(start.pluginID);
  }
  if (start.pluginID != 0) unlearnedPluginIDs.push_back(start.pluginID);
}

void Hublink::debugPlugin(const HublinkConnection* sender, const char* pluginName, bool doDebug,
                          const char* newDebugger, const char* newOptions) {
  for (const char* text : {pluginName, newDebugger, newOptions})
    if (!isTextTaken(sender, text)) return;
  if (pluginName && !doDebug) debugPlugins.erase(pluginName);
  if (pluginName && doDebug) {
    if (debugPlugins.size() < kMostDebugNames)
      debugPlugins.insert(pluginName);
    else if (!debugPlugins.contains(pluginName))
      logInternal("Warning: Too many plugins to be debugged: ignored \"%s\".\n", pluginName);
  }
  if (newDebugger) debugger = newDebugger;
  if (newOptions) debuggerOpts = newOptions;
}

std::vector<std::string> Hublink::debugArgsFor(const std::string& pluginName) {
  if (!debugPlugins.contains(pluginName)) return {};
  return {plugin_options::kDebugStartup, plugin_options::kDebugger,
          debugger ? *debugger : locatedDebugger(), plugin_options::kDebuggerOptions,
          debuggerOpts.value_or(" -hl_private -P ")};
}

void Hublink::setEnvironmentVariable(const char* variable, const char* value) {
  if (!value) return;
  if (!variable || !*variable || std::strchr(variable, '=')) {
    logInternal("Ignored the environment variable \"%s\".\n", variable ? variable : "");
    return;
  }
  changeEnvironment(variable, value);
}

// A variable that is too large would keep every later child from starting.
void Hublink::changeEnvironment(const char* variable, const char* value) {
  const int outcome = platform::setEnvironmentVariable(variable, value);
  if (outcome < 0)
    logInternal("Ignored the environment variable \"%.100s\" of %lu bytes: %s.\n", variable,
                static_cast<unsigned long>(std::strlen(value)), std::strerror(-outcome));
}

// Of a service's environment only LIBPATH has an effect: it goes to the end of the path on which
// children find their programs and libraries, anew on each use.
void Hublink::applyServiceEnvironment(const std::vector<NameAndValue>& environment) {
  for (const NameAndValue& entry : environment) {
    if (entry.name != "LIBPATH") continue;
    std::string cleaned = entry.value;
    gen_clean_path(cleaned.data());
    cleaned.resize(std::strlen(cleaned.c_str()));
    const char* present = platform::environmentVariable("PATH");
    const std::string path = present && *present ? std::string(present) + ":" + cleaned : cleaned;
    changeEnvironment("PATH", path.c_str());
  }
}
