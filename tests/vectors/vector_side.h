// One side of an interface that is known from its catalogue alone: it writes and reads messages
// with the library's own operations, by the names that a peer has announced.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "stp_transport/spec/stp_specclass.h"
#include "tools/hublinkctl/interface/field_names.h"
#include "tools/stpc/catalogue.h"
#include "vectors/vector_json.h"

namespace vectors {

/// The catalogue in a file below the top of the tree; the program ends if it can't be read.
stpc::Catalogue readCatalogue(const std::string& file);

/// What a response that refuses a call has in place of its fields.
std::vector<stpc::Field> refusalFields();

/// A record whose field names are these, without messages.
std::string recordOf(const std::vector<std::string>& names);

struct SideTables;

class VectorSide : public STPSpecClass {
 public:
  explicit VectorSide(std::shared_ptr<const SideTables> tables);
  /// A side as authors' classes have it, or as the hub's.
  static CountedPtr<VectorSide> make(const stpc::Catalogue& catalogue, const std::string& side,
                                     bool isHubs = false);

  /// The payload that announces this side.
  std::string record() const;
  /// Takes in the payload of a peer's record.
  void take(const std::string& payload);
  /// The names, this side's own and what the peer has made of them.
  hublinkctl::FieldNames names() const;
  /// What the peer has said, and what this side may send to it.
  Json peer() const;

 protected:
  std::int32_t defaultSourceRN() const override { return 1; }
  std::int32_t defaultDestinationRN() const override { return 2; }

 private:
  std::shared_ptr<const SideTables> tables_;
};

/// The payload of a message with those fields that `value` has.
std::string writePayload(const std::vector<stpc::Field>& fields, const Json& value,
                         const std::vector<std::string>& names);
/// What a receiver with these names reads.
Json readPayload(const std::vector<stpc::Field>& fields, const std::string& payload,
                 const hublinkctl::FieldNames& names);

}  // namespace vectors
