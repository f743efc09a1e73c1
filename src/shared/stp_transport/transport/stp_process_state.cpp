#include "stp_transport/transport/stp_process_state.h"

STPProcessState& stpProcess() {
  static STPProcessState state;
  return state;
}
