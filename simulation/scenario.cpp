#include "simulation/scenario.h"

#include <array>
#include <random>

namespace {

struct Chance {
  Act act;
  const char* name;
  unsigned weight;
};

constexpr std::array<Chance, kActs> kChances{{
    {Act::arrive, "arrive", 14},
    {Act::provide, "provide", 10},
    {Act::withdraw, "withdraw", 2},
    {Act::request, "request", 20},
    {Act::query, "query", 4},
    {Act::answer, "answer", 6},
    {Act::drop, "drop", 6},
    {Act::send, "send", 18},
    {Act::speak, "speak", 14},
    {Act::reserve, "reserve", 2},
    {Act::launch, "launch", 3},
    {Act::reach, "reach", 1},
    {Act::locate, "locate", 1},
    {Act::ask, "ask", 2},
    {Act::persist, "persist", 2},
    {Act::move, "move", 1},
    {Act::hush, "hush", 3},
    {Act::flood, "flood", 1},
    {Act::disconnect, "disconnect", 2},
    {Act::leave, "leave", 3},
    {Act::die, "die", 4},
    {Act::intrude, "intrude", 5},
    {Act::wait, "wait", 4},
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
      {"Bytes", "byte_child", false},      {"Library", "library_child", false},
      {"Hanging", "hanging_child", false}, {"Dying", "dying_child", false},
      {"Mute", "mute_child", false},       {"Leaving", "leaving_child", false},
      {"Missing", "missing_child", false}, {"Shared", "shared.so", true},
  };
  return all;
}

std::string serviceName(std::uint64_t choice) {
  // Mostly those that come and go with the plugins.
  if (choice % 10 < 7) return std::string("Common") + static_cast<char>('A' + choice / 10 % 3);
  return provisions()[choice / 10 % provisions().size()].service;
}

std::string programName(std::uint64_t choice) {
  return provisions()[choice % provisions().size()].program;
}

std::uint32_t packetSize(std::uint64_t choice, std::uint64_t place) {
  const std::uint64_t size = (choice >> (place % 8)) % 4096;
  return static_cast<std::uint32_t>(choice % 7 == 0   ? size * 16
                                    : choice % 3 == 0 ? size
                                                      : size % 64);
}

RequestShape requestShape(std::uint64_t choice) {
  const auto part = [&choice](std::uint64_t limit) {
    const std::uint64_t value = choice % limit;
    choice /= limit;
    return value;
  };
  RequestShape shape{serviceName(part(1000)), -1, nullptr, false, false, false};
  if (part(7) == 0) shape.pluginID = static_cast<std::int32_t>(1 + part(8));
  if (part(10) == 0) shape.workingDir = "/here";
  shape.localOnly = part(10) == 0;
  shape.noReuse = part(8) == 0;
  shape.clientStart = part(12) == 0;
  return shape;
}
