// A machine for simulations: processes, the network between them and a clock, all in one program
// and under one seed. The sources of this folder take the place of the system's own behind the
// headers of src/platform, so that programs run on it unchanged; files stay those of the system.
//
// Each simulated process is a thread, of which only one runs at a time: it runs until it would
// sleep, or until the world interrupts it within a call, and then the driver, which is the thread
// that made the world, chooses who goes on. Time stands still unless the driver moves it. The
// network is made of streams that hold a limited number of bytes, which arrive in pieces.
//
// The world also watches how the calls are used: a descriptor that is used after it was closed,
// closed while it is watched, or left open by a process that keeps to its own rules is a fault.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/process.h"
#include "platform/readiness.h"
#include "platform/sim/stream.h"

namespace platform::sim {

/// The time of what doesn't happen by itself.
constexpr std::uint64_t kNever = ~std::uint64_t{0};

/// The body of a program: its arguments, its own name first, and its exit status.
using Program = std::function<int(const std::vector<std::string>& arguments)>;

/// What a call may meet, each in chances of a thousand, and the size of a stream in bytes.
struct Weather {
  unsigned partialTransfer = 0;  ///< only a part of the bytes is taken, or has arrived yet
  unsigned interruption = 0;     ///< somebody else runs within the call
  unsigned refusal = 0;          ///< a connect is refused
  unsigned acceptFailure = 0;    ///< an accept finds no descriptor
  unsigned slowAnswer = 0;       ///< a connect or the lookup of a name takes its time
  unsigned noAnswer = 0;         ///< it gets no answer ever
  std::size_t streamSize = 65536;
};

/// What a thread waits for until another one gives it.
class Turn {
 public:
  void give() {
    const std::lock_guard lock(mutex_);
    isGiven_ = true;
    changed_.notify_one();
  }
  void take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return isGiven_; });
    isGiven_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool isGiven_ = false;
};

/// One entry of a process's table of descriptors.
struct Descriptor {
  std::shared_ptr<Stream> stream;  ///< null for a watched child or a lookup
  ProcessId child = 0;             ///< 0 for a lookup
  bool isOpen = false;
  int watchedBy = -1;          ///< the readiness set
  bool announced = true;       ///< nothing has changed since a wait last looked
  std::uint64_t answerAt = 0;  ///< ms; of a lookup
};

struct Process {
  explicit Process(ProcessId number) : id(number) {}

  ProcessId id;
  std::string name;
  Process* parent = nullptr;
  std::uint32_t address = 0x7F000001;  ///< of its machine
  std::uint32_t user = 1000;           ///< that it acts as, and its children
  std::map<std::string, std::string> environment;
  std::vector<Descriptor> descriptors;  ///< by number
  int descriptorsAtEnd = 0;             ///< sockets left open when the program returned
  int connections = 0;                  ///< that it has made, or taken from its own user

  // Its run.
  std::thread thread;
  Turn turn;
  bool waiting = false;
  std::uint64_t wakeAt = 0;          ///< ms; while waiting
  std::function<bool()> wakesEarly;  ///< while waiting; may be null
  bool woken = false;                ///< by a signal, which not every wait heeds
  bool heedsSignals = false;         ///< while waiting
  int idleCalls = 0;                 ///< calls since anything happened to it

  // Its end.
  bool handlesStop = false, stopRequested = false;
  bool killed = false;    ///< it is over for everybody else, its thread is on the way out
  bool returned = false;  ///< the thread is over too
  bool released = false;  ///< the parent doesn't ask for it any more
  ChildEnd end;
};

