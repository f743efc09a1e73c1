// Names of realms and machines, subjects made of them, and patterns for names of services; and the
// numbers that name sessions and starts of bridges.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bridge {

inline constexpr std::size_t kMostRealmName = 32;
inline constexpr std::size_t kMostMachineName = 64;
/// Bytes of the name of a service or a program of another machine.
inline constexpr std::size_t kMostText = 1024;
/// In place of a machine: all of them.
inline constexpr const char* kEverybody = "all";

/// 1 to 32 letters, digits, `_` and `-`.
bool isRealmName(std::string_view name);
/// 1 to 64 of these and `@`, and not "all".
bool isMachineName(std::string_view name);
/// USER@HOST of this process, with `_` for whatever can't stand in a name.
std::string ownMachineName();

/// Of the system's randomness: not to be guessed by who hasn't heard it.
std::uint64_t randomNumber();

/// `hublink.REALM.TO.FROM.WHAT`: who a message is for, who says that he sends it, and what it is. A
/// NATS server can hold each member to its own name in FROM.
struct Subject {
  std::string_view to;
  std::string_view from;
  std::string_view what;
};
std::string subjectOf(std::string_view realm, std::string_view to, std::string_view from,
                      std::string_view what);
/// None if the subject isn't of this form and realm. Its parts lie in `subject`.
std::optional<Subject> readSubject(std::string_view realm, std::string_view subject);

/// Whether a name fits a pattern, in which `*` stands for any text and `?` for one byte.
bool fits(std::string_view pattern, std::string_view name);
bool fitsAny(const std::vector<std::string>& patterns, std::string_view name);
/// Whether one of the patterns is the name itself, without any `*` or `?`.
bool isNamed(const std::vector<std::string>& patterns, std::string_view name);

}  // namespace bridge
