#include "bench/waiting_socket.h"

#include <cstring>

#include "platform/process.h"

bool WaitingSocket::fail(const char* what, int error) {
  failure_ = what;
  if (error != 0) failure_ += std::string(": ") + std::strerror(error);
  return false;
}

bool WaitingSocket::send(const unsigned char* bytes, std::int64_t count) {
  while (count > 0) {
    const platform::Transfer sent = platform::sendBytes(socket_, bytes, count);
    if (sent.wouldBlock) return fail("nothing could be sent in time");
    if (sent.error == platform::error::interrupted && !platform::stopRequested()) continue;
    if (sent.error != 0) return fail("sending failed", sent.error);
    bytes += sent.count;
    count -= sent.count;
  }
  return true;
}

std::int64_t WaitingSocket::receiveSome(unsigned char* bytes, std::int64_t room, bool patient) {
  for (;;) {
    const platform::Transfer got = platform::receiveBytes(socket_, bytes, room);
    if (got.count > 0) return got.count;
    if (platform::stopRequested())
      fail("stopped");
    else if ((got.wouldBlock && patient) || got.error == platform::error::interrupted)
      continue;
    else if (got.wouldBlock)
      fail("nothing arrived in time");
    else if (got.error != 0)
      fail("receiving failed", got.error);
    else
      fail("the other end has gone");
    return 0;
  }
}