class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  static World& current();

  // --- For the driver ---
  Weather weather;
  /// Gives the chances of all that follows.
  void reseed(std::uint64_t seed) { random_.seed(seed); }
  /// A program that startProcess finds by its base name.
  void install(const std::string& name, Program program);
  /// Starts a process that nobody is the parent of, on the machine with this address.
  Process& start(const std::string& name, const Program& program,
                 std::uint32_t address = 0x7F000001);
  /// Ends a process as a crash would: its connections end, and all that it still calls fails.
  void kill(Process& process);
  /// Ends a wait of the process, as a signal would.
  static void wake(Process& process) { process.woken = true; }
  /// Lets one process that can go on do so, until it waits. False if none can.
  bool step();
  /// Steps until nobody can go on; false if that doesn't come.
  bool settle();
  /// Moves the clock, letting everybody run whose time comes on the way.
  bool pass(std::uint64_t milliseconds);
  /// Kills all processes and lets each of them find its way out.
  void endAll();
  Process* find(ProcessId id) const;
  bool isAlive(ProcessId id) const;
  /// The children of the process that it may still ask for.
  std::set<ProcessId> keptChildren(const Process& parent) const;
  /// What has gone wrong; empty as long as nothing has.
  const std::string& fault() const { return fault_; }
  void report(const std::string& fault);
  /// The wall clock's time at the world's start, ms since 1970.
  std::int64_t wallStart = 1'800'000'000'000;
  /// A user whose processes send to none of others on their machine but root and read from none,
  /// and accept no connection of each other only to close it; else it is a fault. None at first.
  std::optional<std::uint32_t> guarded;
  /// A port that somebody listens on, or 0; `choice` picks one.
  std::uint16_t somePort(std::uint64_t choice) const;

  // --- For the calls of processes ---
  /// The steady clock of the calling process, ms. For one that was killed it runs on by itself, so
  /// that none of its waits is long.
  std::uint64_t now();
  bool chance(unsigned thousandths) { return random_() % 1000 < thousandths; }
  std::uint64_t upTo(std::uint64_t most) { return 1 + random_() % most; }
  /// When what is asked of somebody far away is answered, ms of the clock: now, later or kNever.
  std::uint64_t answerTime();
  /// The process whose thread this is; the driver counts as one that never waits.
  Process& self();
  /// A call that did nothing, and a place where others may run.
  void idle();
  /// Waits until `early` or the time of the clock, or also for a signal.
  void waitUntil(std::uint64_t time, std::function<bool()> early, bool heedsSignals = false);
  /// The lowest free number in the process's table.
  int open(Process& process, Descriptor descriptor);
  /// The entry, or null, with a fault, for a number that isn't open.
  Descriptor* entry(int descriptor);
  /// Closes the calling process's descriptor; false if it isn't open.
  bool close(int descriptor);
  /// Something about the stream's end has changed that a wait is to see.
  void announce(const std::shared_ptr<Stream>& stream);
  /// Has bytes or room that a partial transfer kept back come with one of the next steps.
  void later(const std::shared_ptr<Stream>& stream);
  /// Who listens on a port or a name, or null.
  std::shared_ptr<Stream> listenerAt(const std::string& place) const;
  void listen(const std::shared_ptr<Stream>& stream) { listeners_[stream->place] = stream; }
  /// A process sends or reads on a connection, or tries to.
  void meet(Stream& stream);
  std::uint16_t freePort() { return ++lastPort_; }
  const Program* program(const std::string& name) const;
  Process& launch(const std::string& name, const Program& program, Process* parent,
                  std::vector<std::string> arguments);

 private:
  bool canGoOn(const Process& process) const;
  void resume(Process& process);
  void closeAll(Process& process);
  void closeEntry(Process& process, std::size_t number);
  void finish(Process& process, int status);

  std::mt19937_64 random_;
  std::uint64_t now_ = 1000;
  std::vector<std::unique_ptr<Process>> processes_;
  std::map<std::string, Program> programs_;
  std::map<std::string, std::shared_ptr<Stream>> listeners_;  // by place
  std::vector<std::weak_ptr<Stream>> late_;
  std::uint16_t lastPort_ = 20000;
  Turn driverTurn_;
  std::string fault_;
};

}  // namespace platform::sim
