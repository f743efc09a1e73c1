// One side of an interface that is known at run time alone: it learns the other side's field names,
// messages and formats, and announces tables that are made from them.
//
// What the other side takes is learnt from it. What it sends isn't: that comes from a catalogue, or
// by name; or this side takes whatever comes, and then the packets tell no message's name.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "stp_transport/spec/stp_specclass.h"
#include "tools/hublinkctl/interface/field_names.h"
#include "tools/hublinkctl/session.h"
#include "tools/stpc/catalogue.h"

namespace hublinkctl {

/// A message that the peer takes.
struct PeerMessage {
  stpc::Message message;
  std::uint32_t id = 0;  ///< the peer's number of it
  std::string fault;     ///< why its format can't be read; the fields are missing then
};

/// A message that this side takes. Without `fields` it is read by what it tells of itself.
struct TakenMessage {
  std::string name;
  std::uint32_t entryFlags = STP_ENTRY_ONE_WAY;
  std::optional<std::vector<stpc::Field>> fields = std::nullopt;
};

class PeerSpec : public STPSpecClass {
 public:
  /// `name` is empty if the message has come unlisted.
  using Handler = std::function<void(const std::string& name, const Facts& values)>;

  PeerSpec();

  /// Reads the formats that the peer has sent.
  void readMessages();
  const std::vector<PeerMessage>& messages() const { return messages_; }
  /// Null if the peer doesn't take it.
  const PeerMessage* find(const std::string& name) const;
  const FieldNames& names() const { return names_; }

  /// Makes the tables that the next record announces; `takesAll` is for messages that they lack.
  /// With `catalogue` (or null) its fields are known too. `handler` gets what comes.
  void prepare(std::vector<TakenMessage> takes, bool takesAll, const stpc::Catalogue* catalogue,
               Handler handler);
  /// An outgoing message, to be filled in by the own names.
  std::unique_ptr<STPMessage> newMessage(const PeerMessage& message) const;
  /// Sends it. For a two-way message the response, null with the failure in `status`.
  std::unique_ptr<STPReceivedMessage> deliver(STPMessage& packet, bool isTwoWay,
                                              RetryHandler* retry, STPStatus* status);

 protected:
  ~PeerSpec() override = default;
  std::int32_t defaultSourceRN() const override { return STP_PLUGIN_RN; }
  std::int32_t defaultDestinationRN() const override { return STP_HUB_RN; }
  void peerTagTaken(std::uint32_t number, std::string_view name) override;
  void peerRecordTaken() override { mapNames(); }
  void handleBinaryMessage(STPReceivedMessage& packet, STPMessage* reply,
                           std::uint32_t id) override;

 private:
  void mapNames();

  std::vector<PeerMessage> messages_;
  FieldNames names_;
  Handler handler_;
  std::vector<TakenMessage> takes_;
  std::vector<const char*> tagTable_;        // of the names' own
  std::vector<STPMessageEntry> takesTable_;  // of takes_
};

}  // namespace hublinkctl
