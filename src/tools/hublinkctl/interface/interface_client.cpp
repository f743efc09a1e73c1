#include "tools/hublinkctl/interface/interface_client.h"

#include <algorithm>

#include "indgen/whole_file.h"
#include "tools/hublinkctl/interface/message_decoder.h"
#include "tools/hublinkctl/interface/message_encoder.h"
#include "tools/hublinkctl/service_link.h"
#include "tools/stpc/catalogue_parser.h"

namespace hublinkctl {
namespace {

std::string namesOfMessages(const std::vector<PeerMessage>& messages) {
  std::string text;
  for (const PeerMessage& each : messages) text += (text.empty() ? "" : ", ") + each.message.name;
  return text.empty() ? "none" : text;
}

}  // namespace

InterfaceClient::~InterfaceClient() {
  if (link_) link_->close();
}

bool InterfaceClient::open(const std::string& service) {
  service_ = service;
  link_ = openLink(session_, service);
  if (!link_) return false;
  spec_ = makeCounted<PeerSpec>();
  link_->attach(spec_.get());
  return await([this] { return spec_->isNegotiated(); },
               "the provider of " + service + " tells of no interface");
}

bool InterfaceClient::learnMessages() {
  STPStatus status;
  TimeoutSTPRetryHandler limit(spec_->getTransport(), session_.left());
  spec_->fetchFormats(&limit, &status);
  if (!status.good() &&
      !await([] { return false; }, "the provider of " + service_ + " doesn't tell its formats"))
    return false;
  spec_->readMessages();
  return true;
}

bool InterfaceClient::readCatalogue(const std::string& file) {
  gen_text text;
  std::size_t size = 0;
  if (gen_read_file(file.c_str(), text, size) != 0)
    return session_.fail(ExitCode::usage, file + " can't be read");
  stpc::Catalogue catalogue;
  stpc::Error error;
  if (!stpc::parseCatalogue({text.get(), size}, catalogue, error))
    return session_.fail(ExitCode::usage, file + ":" + std::to_string(error.at.line) + ":" +
                                              std::to_string(error.at.column) + ": " + error.text);
  const std::string name = spec_->getPeerName();
  for (side_ = 0; side_ < catalogue.sides.size(); ++side_) {
    if (catalogue.sides[side_].name != name) continue;
    catalogue_ = std::move(catalogue);
    return true;
  }
  return session_.fail(ExitCode::usage, file + " has no side " + name + ", which " + service_ +
                                            " is: its sides are " + catalogue.sides[0].name +
                                            " and " + catalogue.sides[1].name);
}

std::vector<const stpc::Message*> InterfaceClient::sent() const {
  return catalogue_ ? catalogue_->sentBy(side_) : std::vector<const stpc::Message*>();
}

std::vector<TakenMessage> InterfaceClient::taken(const std::vector<std::string>& names) const {
  std::vector<TakenMessage> messages;
  for (const std::string& name : names) messages.push_back({.name = name});
  for (const stpc::Message* message : sent()) {
    if (names.empty()) messages.push_back({message->name, message->entryFlags, message->fields});
    for (TakenMessage& each : messages)
      if (each.name == message->name) {
        each.entryFlags = message->entryFlags;
        each.fields = message->fields;
      }
  }
  return messages;
}

bool InterfaceClient::listen(const std::vector<std::string>& names, PeerSpec::Handler handler) {
  std::vector<TakenMessage> messages = taken(names);
  const bool takesAll = messages.empty() && !catalogue_;
  spec_->prepare(std::move(messages), takesAll, catalogue_ ? &*catalogue_ : nullptr,
                 std::move(handler));
  spec_->sendNegotiate(true, nullptr, nullptr);
  return isThere();
}

std::optional<Facts> InterfaceClient::call(const std::string& message,
                                           const std::vector<std::string>& arguments,
                                           const std::vector<std::string>& awaited,
                                           PeerSpec::Handler handler) {
  const auto fail = [this](const std::string& text) {
    session_.fail(ExitCode::no, text);
    return std::nullopt;
  };
  const PeerMessage* const meant = spec_->find(message);
  if (!meant)
    return fail(service_ + " takes no message " + message + ": it takes " +
                namesOfMessages(spec_->messages()));
  if (!meant->fault.empty())
    return fail("the format of " + message + " can't be read: " + meant->fault);
  spec_->prepare(awaited.empty() ? std::vector<TakenMessage>() : taken(awaited), false,
                 catalogue_ ? &*catalogue_ : nullptr, std::move(handler));
  const stpc::Message& called = meant->message;
  const std::unique_ptr<STPMessage> packet = spec_->newMessage(*meant);
  std::string error;
  const Facts values = parseArguments(arguments, called.fields, error);
  if (values.is_null() || !encodeFields(*packet, called.fields, values, spec_->names(), error)) {
    session_.fail(ExitCode::usage, error);
    return std::nullopt;
  }
  spec_->sendNegotiate(true, nullptr, nullptr);
  STPStatus status;
  TimeoutSTPRetryHandler limit(spec_->getTransport(), session_.left());
  const auto response = spec_->deliver(*packet, called.twoWay, &limit, &status);
  if (!called.twoWay) {
    // What is written isn't lost with this process, once the hub has answered behind it.
    if (status.good()) return session_.count() ? std::optional(Facts()) : std::nullopt;
  } else if (response) {
    const std::vector<std::string>& peers = spec_->names().peersNames;
    const auto refusal = std::find(peers.begin(), peers.end(), stpc::kRefusalField);
    if (refusal != peers.end())
      if (const auto why = response->getText(static_cast<std::int32_t>(refusal - peers.begin()));
          why.data())
        return fail(service_ + " refuses " + message + ": " + std::string(why));
    return decodeFields(*response, called.reply, spec_->names());
  }
  await([] { return false; },
        called.twoWay ? service_ + " hasn't answered" : message + " isn't written");
  return std::nullopt;
}

bool InterfaceClient::isThere() {
  if (!session_.plugin().isConnected()) return session_.failGone();
  return link_->isUp() || session_.fail(ExitCode::no, "the provider has ended the link");
}

bool InterfaceClient::await(const std::function<bool()>& done, const std::string& what) {
  if (session_.plugin().serveUntil([&] { return done() || !link_->isUp(); }, session_.left()) &&
      done())
    return true;
  return isThere() && session_.fail(ExitCode::noAnswer, what + " in time");
}

bool InterfaceClient::serve(int milliseconds) {
  session_.plugin().serve(milliseconds);
  return isThere();
}

}  // namespace hublinkctl
