#include "services/hublink_bridge/exports.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "hubstatus.h"
#include "services/hublink_bridge/names.h"

namespace bridge {

namespace {

constexpr const char* kStatusService = "hublink.status";
constexpr std::string_view kOwnPrefix = "hublink.";
// Milliseconds in which changes are gathered before the hub is asked anew.
constexpr int kGatherTime = 30;

bool changesServices(const std::string& kind) {
  return kind == "service registered" || kind == "service withdrawn" || kind == "plugin came" ||
         kind == "plugin gone";
}

}  // namespace

// Asks for all plugins, then for all services, and again whenever something has changed meanwhile.
// A page that belongs to an older question is passed over.
class Exports::Watch : public hubstatus::Viewer {
 public:
  Watch(Exports& exports, HublinkPlugin& plugin) : exports_(exports), plugin_(plugin) {}
  ~Watch() override { plugin_.cancelLater(timer_); }

  void begin() {
    subscribe({.events = true});
    list();
  }

 protected:
  void onPluginDescription(const hubstatus::PluginDescription& message) override {
    if (message.cookie == cookie_) programs_[message.plugin_id] = message.program;
  }
  void onServiceDescription(const hubstatus::ServiceDescription& message) override {
    if (message.cookie != cookie_ || !exports_.isExported(message.name)) return;
    const bool isRunning = message.state == "registered";
    if (!isRunning && (message.program.empty() || !exports_.mayBeStarted(message.name))) return;
    ExportedService service{message.name, isRunning, isRunning ? message.plugin_id : -1,
                            message.program};
    if (isRunning) {
      const auto program = programs_.find(message.plugin_id);
      if (program != programs_.end() && !program->second.empty()) service.program = program->second;
    }
    services_.push_back(std::move(service));
  }
  void onListEnd(const hubstatus::ListEnd& message) override {
    if (message.cookie != cookie_) return;
    if (!message.next.empty()) {
      ask(message.next);
    } else if (std::exchange(isAtPlugins_, false)) {
      ask("");
    } else {
      isListing_ = false;
      exports_.listed(std::move(services_), std::move(programs_));
      if (std::exchange(isStale_, false)) listSoon();
    }
  }
  void onHubEvent(const hubstatus::HubEvent& message) override {
    if (message.lost != 0 || changesServices(message.kind)) listSoon();
  }

 private:
  void listSoon() {
    if (isListing_) {
      isStale_ = true;
    } else if (!isTimed_) {
      isTimed_ = true;
      timer_ = plugin_.callLater(kGatherTime, [this] {
        isTimed_ = false;
        list();
      });
    }
  }
  void list() {
    isListing_ = true;
    isAtPlugins_ = true;
    services_.clear();
    programs_.clear();
    ++cookie_;
    ask("");
  }
  void ask(const std::string& after) {
    if (isAtPlugins_)
      requestPlugins({.cookie = cookie_, .after = after, .most = 0});
    else
      requestServices({.cookie = cookie_, .after = after, .most = 0});
  }

  Exports& exports_;
  HublinkPlugin& plugin_;
  std::int32_t cookie_ = 0;
  bool isListing_ = false, isAtPlugins_ = false, isStale_ = false, isTimed_ = false;
  TimedCallID timer_{};
  std::vector<ExportedService> services_;
  std::map<std::int32_t, std::string> programs_;
};

Exports::Exports(std::vector<std::string> services, std::vector<std::string> values,
                 std::function<void()> changed)
    : servicePatterns_(std::move(services)),
      valuePatterns_(std::move(values)),
      changed_(std::move(changed)) {}

Exports::~Exports() = default;

bool Exports::watch(HublinkPlugin& plugin, std::string& error) {
  ServiceQuery query;
  query.serviceName = kStatusService;
  const ServiceReply reply = plugin.requestService(query);
  if (reply.outcome != ServiceReply::Outcome::accepted) {
    error = std::string("the hub doesn't tell of itself (") + outcomeText(reply.outcome) + ")";
    return false;
  }
  watch_ = std::make_unique<Watch>(*this, plugin);
  watch_->attach(reply.link);
  watch_->begin();
  return true;
}

void Exports::unwatch() {
  watch_.reset();
  listed({}, {});
}

void Exports::listed(std::vector<ExportedService> services,
                     std::map<std::int32_t, std::string> programs) {
  programs_ = std::move(programs);
  if (services == services_) return;
  services_ = std::move(services);
  changed_();
}

bool Exports::isExported(std::string_view service) const {
  return !service.starts_with(kOwnPrefix) && service.size() <= kMostText &&
         fitsAny(servicePatterns_, service);
}

bool Exports::mayBeStarted(std::string_view service) const {
  return isExported(service) && isNamed(servicePatterns_, service);
}

bool Exports::isValueExported(std::string_view name) const {
  return fitsAny(valuePatterns_, name);
}

bool Exports::isProvider(std::int32_t pluginID, std::string_view service) const {
  return std::any_of(services_.begin(), services_.end(), [&](const ExportedService& one) {
    return one.isRunning && one.pluginID == pluginID && one.name == service;
  });
}

std::string Exports::programOf(std::int32_t pluginID) const {
  const auto place = programs_.find(pluginID);
  return place == programs_.end() ? "" : place->second;
}

}  // namespace bridge
