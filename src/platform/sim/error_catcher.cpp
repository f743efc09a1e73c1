// Programs of the simulated machine have no standard error.
#include "platform/error_catcher.h"

namespace platform {

bool ErrorCatcher::open() {
  return false;
}

std::string ErrorCatcher::take() {
  return {};
}

void ErrorCatcher::close() {}

}  // namespace platform
