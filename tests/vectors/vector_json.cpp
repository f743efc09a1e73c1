#include "vectors/vector_json.h"

#include <bit>
#include <cstdio>

#include "stp_transport/wire/stp_wire.h"

namespace vectors {
namespace {

constexpr const char* kU8 = "%u8%";
constexpr const char* kF4 = "%f4%";
constexpr const char* kF8 = "%f8%";

Json markedScalar(const Json& value, stpc::Scalar scalar) {
  if (scalar == stpc::Scalar::u8) return u8(value.get<std::uint64_t>());
  if (scalar == stpc::Scalar::f4) return f4(value.get<float>());
  if (scalar == stpc::Scalar::f8) return f8(value.get<double>());
  return value;
}

Json markedField(const Json& value, const stpc::Field& field) {
  if (field.isArrayBlock()) return markedField(value, field.fields[1]);
  if (field.kind == stpc::Field::Kind::block) return marked(value, field.fields);
  if (!field.isArray()) return markedScalar(value, field.scalar);
  Json elements = Json::array();
  for (const Json& element : value) elements.push_back(markedScalar(element, field.scalar));
  return elements;
}

std::string digitsOf(std::uint64_t bits, int digits) {
  char text[17];
  std::snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(bits));
  return text;
}

}  // namespace

std::string toHex(std::string_view bytes) {
  std::string digits;
  for (const char byte : bytes) digits += digitsOf(static_cast<unsigned char>(byte), 2);
  return digits;
}

std::string fromHex(std::string_view digits) {
  std::string bytes;
  for (std::size_t at = 0; at + 1 < digits.size(); at += 2)
    bytes += static_cast<char>(std::stoi(std::string(digits.substr(at, 2)), nullptr, 16));
  return bytes;
}

std::string wordsOf(const std::vector<std::uint32_t>& words) {
  std::string bytes(words.size() * 4, '\0');
  for (std::size_t i = 0; i < words.size(); ++i)
    stpWriteWord(reinterpret_cast<unsigned char*>(bytes.data()) + 4 * i, words[i]);
  return bytes;
}

Json u8(std::uint64_t value) {
  return {{kU8, std::to_string(value)}};
}

Json f4(float value) {
  return {{kF4, digitsOf(std::bit_cast<std::uint32_t>(value), 8)}};
}

Json f8(double value) {
  return {{kF8, digitsOf(std::bit_cast<std::uint64_t>(value), 16)}};
}

Json plain(const Json& value) {
  if (!value.is_structured()) return value;
  if (value.is_object() && value.size() == 1 && value.begin().value().is_string()) {
    const auto text = value.begin().value().get<std::string>();
    if (value.contains(kU8)) return std::stoull(text);
    if (value.contains(kF4))
      return std::bit_cast<float>(static_cast<std::uint32_t>(std::stoul(text, nullptr, 16)));
    if (value.contains(kF8))
      return std::bit_cast<double>(static_cast<std::uint64_t>(std::stoull(text, nullptr, 16)));
  }
  Json result = value;
  for (Json& each : result) each = plain(each);
  return result;
}

Json marked(const Json& value, const std::vector<stpc::Field>& fields) {
  Json result = Json::object();
  for (const stpc::Field& field : fields)
    if (!field.isCount()) result[field.name] = markedField(value.at(field.name), field);
  return result;
}

std::string textOf(const Json& cases) {
  std::string text;
  for (const Json& each : cases) text += (text.empty() ? "[\n" : ",\n") + each.dump();
  return text + "\n]\n";
}

Files makeFiles() {
  return {{"packets.json", makePackets()},     {"plain.json", makePlain()},
          {"records.json", makeRecords()},     {"fields.json", makeFields()},
          {"malformed.json", makeMalformed()}, {"versions.json", makeVersions()}};
}

}  // namespace vectors
