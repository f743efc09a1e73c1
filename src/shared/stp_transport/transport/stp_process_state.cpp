#include "stp_transport/transport/stp_process_state.h"

STPProcessState& stpProcess() {
  // A process runs on one thread; a simulation runs several of them in one program.
  static thread_local STPProcessState state;
  return state;
}
