#include "tools/hublinkctl/interface/peer_spec.h"

#include <algorithm>

#include "tools/hublinkctl/interface/message_decoder.h"
#include "tools/stpc/format_parser.h"

namespace hublinkctl {
namespace {

constexpr STPSpecTables kNoTables = {
    .specName = "hublinkctl",
    .sideName = "hublinkctl",
    .vstamp = "1",
    .specFlags = 0,
    .tagNames = nullptr,
    .tagCount = 0,
    .receiveTable = nullptr,
    .receiveCount = 0,
    .sendTable = nullptr,
    .sendCount = 0,
};

PeerMessage messageOf(const STPMessageEntry& entry) {
  PeerMessage made;
  made.id = entry.id;
  stpc::Message& message = made.message;
  message.name = entry.name;
  message.entryFlags = entry.flags;
  message.twoWay = (entry.flags & STP_ENTRY_TWO_WAY) != 0;
  if (!entry.fmt) {
    made.fault = "it doesn't tell its format";
    return made;
  }
  message.format = entry.fmt;
  stpc::FormatText text{message.format, {}};
  text.places.resize(message.format.size() + 1);
  stpc::ParsedFormat parsed = stpc::parseFormat(text);
  made.fault = parsed.error.text;
  if (!made.fault.empty()) return made;
  message.fields = std::move(parsed.fields);
  message.reply = std::move(parsed.reply);
  return made;
}

}  // namespace

PeerSpec::PeerSpec() : STPSpecClass(kNoTables) {}

void PeerSpec::readMessages() {
  messages_.clear();
  for (const STPMessageEntry& entry : extraTable)
    if (entry.id != STP_NO_MESSAGE) messages_.push_back(messageOf(entry));
}

const PeerMessage* PeerSpec::find(const std::string& name) const {
  for (const PeerMessage& each : messages_)
    if (each.message.name == name) return &each;
  return nullptr;
}

void PeerSpec::prepare(std::vector<TakenMessage> takes, bool takesAll,
                       const stpc::Catalogue* catalogue, Handler handler) {
  handler_ = std::move(handler);
  takes_ = std::move(takes);
  std::sort(takes_.begin(), takes_.end(),
            [](const TakenMessage& a, const TakenMessage& b) { return a.name < b.name; });
  stpc::Catalogue known;
  for (const PeerMessage& each : messages_) known.messages.push_back(each.message);
  if (catalogue)
    for (const stpc::Message& message : catalogue->messages) known.messages.push_back(message);
  names_.own = known.tagNames();
  mapNames();
  tagTable_.clear();
  for (const std::string& name : names_.own) tagTable_.push_back(name.c_str());
  takesTable_.clear();
  for (const TakenMessage& message : takes_)
    takesTable_.push_back({message.name.c_str(), nullptr,
                           static_cast<std::uint32_t>(takesTable_.size()), message.entryFlags});
  tagNames = tagTable_.data();
  tagCount = static_cast<std::int32_t>(tagTable_.size());
  receiveTable = takesTable_.data();
  receiveCount = static_cast<std::int32_t>(takesTable_.size());
  specFlags = takesAll ? STP_TAKES_UNLISTED : 0;
}

void PeerSpec::mapNames() {
  names_.peerTags.assign(names_.own.size(), -1);
  for (std::size_t i = 0; i < names_.peersNames.size(); ++i) {
    const std::string& name = names_.peersNames[i];
    const auto place = static_cast<std::size_t>(names_.number(name));
    if (place < names_.own.size() && names_.own[place] == name)
      names_.peerTags[place] = static_cast<std::int32_t>(i);
  }
}

void PeerSpec::peerTagTaken(std::uint32_t number, std::string_view name) {
  names_.peersNames.resize(number);
  names_.peersNames.emplace_back(name);
}

std::unique_ptr<STPMessage> PeerSpec::newMessage(const PeerMessage& message) const {
  return newStubMessage(message.id, message.message.twoWay ? STP_WANTS_RESPONSE : STP_ONE_WAY);
}

std::unique_ptr<STPReceivedMessage> PeerSpec::deliver(STPMessage& packet, bool isTwoWay,
                                                      RetryHandler* retry, STPStatus* status) {
  if (isTwoWay) return callStubMessage(packet, retry, status);
  sendStubMessage(packet, true, retry, status);
  return nullptr;
}

void PeerSpec::handleBinaryMessage(STPReceivedMessage& packet, STPMessage*, std::uint32_t id) {
  if (!handler_) return;
  const Handler handler = handler_;
  if (id >= takes_.size()) {
    handler("", decodeUnknown(packet, names_));
    return;
  }
  const TakenMessage& message = takes_[id];
  handler(message.name, message.fields ? decodeFields(packet, *message.fields, names_)
                                       : decodeUnknown(packet, names_));
}

}  // namespace hublinkctl
