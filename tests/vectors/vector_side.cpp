#include "vectors/vector_side.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "stp_transport/transport/stp_transport.h"
#include "tools/hublinkctl/interface/message_decoder.h"
#include "tools/hublinkctl/interface/message_encoder.h"
#include "tools/stpc/catalogue_parser.h"

namespace vectors {

struct SideTables {
  std::vector<std::string> names;
  std::vector<const char*> tags;
  stpc::Catalogue catalogue;
  std::size_t side = 0;
  std::vector<STPMessageEntry> receives;
  std::vector<STPMessageEntry> sends;

  STPSpecTables view() const {
    const auto count = [](const auto& list) { return static_cast<std::int32_t>(list.size()); };
    const stpc::Side& self = catalogue.sides[side];
    return {catalogue.specName.c_str(),
            self.name.c_str(),
            self.vstamp.c_str(),
            self.flags,
            tags.data(),
            count(tags),
            receives.data(),
            count(receives),
            sends.data(),
            count(sends)};
  }
};

namespace {

[[noreturn]] void fail(const std::string& text) {
  std::fprintf(stderr, "vectors: %s\n", text.c_str());
  std::exit(1);
}

std::vector<STPMessageEntry> entriesOf(const std::vector<const stpc::Message*>& messages) {
  std::vector<STPMessageEntry> entries;
  for (const stpc::Message* message : stpc::sortedByName(messages))
    entries.push_back({message->name.c_str(), nullptr, static_cast<std::uint32_t>(entries.size()),
                       message->entryFlags});
  return entries;
}

Json textOrNull(const char* text) {
  return text ? Json(text) : Json();
}

STPReceivedMessage received(const std::string& payload) {
  std::string packet(STP_HEADER_SIZE, '\0');
  packet += payload;
  return {reinterpret_cast<const unsigned char*>(packet.data()), STP_HEADER_SIZE,
          static_cast<std::int32_t>(payload.size())};
}

}  // namespace

stpc::Catalogue readCatalogue(const std::string& file) {
  std::ifstream in(std::string(SOURCE_DIRECTORY "/") + file);
  const std::string text{std::istreambuf_iterator<char>(in), {}};
  stpc::Catalogue catalogue;
  stpc::Error error;
  if (!stpc::parseCatalogue(text, catalogue, error)) fail(file + ": " + error.text);
  return catalogue;
}

std::vector<stpc::Field> refusalFields() {
  std::vector<stpc::Field> fields(1);
  fields[0].name = stpc::kRefusalField;
  fields[0].scalar = stpc::Scalar::str;
  return fields;
}

std::string recordOf(const std::vector<std::string>& names) {
  STPMessage message("");
  message.writeArrayBegin(static_cast<std::int32_t>(names.size()), "tags");
  for (const std::string& name : names) message.writeWord(name.c_str());
  message.writeArrayEnd();
  message.finishMessage(1);
  return {reinterpret_cast<const char*>(message.storage()) + STP_HEADER_SIZE,
          static_cast<std::size_t>(message.header.payloadSize)};
}

CountedPtr<VectorSide> VectorSide::make(const stpc::Catalogue& catalogue, const std::string& side,
                                        bool isHubs) {
  const auto tables = std::make_shared<SideTables>();
  tables->names = isHubs ? catalogue.tagNames() : catalogue.tagNamesWithRefusal();
  for (const std::string& name : tables->names) tables->tags.push_back(name.c_str());
  tables->catalogue = catalogue;
  tables->side = catalogue.sides[0].name == side ? 0 : 1;
  tables->receives = entriesOf(tables->catalogue.receivedBy(tables->side));
  tables->sends = entriesOf(tables->catalogue.sentBy(tables->side));
  return makeCounted<VectorSide>(tables);
}

VectorSide::VectorSide(std::shared_ptr<const SideTables> tables)
    : STPSpecClass(tables->view()), tables_(std::move(tables)) {}

std::string VectorSide::record() const {
  const CountedPtr<VectorSide> side = makeCounted<VectorSide>(tables_);
  STPTransport *near = nullptr, *far = nullptr;
  STPTransport::createInProcessPair(&near, &far);
  const auto held = CountedPtr<STPTransport>::adopt(near);
  const auto other = CountedPtr<STPTransport>::adopt(far);
  side->setTransport(near);
  side->sendNegotiate(false, nullptr, nullptr);
  std::int64_t *offset, *count, *capacity;
  unsigned char** bytes;
  near->inProcessEndpoints(&offset, &count, &capacity, &bytes);
  std::string packet(reinterpret_cast<const char*>(*bytes + *offset),
                     static_cast<std::size_t>(*count));
  side->setTransport(nullptr);
  return packet.substr(STP_HEADER_SIZE);
}

void VectorSide::take(const std::string& payload) {
  STPTransport *near = nullptr, *far = nullptr;
  STPTransport::createInProcessPair(&near, &far);
  const auto held = CountedPtr<STPTransport>::adopt(near);
  const auto other = CountedPtr<STPTransport>::adopt(far);
  setTransport(near, 1, 2);
  std::string packet = wordsOf({STP_HEADER_SIZE, static_cast<std::uint32_t>(payload.size()), 2, 1,
                                2, 0, STP_NEGOTIATION, STP_NEGOTIATE, STP_ONE_WAY, 2, 1}) +
                       payload;
  STPReceivedMessage message(reinterpret_cast<const unsigned char*>(packet.data()), STP_HEADER_SIZE,
                             static_cast<std::int32_t>(payload.size()));
  handleMessage(message, STP_NEGOTIATION, STP_NEGOTIATE);
  setTransport(nullptr);
}

hublinkctl::FieldNames VectorSide::names() const {
  return {tables_->names, tagMap, {}};
}

Json VectorSide::peer() const {
  Json tags = Json::object(), sends = Json::object();
  for (std::size_t i = 0; i < tables_->names.size(); ++i)
    if (!stpc::isPlaceholder(tables_->names[i]) && tagMap[i] >= 0)
      tags[tables_->names[i]] = tagMap[i];
  for (const STPMessageEntry& entry : sendTable)
    sends[entry.name] =
        entry.id == STP_NO_MESSAGE ? Json() : Json({{"id", entry.id}, {"flags", entry.flags}});
  return {{"name", textOrNull(getPeerName())},
          {"vstamp", textOrNull(getPeerVstamp())},
          {"flags", peerFlags},
          {"tags", tags},
          {"sends", sends}};
}

std::string writePayload(const std::vector<stpc::Field>& fields, const Json& value,
                         const std::vector<std::string>& names) {
  STPMessage message;
  std::string error;
  if (!hublinkctl::encodeFields(message, fields, plain(value), {names, {}, {}}, error)) fail(error);
  message.finishMessage(1);
  return {reinterpret_cast<const char*>(message.storage()) + STP_HEADER_SIZE,
          static_cast<std::size_t>(message.header.payloadSize)};
}

Json readPayload(const std::vector<stpc::Field>& fields, const std::string& payload,
                 const hublinkctl::FieldNames& names) {
  STPReceivedMessage message = received(payload);
  return marked(hublinkctl::decodeFields(message, fields, names), fields);
}

}  // namespace vectors
