#include "bench/crowd.h"

#include "bench/loopback.h"
#include "bench/stopwatch.h"
#include "generated/hublink_plugin_impl.h"

// A plugin that connects, negotiates, learns its ID and does nothing more.
class IdlePlugin : public Hublink_plugin_Impl {
 public:
  explicit IdlePlugin(int& known) : known_(known) {}

 protected:
  ~IdlePlugin() override = default;
  void PluginId(std::int32_t) override { ++known_; }
  void ConnectionDroppedEvent(std::int32_t, std::int32_t) override {}
  void ConnectionReplyEvent(const char*, std::int32_t, bool, bool, bool, std::int32_t, std::int32_t,
                            const char*, std::int32_t) override {}
  void ConnectionRequestedEvent(std::int32_t, std::int32_t, std::int32_t, StringArray) override {}
  void ForwardedRequestValueOfNameOnPlugin(std::int32_t, std::int32_t, const char*) override {}
  void LocationEvent(const char*, std::int32_t) override {}
  void PluginConnectedEvent(std::int32_t, std::int32_t, const char*) override {}
  void PluginIdForServiceReplyEvent(std::int32_t, const char*, std::int32_t, bool) override {}
  void RNBlockReservedEvent(RNArray) override {}
  void StartLogging() override {}
  void StartPlugin(StringArray, std::int32_t, const char*) override {}
  void ValueOfNameOnPluginEvent(std::int32_t, const char*, const char*) override {}

 private:
  int& known_;
};

Crowd::Crowd() = default;

Crowd::~Crowd() {
  for (const auto& [transport, plugin] : members_) plugin->setTransport(nullptr);
}

bool Crowd::join(std::uint16_t port, int count) {
  for (int i = 0; i < count; ++i) {
    auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
    transport->connect("127.0.0.1", port, nullptr, false);
    if (!transport->isConnected()) return false;
    auto plugin = makeCounted<IdlePlugin>(known_);
    plugin->setTransport(transport.get(), 2, 1);
    plugin->sendNegotiate(true, nullptr, nullptr);
    transports_.insert(transport.get());
    members_.emplace_back(std::move(transport), std::move(plugin));
  }
  const int wanted = static_cast<int>(members_.size());
  const Stopwatch watch;
  while (known_ < wanted && watch.milliseconds() < kStartLimit && !platform::stopRequested())
    serviceFirst(100, transports_);
  return known_ == wanted;
}
