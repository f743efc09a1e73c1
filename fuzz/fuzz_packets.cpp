// A stream of any bytes arrives at one side of the router interface: packets, negotiation,
// dispatch.
#include <algorithm>
#include <cstring>

#include "generated/hublink_plugin_impl.h"
#include "stp_transport/transport/counted_ptr.h"
#include "stp_transport/transport/stp_transport.h"

namespace {

class Receiver : public Hublink_plugin_Impl {
 protected:
  void LocationEvent(const char*, std::int32_t) override {}
  void PluginId(std::int32_t) override {}
  void ConnectionRequestedEvent(std::int32_t, std::int32_t, std::int32_t, StringArray) override {}
  void ConnectionDroppedEvent(std::int32_t, std::int32_t) override {}
  void ConnectionReplyEvent(const char*, std::int32_t, bool, bool, bool, std::int32_t, std::int32_t,
                            const char*, std::int32_t) override {}
  void PluginIdForServiceReplyEvent(std::int32_t, const char*, std::int32_t, bool) override {}
  void RNBlockReservedEvent(RNArray) override {}
  void PluginConnectedEvent(std::int32_t, std::int32_t, const char*) override {}
  void ForwardedRequestValueOfNameOnPlugin(std::int32_t, std::int32_t, const char*) override {}
  void ValueOfNameOnPluginEvent(std::int32_t, const char*, const char*) override {}
  void StartPlugin(StringArray, std::int32_t, const char*) override {}
  void StartLogging() override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  STPTransport* sender = nullptr;
  STPTransport* receiver = nullptr;
  STPTransport::createInProcessPair(&sender, &receiver);
  const auto out = CountedPtr<STPTransport>::adopt(sender);
  const auto in = CountedPtr<STPTransport>::adopt(receiver);
  const auto spec = makeCounted<Receiver>();
  // The seeds come from a plugin, whose packets go from RN 2 to RN 1.
  spec->setTransport(in.get(), 1, 2);
  std::int64_t *offset, *count, *capacity;
  unsigned char** buffer;
  out->inProcessEndpoints(&offset, &count, &capacity, &buffer);
  for (std::size_t at = 0; at < size && in->isConnected();) {
    const std::size_t piece = std::min<std::size_t>(size - at, 1 + data[at] * 17u);
    std::memcpy(*buffer, data + at, piece);
    *offset = 0;
    *count = static_cast<std::int64_t>(piece);
    in->handleRead();
    at += piece;
  }
  spec->setTransport(nullptr);
  return 0;
}
