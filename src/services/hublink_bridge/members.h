// The other machines of the realm, as far as they have made themselves heard: what each exports,
// how far it is, and when it was heard last. All of it was written by others, and is bounded.
//
// Knows no connection and no clock: what has come is told to it with the time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace bridge {

/// A service that a machine exports.
struct ExportedService {
  std::string name;
  bool isRunning = false;      ///< else its machine would have to start it
  std::int32_t pluginID = -1;  ///< of the provider, on its machine
  std::string program;         ///< of the provider
  bool operator==(const ExportedService&) const = default;
};

struct Member {
  std::string version;
  std::string incarnation;      ///< another one for each start of its bridge
  std::int64_t since = 0;       ///< when its bridge was started, in ms since 1970
  std::int64_t heard = 0;       ///< in ms of the clock that the table is told
  std::int64_t shown = 0;       ///< when this incarnation was named, at the latest
  std::int64_t roundTrip = -1;  ///< smoothed, in us; -1: not measured yet
  std::uint64_t state = 0;      ///< the number of what it has told of its exports; 0: nothing yet
  std::vector<ExportedService> services;
};

class MembersListener {
 public:
  virtual ~MembersListener() = default;
  virtual void memberCame(const std::string& machine) = 0;
  /// It has said so, wasn't heard for too long, or was started anew.
  virtual void memberGone(const std::string& machine, const std::string& why) = 0;
};

/// One page of what a machine says of its exports.
struct StatePage {
  std::string incarnation;
  std::string version;
  std::int64_t since = 0;
  std::uint64_t state = 0;
  std::size_t page = 1, pages = 1;
  std::string_view json;
};

class Members {
 public:
  static constexpr std::size_t kMostMachines = 1000;
  static constexpr std::size_t kMostServices = 4096;
  static constexpr std::size_t kMostBytes = 64 << 20;  ///< of the lists of all machines

  /// `silence`: milliseconds without a word after which a machine counts as gone.
  Members(MembersListener& listener, std::int64_t silence)
      : listener_(listener), silence_(silence) {}
  /// Only services that fit one of these are used; none: all are.
  void setImports(std::vector<std::string> patterns) { imports_ = std::move(patterns); }

  /// Something has come from a machine; false if that isn't known.
  bool heard(const std::string& machine, std::int64_t now);
  /// False if it has told more than is known here and is to be asked.
  bool alive(const std::string& machine, const std::string& incarnation, std::int64_t since,
             std::uint64_t state, std::int64_t now);
  void stateArrived(const std::string& machine, const StatePage& page, std::int64_t now);
  void bye(const std::string& machine, const std::string& incarnation);
  void measured(const std::string& machine, std::int64_t roundTrip);
  /// Takes out those that weren't heard. Gives the milliseconds until the next would go; -1: none.
  std::int64_t step(std::int64_t now);

  const Member* find(const std::string& machine) const;
  const std::map<std::string, Member>& all() const { return members_; }
  bool isImported(std::string_view service) const;
  /// The machines that an imported service is to be had from, the best first: those where it runs
  /// before those that would have to start it, nearer ones first, to the millisecond, and then by
  /// name.
  std::vector<std::string> choose(std::string_view service) const;
  /// The program of a plugin as its machine has told; empty if it hasn't.
  std::string programOf(const std::string& machine, std::int32_t pluginID) const;

 private:
  /// Pages of a state whose rest hasn't come.
  struct Partial {
    std::string incarnation;
    std::uint64_t state = 0;
    std::size_t next = 1;
    std::vector<ExportedService> services;
  };

  bool takePage(Partial& partial, const StatePage& page);
  void drop(std::vector<ExportedService>& services);
  void dropPartial(const std::string& machine);
  Member* admit(const std::string& machine, const std::string& incarnation, std::int64_t since,
                std::int64_t now);
  void remove(const std::string& machine, const std::string& why);

  MembersListener& listener_;
  std::int64_t silence_;
  std::int64_t due_ = 0;  // nobody is missed before
  std::vector<std::string> imports_;
  std::map<std::string, Member> members_;
  std::map<std::string, Partial> partials_;
  std::size_t bytes_ = 0;  // of all lists, about
};

/// A page of services as JSON, and back; false for what is no such page.
std::string servicesToJson(const ExportedService* services, std::size_t count);
bool servicesFromJson(std::string_view json, std::size_t most,
                      std::vector<ExportedService>& services);
/// All of them, in at least one page. None has more than `most` bytes, if one service has not.
std::vector<std::string> pagesOf(const std::vector<ExportedService>& services, std::size_t most);

}  // namespace bridge
