#include "platform/descriptor_wait.h"

#include <poll.h>

#include <vector>

namespace platform {

bool waitForDescriptors(DescriptorWait* waits, std::size_t count, int milliseconds) {
  constexpr std::size_t kFew = 8;
  pollfd few[kFew];
  std::vector<pollfd> many(count > kFew ? count : 0);
  pollfd* polled = count > kFew ? many.data() : few;
  for (std::size_t i = 0; i < count; ++i) {
    const DescriptorWait& one = waits[i];
    const int events = (one.wantsRead ? POLLIN : 0) | (one.wantsWrite ? POLLOUT : 0);
    polled[i] = {one.descriptor, static_cast<short>(events), 0};
  }
  const int ready = poll(polled, count, milliseconds);
  for (std::size_t i = 0; i < count; ++i) {
    const int events = ready > 0 ? polled[i].revents : 0;
    waits[i].isReadable = waits[i].wantsRead && (events & (POLLIN | POLLHUP | POLLERR)) != 0;
    waits[i].isWritable = waits[i].wantsWrite && (events & (POLLOUT | POLLHUP | POLLERR)) != 0;
  }
  return ready >= 0;
}

}  // namespace platform
