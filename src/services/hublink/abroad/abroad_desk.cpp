#include "services/hublink/abroad/abroad_desk.h"

#include <cstring>

#include "indgen/format.h"
#include "platform/credentials.h"
#include "services/hublink/hublink.h"
#include "services/hublink/plugin_bounds.h"

namespace {

bool isTaken(const char* text) {
  return !text || std::strlen(text) <= kLongestText;
}

}  // namespace

AbroadDesk::AbroadDesk(Hublink& hub, AbroadService& service, const HublinkConnection* bridge,
                       std::int32_t ownRN, std::int32_t bridgeRN)
    : hub_(hub), service_(service), bridge_(bridge) {
  setLogs(hub.log().internal());
  setTransport(bridge->getTransport(), ownRN, bridgeRN);
  sendNegotiate(false, nullptr, nullptr);
}

AbroadDesk::~AbroadDesk() {
  end();
}

void AbroadDesk::end() {
  if (getTransport()) setTransport(nullptr);
}

// Somebody who only looks at the interface takes no questions.
void AbroadDesk::peerRecordTaken() {
  if (peerEntry("Wanted")) service_.ready(*this);
}

bool AbroadDesk::ask(std::int32_t cookie, const AbroadQuestion& question) {
  STPStatus status;
  if (const auto* query = std::get_if<QueryWish>(&question.wish)) {
    WantedProvider(cookie, query->name.c_str(), textOrNull(query->workingDir), question.mayStart,
                   false, nullptr, &status);
  } else {
    const auto& service = std::get<ServiceWish>(question.wish);
    STPTransport& asker = *question.requester->getTransport();
    const std::string program =
        question.requester->getProgram(platform::userOfClient(asker.fileDescriptor()).process);
    Wanted(cookie, service.name.c_str(), question.requester->getPluginID(), program.c_str(),
           question.standIn, service.pairs.view(), textOrNull(service.workingDir), false, nullptr,
           &status);
  }
  if (!status.good()) return false;
  question.requester->getTransport()->waitFor(*getTransport());
  return true;
}

// The system tells the process of a connection by name alone; of others it must be the same user's.
bool AbroadDesk::isOfThisBridge(const HublinkConnection& connection) const {
  const auto own = platform::userOfClient(getTransport()->fileDescriptor());
  const auto other = platform::userOfClient(connection.getTransport()->fileDescriptor());
  return other.kind == platform::PeerUser::Kind::known && other.user == own.user &&
         (own.process == 0 || other.process == 0 || own.process == other.process);
}

void AbroadDesk::StandsFor(std::int32_t plugin_id, const char* machine, const char* program,
                           std::int32_t remote_id, gen_text& error) {
  HublinkConnection* connection = hub_.plugins().find(plugin_id);
  if (!machine || !*machine || !isTaken(machine) || !isTaken(program))
    error = gen_asprintf("that is no name");
  else if (!connection)
    error = gen_asprintf("there is no plugin %d", plugin_id);
  else if (service_.isBridge(connection))
    error = gen_asprintf("plugin %d is a bridge", plugin_id);
  else if (!isOfThisBridge(*connection))
    error = gen_asprintf("plugin %d is no connection of this bridge", plugin_id);
  else if (const StandIn* before = connection->standsFor();
           before && before->bridgeID != bridge_->getPluginID() &&
           hub_.plugins().find(before->bridgeID))
    error = gen_asprintf("plugin %d is a stand-in of another bridge", plugin_id);
  else
    connection->setStandsFor({machine, program ? program : "", remote_id, bridge_->getPluginID()});
}

void AbroadDesk::Found(std::int32_t cookie, std::int32_t plugin_id, std::int32_t rn) {
  service_.found(*this, cookie, plugin_id, rn);
}

void AbroadDesk::NotFound(std::int32_t cookie) {
  service_.notFound(*this, cookie);
}
