// Makes messages out of values: FIELD=VALUE from a command line, put into a message by its format.
//
// A field that isn't named isn't written, so that the receiver reads 0 or null. The count of an
// array is none of the values: it comes from the array.
#pragma once

#include <string>
#include <vector>

#include "stp_transport/message/stp_message.h"
#include "tools/hublinkctl/interface/field_names.h"
#include "tools/hublinkctl/session.h"
#include "tools/stpc/catalogue.h"

namespace hublinkctl {

/// The values by field, an object, or null with the fault in `error`. A text is taken as it stands,
/// all else as JSON.
Facts parseArguments(const std::vector<std::string>& arguments,
                     const std::vector<stpc::Field>& fields, std::string& error);

/// Appends the fields that `values`, an object, has. False with the first fault in `error`, which
/// names the field.
bool encodeFields(STPMessage& message, const std::vector<stpc::Field>& fields, const Facts& values,
                  const FieldNames& names, std::string& error);

/// The names of those fields that can be given, for a message to people.
std::string namesOf(const std::vector<stpc::Field>& fields);

}  // namespace hublinkctl
