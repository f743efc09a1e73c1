// The view path: an overlay of several directory trees, its nodes, seen as one. A file that is
// missing in the first node is found in those behind it, and one that is to be written is first
// brought up into the first node.
//
// The layer takes part in the operations of access.h once it was started and has a node; until then
// they are the plain system calls. What it knows is the process's, owned here, unguarded, and used
// on the main thread alone.
#pragma once

#include <array>

#include "indgen/memory.h"
#include "indgen/viewpath_text.h"

/// The layer was started and has a node.
extern bool viewpath_on;
/// It narrates at level info; set while the environment has KVX_VP_DEBUG.
extern bool viewpath_debug;
/// Opening a file for writing alone copies it up first.
extern bool viewpath_slow;
/// The number in KVX_VP_XSW, 0 without it. Bit 0 refuses an alternate root.
extern int viewpath_switches;

/// The trees, and where the process stands in them.
struct gen_view {
  std::array<gen_text, gen_view_limit> nodes;  ///< absolute, without links, in the order of NVPATH
  int node_count = 0;
  gen_text root;               ///< the first node
  gen_text alternate_root;     ///< the first node as it was written, if that is another name for it
  gen_text working_directory;  ///< absolute, by the names that led there; none if it isn't known
  bool nodes_read = false;     ///< NVPATH was read, which is done once
};
extern gen_view gen_the_view;

/// Starts the layer (1: copy up before every writing, 2: not for writing alone) or ends it (0),
/// which frees the nodes for good: they are read once in a process. Anything else is an error and
/// counts as 0. KVX_VP_OFF makes every mode 0, KVX_VP_SLOW makes 2 into 1. Leaves `errno` as it
/// was.
void gen_viewpathing(int mode);

/// Whether the operations of access.h search the view.
inline bool gen_viewpath_active() {
  return viewpath_on && gen_the_view.node_count > 0;
}
/// The value of NVPATH, null if it isn't set.
const char* gen_viewpath_text();
/// Not supported: reports that as an error and gives null.
const char* const* gen_getviewpathnodes();

/// Reads the nodes from NVPATH, on the first call alone. A node that can't be resolved is warned
/// about and left out, one past the limit is ignored.
void V_get_vpath();
/// Takes the layer's working directory from the system; a name of 1024 bytes or more isn't known.
void V_ask_working_directory();
/// Ends the layer silently and frees what it holds.
void V_free_vpath();
