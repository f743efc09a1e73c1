#include "bench/plain_starts.h"

#include <array>
#include <deque>
#include <vector>

#include "active_hub/plugin_options.h"
#include "bench/launched_provider.h"
#include "bench/stopwatch.h"
#include "bench/waiting_socket.h"
#include "stp_transport/wire/stp_wire.h"

namespace {

using Word = std::array<unsigned char, 4>;

bool sendWord(const LoopbackSocket& connection, std::uint32_t value) {
  Word word;
  stpWriteWord(word.data(), value);
  return WaitingSocket(connection.get()).send(word.data(), std::ssize(word));
}

// A word comes whole, since it was sent so.
std::optional<std::uint32_t> receiveWord(const LoopbackSocket& connection, bool patient) {
  Word word;
  WaitingSocket socket(connection.get());
  if (socket.receiveSome(word.data(), std::ssize(word), patient) != std::ssize(word))
    return std::nullopt;
  return stpReadWord(word.data());
}

bool isReady(const LoopbackSocket& connection) {
  return connection && platform::makeBlocking(connection.get(), kTransferLimit);
}

}  // namespace

int runStarter(std::uint16_t port, const PlainStarts& starts) {
  platform::installStopSignals();
  platform::raiseDescriptorLimit();
  const LoopbackSocket driver = LoopbackSocket::connectedTo(port);
  const LoopbackSocket listener = LoopbackSocket::listening(), holder = LoopbackSocket::listening();
  if (!isReady(driver) || !listener || !holder || !receiveWord(driver, true)) return 1;
  std::vector<LoopbackSocket> connected;
  std::deque<BenchProcess> programs;  // end before their connections do
  std::string error;
  const Stopwatch watch;
  for (int i = 0; i < starts.count; ++i) {
    std::vector<std::string> arguments{plugin_options::kHubPort, std::to_string(listener.port())};
    if (i < starts.hanging) {
      arguments.push_back(launched_provider::kHangs);
      arguments.push_back(std::to_string(holder.port()));
    }
    if (!programs.emplace_back().start(starts.program, arguments, error)) return 1;
  }
  while (std::ssize(connected) < starts.count - starts.hanging) {
    connected.push_back(listener.accept([] { return false; }));
    if (!connected.back()) return 1;
  }
  return sendWord(driver, static_cast<std::uint32_t>(watch.microseconds())) ? 0 : 1;
}

bool Starter::open(const BenchPrograms& programs, const PlainStarts& starts, std::string& error) {
  const LoopbackSocket listener = LoopbackSocket::listening();
  if (!process_.start(programs.bench,
                      {"--role", kRoleStarter, "--port", std::to_string(listener.port()),
                       "--program", starts.program, "--count", std::to_string(starts.count),
                       "--hanging", std::to_string(starts.hanging)},
                      error))
    return false;
  int status = 0;
  connection_ = listener.accept([&] { return process_.ended(status); });
  if (!isReady(connection_)) error = "the starter hasn't connected";
  return error.empty();
}

std::optional<double> Starter::start(std::string& error) {
  if (sendWord(connection_, 1))
    if (const auto microseconds = receiveWord(connection_, false)) return *microseconds / 1e3;
  error = "the starter's programs don't come up";
  return std::nullopt;
}

void Starter::finish() {
  receiveWord(connection_, false);  // comes to nothing when the process has ended
}
