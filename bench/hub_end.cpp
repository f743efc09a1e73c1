#include "bench/hub_end.h"

#include <string_view>

#include "platform/readiness.h"

namespace {

constexpr int kStep = 100;  // ms
constexpr std::string_view kGreeting = "ready";

}  // namespace

bool joinAsFirst(HublinkPlugin& plugin, LoopbackSocket connection, std::uint16_t& hubPort,
                 std::string& error) {
  const auto transport = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  transport->bindFD(connection.release());
  if (!plugin.attach(transport.get(), error, kStartLimit)) return false;
  hubPort = 0;
  plugin.requestLocation([&hubPort](const std::string&, std::int32_t port) {
    hubPort = static_cast<std::uint16_t>(port);
  });
  plugin.serveUntil([&hubPort] { return hubPort != 0; }, kStartLimit);
  if (hubPort == 0) error = "the hub doesn't tell its port";
  return error.empty();
}

bool HubEnd::connect(std::uint16_t port, Road road, std::string& error) {
  plugin_.setTcpOnly(road == Road::tcp);
  connection_ = makeCounted<STPTransport>(STP_BUFFER_SIZE);
  STPStatus status;
  plugin_.reach(*connection_, "127.0.0.1", port, &status);
  if (!status.good()) error = status.message;
  if (!status.good() || !plugin_.attach(connection_.get(), error, kStartLimit)) return false;
  // A connection by name has no port.
  if ((platform::localPort(connection_->fileDescriptor()) == 0) != (road == Road::local))
    error = "the hub was reached by another road than asked for";
  return error.empty();
}

bool HubEnd::joinAsProvider(std::uint16_t port, Road road, std::string& error) {
  if (!connect(port, road, error)) return false;
  if (plugin_.registerService(
          service_, [this](const std::shared_ptr<HublinkLink>& link) { link_ = link; }) < 0)
    error = "the hub doesn't take the service";
  return error.empty();
}

bool HubEnd::awaitRequester(const std::function<bool()>& givenUp, std::string& error) {
  HublinkLink::Packet greeting;
  for (int waited = 0; waited < kStartLimit && greeting.empty() && !givenUp(); waited += kStep) {
    if (!link_)
      plugin_.serveUntil([this] { return link_ != nullptr; }, kStep);
    else if (!link_->receive(greeting, kStep) && !link_->isUp())
      break;
  }
  if (greeting.empty()) error = "the far end hasn't come through the hub";
  return error.empty();
}

bool HubEnd::joinAsRequester(std::uint16_t port, Road road, std::string& error) {
  if (!connect(port, road, error)) return false;
  ServiceQuery query;
  query.serviceName = service_;
  const ServiceReply reply = plugin_.requestService(query, kStartLimit);
  link_ = reply.link;
  if (!link_) {
    error = std::string("request for the service: ") + outcomeText(reply.outcome);
    return false;
  }
  // The provider speaks after this and not before: whatever comes from here on comes on the bare
  // connection.
  link_->send(kGreeting.data(), kGreeting.size());
  link_->flush();
  return true;
}

platform::Socket HubEnd::takeOver() {
  const platform::Socket socket = connection_->fileDescriptor();
  platform::readiness().forget(socket);
  return platform::makeBlocking(socket, kTransferLimit) ? socket : platform::kNoSocket;
}
