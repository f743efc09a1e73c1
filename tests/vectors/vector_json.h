// What the files of vectors are made of: JSON with hexadecimal bytes, and with numbers that JSON
// can't hold in a form of their own (languages/vectors/README.md).
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tools/stpc/catalogue.h"

namespace vectors {

using Json = nlohmann::ordered_json;

std::string toHex(std::string_view bytes);
std::string fromHex(std::string_view digits);
/// The bytes of 32-bit words.
std::string wordsOf(const std::vector<std::uint32_t>& words);

Json u8(std::uint64_t value);
Json f4(float value);
Json f8(double value);
/// The value with plain numbers in place of those forms, and the other way round, by the fields.
Json plain(const Json& value);
Json marked(const Json& value, const std::vector<stpc::Field>& fields);

/// The cases of each file, by its name.
using Files = std::map<std::string, Json>;
/// One case on each line.
std::string textOf(const Json& cases);

/// All files, made anew.
Files makeFiles();
Json makePackets();
Json makePlain();
Json makeRecords();
Json makeFields();
Json makeMalformed();
Json makeVersions();

}  // namespace vectors
