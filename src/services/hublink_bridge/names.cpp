#include "services/hublink_bridge/names.h"

#include <algorithm>
#include <random>

#include "platform/host.h"

namespace bridge {

namespace {

constexpr std::string_view kPrefix = "hublink.";

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

// Takes what stands in front of the next dot, and the dot.
std::string_view takeToken(std::string_view& text) {
  const std::size_t dot = std::min(text.find('.'), text.size());
  const std::string_view token = text.substr(0, dot);
  text.remove_prefix(std::min(dot + 1, text.size()));
  return token;
}

}  // namespace

bool isRealmName(std::string_view name) {
  return !name.empty() && name.size() <= kMostRealmName &&
         std::all_of(name.begin(), name.end(), isPlain);
}

bool isMachineName(std::string_view name) {
  return !name.empty() && name.size() <= kMostMachineName && name != kEverybody &&
         std::all_of(name.begin(), name.end(), [](char c) { return isPlain(c) || c == '@'; });
}

std::string ownMachineName() {
  std::string name = platform::userName() + "@" + platform::hostName();
  for (char& c : name)
    if (!isPlain(c) && c != '@') c = '_';
  return name.substr(0, kMostMachineName);
}

std::uint64_t randomNumber() {
  std::random_device device;
  return (std::uint64_t{device()} << 32) | device();
}

std::string subjectOf(std::string_view realm, std::string_view to, std::string_view from,
                      std::string_view what) {
  std::string subject(kPrefix);
  for (const std::string_view part : {realm, to, from, what}) subject.append(part).append(".");
  subject.pop_back();
  return subject;
}

std::optional<Subject> readSubject(std::string_view realm, std::string_view subject) {
  if (!subject.starts_with(kPrefix)) return std::nullopt;
  subject.remove_prefix(kPrefix.size());
  if (takeToken(subject) != realm) return std::nullopt;
  Subject parts;
  parts.to = takeToken(subject);
  parts.from = takeToken(subject);
  parts.what = takeToken(subject);
  if (!subject.empty() || parts.what.empty() || !isMachineName(parts.from) ||
      (parts.to != kEverybody && !isMachineName(parts.to)))
    return std::nullopt;
  return parts;
}

// The latest `*` takes a byte more whenever the rest doesn't fit, so that no pattern takes longer
// than the product of both lengths.
bool fits(std::string_view pattern, std::string_view name) {
  std::size_t p = 0, n = 0, star = std::string_view::npos, taken = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      taken = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      n = ++taken;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool fitsAny(const std::vector<std::string>& patterns, std::string_view name) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [name](const std::string& pattern) { return fits(pattern, name); });
}

bool isNamed(const std::vector<std::string>& patterns, std::string_view name) {
  return name.find_first_of("*?") == std::string_view::npos &&
         std::find(patterns.begin(), patterns.end(), name) != patterns.end();
}

}  // namespace bridge
