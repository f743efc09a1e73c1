#include "simulation/programs.h"

#include "active_hub/plugin_options.h"
#include "platform/clock.h"
#include "platform/readiness.h"
#include "simulation/scenario.h"
#include "simulation/stranger.h"

namespace {

// Milliseconds that a provider waits at most for what it needs.
constexpr std::uint64_t kNeedsPatience = 5000;

ActorRole roleFor(const std::vector<std::string>& arguments) {
  const std::string program = arguments[0].substr(arguments[0].rfind('/') + 1);
  ActorRole role{.name = program, .arguments = arguments};
  for (std::size_t i = 0; i + 1 < arguments.size(); ++i)
    if (arguments[i] == plugin_options::kHubPort)
      role.port = static_cast<std::uint16_t>(std::stoi(arguments[i + 1]));
  if (const Provision* provision = provisionOf(program)) role.service = provision->service;
  return role;
}

int hang() {
  for (bool failed = false; !failed;) platform::readiness().wait(-1, failed);
  return 0;
}

}  // namespace

void installPrograms(platform::sim::World& world, const Player& player) {
  using Change = std::function<void(ActorRole&)>;
  const auto install = [&](const char* program, const std::function<int(ActorRole)>& body) {
    world.install(program, [body](const auto& arguments) { return body(roleFor(arguments)); });
  };
  const auto cast = [&](const char* program, unsigned onLibrary, const Change& change) {
    install(program, [&world, player, onLibrary, change](ActorRole role) {
      if (change) change(role);
      return player(std::move(role), world.chance(onLibrary));
    });
  };
  const auto upTo = [&world](std::uint64_t most) { return static_cast<int>(world.upTo(most)); };
  const auto limitOf = [](const ActorRole& role) { return provisionOf(role.name)->timeout * 1000; };
  cast("byte_child", 0, nullptr);
  cast("library_child", 1000, nullptr);
  cast("slow_child", 500, [=](ActorRole& role) { role.delay = upTo(limitOf(role) - 1); });
  // About when its time is up.
  cast("tardy_child", 500, [=, &world](ActorRole& role) {
    role.delay = limitOf(role) + (world.chance(600) ? upTo(5) - 3 : upTo(3000));
  });
  cast("doomed_child", 500, [=, &world](ActorRole& role) {
    role.doom = upTo(60);
    if (world.chance(300)) role.delay = upTo(3000);
  });
  cast("mute_child", 0, [](ActorRole& role) { role.negotiates = false; });
  cast("leaving_child", 0, [](ActorRole& role) { role.life = 1; });
  for (const Provision& provision : provisions())
    if (provision.needs)
      cast(provision.program, 600, [=, &world, &provision](ActorRole& role) {
        role.needs = provision.needs;
        role.patience = upTo(kNeedsPatience);
        role.isErrand = world.chance(500);
      });
  install("closing_child", [player](ActorRole role) {
    role.life = 0;
    player(std::move(role), false);
    return hang();
  });
  install("hanging_child", [](const ActorRole&) { return hang(); });
  install("dying_child", [=, &world](const ActorRole&) {
    if (world.chance(500)) platform::sleepMilliseconds(upTo(3000));
    return 3;
  });
  install(kBooty, [&world](const ActorRole&) {
    world.report("a stranger has a program started");
    return 0;
  });
}
