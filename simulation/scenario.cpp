#include "simulation/scenario.h"

#include <algorithm>
#include <array>
#include <random>

namespace {

struct Chance {
  Act act;
  const char* name;
  unsigned weight;
};

constexpr std::array<Chance, kActs> kChances{{
    {Act::arrive, "arrive", 14},    {Act::provide, "provide", 10},
    {Act::withdraw, "withdraw", 2}, {Act::request, "request", 20},
    {Act::query, "query", 4},       {Act::answer, "answer", 6},
    {Act::drop, "drop", 6},         {Act::send, "send", 18},
    {Act::speak, "speak", 14},      {Act::reserve, "reserve", 2},
    {Act::launch, "launch", 3},     {Act::rush, "rush", 4},
    {Act::reach, "reach", 1},       {Act::locate, "locate", 1},
    {Act::ask, "ask", 2},           {Act::persist, "persist", 2},
    {Act::move, "move", 1},         {Act::hush, "hush", 3},
    {Act::flood, "flood", 1},       {Act::disconnect, "disconnect", 2},
    {Act::leave, "leave", 3},       {Act::die, "die", 4},
    {Act::intrude, "intrude", 5},   {Act::wait, "wait", 6},
}};

Act pickAct(std::mt19937_64& random) {
  unsigned total = 0;
  for (const Chance& chance : kChances) total += chance.weight;
  auto place = static_cast<unsigned>(random() % total);
  for (const Chance& chance : kChances) {
    if (place < chance.weight) return chance.act;
    place -= chance.weight;
  }
  return Act::wait;
}

// Last digits of a choice from which on a service has to be started.
constexpr std::uint64_t kStartedFrom = 7;
// Services that have to be started and that one scenario knows: so few that several ask for one.
constexpr std::uint64_t kKnown = 4;

const Provision& provisionFor(std::uint64_t choice, std::uint64_t seed) {
  constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15;
  return provisions()[((seed * kKnown + choice % kKnown + 1) * kMix >> 32) % provisions().size()];
}

}  // namespace

const char* actName(Act act) {
  for (const Chance& chance : kChances)
    if (chance.act == act) return chance.name;
  return "";
}

Scenario makeScenario(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  Scenario scenario{seed, {}};
  const std::size_t length = 10 + random() % 70;
  for (std::size_t i = 0; i < length; ++i) {
    // Nothing happens without anybody.
    const Act act = i < 3 ? Act::arrive : pickAct(random);
    scenario.steps.push_back({i, {act, random()}, random(), random()});
  }
  return scenario;
}

const std::vector<Provision>& provisions() {
  static const std::vector<Provision> all{
      {"Bytes", "byte_child"},
      {"Library", "library_child"},
      {"Hanging", "hanging_child", 3},
      {"Slow", "slow_child", 4},
      {"Tardy", "tardy_child", 2},
      {"Dying", "dying_child"},
      {"Doomed", "doomed_child", 5},
      {"Mute", "mute_child"},
      {"Leaving", "leaving_child"},
      {"Closing", "closing_child"},
      {"ChainA", "chain_a", 6, "ChainB"},
      {"ChainB", "chain_b", 6, "ChainC"},
      {"ChainC", "chain_c", 4, "Slow"},
      {"Vain", "vain_child", 4, "Hanging"},
      {"RingA", "ring_a", 3, "RingB"},
      {"RingB", "ring_b", 3, "RingA"},
      {"Missing", "missing_child"},
      {"Shared", "shared.so", 0, nullptr, true},
  };
  return all;
}

const Provision* provisionOf(const std::string& program) {
  const auto place =
      std::find_if(provisions().begin(), provisions().end(),
                   [&program](const Provision& one) { return one.program == program; });
  return place == provisions().end() ? nullptr : &*place;
}

std::string serviceName(std::uint64_t choice, std::uint64_t seed) {
  // Mostly those that come and go with the plugins.
  if (choice % 10 < kStartedFrom)
    return std::string("Common") + static_cast<char>('A' + choice / 10 % 3);
  return provisionFor(choice / 10, seed).service;
}

std::string programName(std::uint64_t choice, std::uint64_t seed) {
  return provisionFor(choice, seed).program;
}

std::uint64_t startingChoice(std::uint64_t choice) {
  return choice - choice % 10 + kStartedFrom;
}

std::uint32_t packetSize(std::uint64_t choice, std::uint64_t place) {
  const std::uint64_t size = (choice >> (place % 8)) % 4096;
  return static_cast<std::uint32_t>(choice % 7 == 0   ? size * 16
                                    : choice % 3 == 0 ? size
                                                      : size % 64);
}

RequestShape requestShape(std::uint64_t choice, std::uint64_t seed) {
  const auto part = [&choice](std::uint64_t limit) {
    const std::uint64_t value = choice % limit;
    choice /= limit;
    return value;
  };
  RequestShape shape{.service = serviceName(part(1000), seed)};
  if (part(7) == 0) shape.pluginID = static_cast<std::int32_t>(1 + part(8));
  if (part(10) == 0) shape.workingDir = "/here";
  shape.localOnly = part(10) == 0;
  shape.noReuse = part(8) == 0;
  shape.clientStart = part(12) == 0;
  return shape;
}
