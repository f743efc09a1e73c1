#include "indgen/viewpath.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "indgen/report.h"
#include "indgen/text.h"
#include "platform/file.h"
#include "platform/process.h"

bool viewpath_on = false;
bool viewpath_debug = false;
bool viewpath_slow = true;
int viewpath_switches = 0;
gen_view gen_the_view;

namespace {

constexpr const char* kNodeList = "NVPATH";
constexpr const char* kDebug = "KVX_VP_DEBUG";
constexpr const char* kOff = "KVX_VP_OFF";
constexpr const char* kSlow = "KVX_VP_SLOW";
constexpr const char* kSwitches = "KVX_VP_XSW";
constexpr int kNoAlternateRoot = 1;
constexpr std::size_t kWorkingDirectorySize = 1024;

bool isSet(const char* variable) {
  return platform::environmentVariable(variable) != nullptr;
}

void readSwitches() {
  const char* value = platform::environmentVariable(kSwitches);
  viewpath_switches = value ? std::atoi(value) : 0;
  viewpath_debug = isSet(kDebug);
}

// The mode that the environment makes of the one that was asked for.
int permitted(int mode) {
  if (mode != 0 && isSet(kOff)) {
    if (viewpath_debug)
      gen_info("Disabling viewpathing mode \n\tbecause environment variable (%s) is set.", kOff);
    mode = 0;
  }
  if (mode == 2 && isSet(kSlow)) {
    if (viewpath_debug)
      gen_info("Disabling FAST viewpathing mode \n\tbecause environment variable (%s) is set.",
               kSlow);
    mode = 1;
  }
  if (mode >= 0 && mode <= 2) return mode;
  gen_error("Illegal viewpath option passed to gen_viewpathing");
  return 0;
}

// A first node written as an absolute name with links in it is also known by that name.
void takeRoot(const char* written) {
  gen_view& view = gen_the_view;
  view.root = gen_strdup(view.nodes[0]);
  if (*written != '/' || std::strcmp(written, view.root) == 0) return;
  const bool ignored = (viewpath_switches & kNoAlternateRoot) != 0;
  if (!ignored) view.alternate_root = gen_strdup(written);
  if (viewpath_debug) gen_info("%s alternate root: %s", ignored ? "Ignoring" : "Using", written);
}

void addNode(const char* written) {
  std::string resolved;
  if (platform::resolvePath(written, resolved) != 0) {
    gen_warning("V_get_vpath:  Cannot resolve vpath node '%s', error near '%s'", written,
                resolved.c_str());
    return;
  }
  gen_view& view = gen_the_view;
  view.nodes[static_cast<std::size_t>(view.node_count++)] = gen_strdup(resolved.c_str());
  if (viewpath_debug) gen_info("Adding viewpath node %d: %s", view.node_count, resolved.c_str());
  if (view.node_count == 1) takeRoot(written);
}

void start(bool slow) {
  viewpath_slow = slow;
  if (viewpath_debug) gen_info("Viewpathing support is ON (%s).", slow ? "SLOW" : "FAST");
  if (viewpath_on) return;
  V_get_vpath();
  if (gen_the_view.node_count == 0) return;
  V_ask_working_directory();
  viewpath_on = true;
}

}  // namespace

void gen_viewpathing(int mode) {
  const int savedError = errno;
  readSwitches();
  mode = permitted(mode);
  if (mode != 0) {
    start(mode == 1);
  } else {
    if (viewpath_debug) gen_info("Viewpathing support is OFF.");
    V_free_vpath();
  }
  errno = savedError;
}

const char* gen_viewpath_text() {
  return platform::environmentVariable(kNodeList);
}

const char* const* gen_getviewpathnodes() {
  gen_error("[gen_getviewpathnodes]: not implemented");
  return nullptr;
}

void V_get_vpath() {
  if (gen_the_view.nodes_read) return;
  gen_the_view.nodes_read = true;
  const char* list = gen_viewpath_text();
  std::string item;
  while (gen_the_view.node_count < gen_view_limit && V_next_item(list, ":;", item))
    addNode(item.c_str());
}

void V_ask_working_directory() {
  char buffer[kWorkingDirectorySize];
  const bool known = platform::workingDirectory(buffer, sizeof buffer) == 0;
  gen_the_view.working_directory = gen_strdup(known ? buffer : nullptr);
}

void V_free_vpath() {
  viewpath_on = false;
  gen_view& view = gen_the_view;
  for (gen_text& node : view.nodes) node = gen_text();
  view.node_count = 0;
  view.root = gen_text();
  view.alternate_root = gen_text();
  view.working_directory = gen_text();
}
