// Makes values, objects of JSON, out of messages: by a format, or without one by what the fields
// tell of themselves.
#pragma once

#include <vector>

#include "stp_transport/message/stp_received_message.h"
#include "tools/hublinkctl/interface/field_names.h"
#include "tools/hublinkctl/session.h"
#include "tools/stpc/catalogue.h"

namespace hublinkctl {

/// All fields of the format, in its order; one that isn't there is 0 or null, as every receiver
/// reads it. An array has no count, and a block of just an array is the array.
Facts decodeFields(STPReceivedMessage& message, const std::vector<stpc::Field>& fields,
                   const FieldNames& names);

/// The fields that are there, by the peer's names. An array whose elements are fields has no name
/// on the wire: it stands under that of its count.
Facts decodeUnknown(const STPReceivedMessage& message, const FieldNames& names);

}  // namespace hublinkctl
