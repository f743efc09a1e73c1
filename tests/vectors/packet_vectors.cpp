// Streams of packets, and what a receiver makes of them.
#include "vectors/vector_json.h"

#include "stp_transport/message/stp_message.h"

namespace vectors {
namespace {

struct Packet {
  STPHeader header;
  std::string payload;
};

std::string bytesOf(const Packet& packet, std::uint32_t headerSize = STP_HEADER_SIZE,
                    char fill = '\0') {
  STPHeader header = packet.header;
  header.headerSize = static_cast<std::int32_t>(headerSize);
  header.payloadSize = static_cast<std::int32_t>(packet.payload.size());
  std::string bytes(STP_HEADER_SIZE, '\0');
  stpWriteHeader(reinterpret_cast<unsigned char*>(bytes.data()), header);
  bytes.resize(headerSize, '\x5a');
  bytes += packet.payload;
  bytes.resize(static_cast<std::size_t>(stpStoredSize(static_cast<std::int64_t>(bytes.size()))),
               fill);
  return bytes;
}

Json valueOf(const Packet& packet) {
  const STPHeader& header = packet.header;
  return {{"source", header.sourceRN},   {"destination", header.destinationRN},
          {"sequence", header.sequence}, {"response_to", header.responseTo},
          {"type", header.type},         {"id", header.id},
          {"flags", header.flags},       {"chain", header.chain},
          {"depth", header.depth},       {"payload", toHex(packet.payload)}};
}

Json streamCase(const char* name, const std::string& stream, const std::vector<Packet>& packets,
                const char* verdict = "value", bool writes = false) {
  Json values = Json::array();
  for (const Packet& packet : packets) values.push_back(valueOf(packet));
  Json result = {
      {"name", name}, {"verdict", verdict}, {"stream", toHex(stream)}, {"packets", values}};
  if (writes) result["writes"] = true;
  return result;
}

std::string sizes(std::uint32_t header, std::uint32_t payload) {
  std::string bytes = wordsOf({header, payload});
  return bytes + std::string(36, '\0');
}

}  // namespace

Json makePackets() {
  const std::string word = wordsOf({0});
  const Packet call = {{0, 0, 2, 1, 2, 0, STP_BINARY, 7, STP_WANTS_RESPONSE, 2, 1},
                       wordsOf({0x0124, 5, 0})};
  const Packet response = {{0, 0, 1, 2, 9, 2, STP_RESPONSE, STP_RESPONSE, 0, 2, 1}, word};
  const Packet plain = {{0, 0, 10, 0x7FFFFFFF, UINT32_MAX, 0, STP_PLAIN, 0, STP_ONE_WAY, 3, 2},
                        "odd"};
  const Packet urgent = {{0, 0, 12, 13, 1, 0, STP_BINARY, UINT32_MAX,
                          STP_ONE_WAY | STP_ANY_TIME | STP_CARRIED, 0x80000001, UINT32_MAX},
                         word};
  const Packet empty = {{0, 0, 2, 1, 3, 0, STP_DISCARD, 0, STP_ONE_WAY, 3, 1}, ""};
  const std::string good = bytesOf(empty);
  Json cases = Json::array();
  for (const auto& [name, packet] : {std::pair{"a call", call},
                                     {"its response", response},
                                     {"an odd payload, filled up", plain},
                                     {"the greatest numbers", urgent},
                                     {"no payload", empty}})
    cases.push_back(streamCase(name, bytesOf(packet), {packet}, "value", true));
  cases.push_back(streamCase("one behind the other",
                             bytesOf(plain) + bytesOf(call) + bytesOf(plain) + bytesOf(empty),
                             {plain, call, plain, empty}, "value", true));
  cases.push_back(
      streamCase("fill means nothing", bytesOf(plain, 44, '\x7f') + bytesOf(call), {plain, call}));
  cases.push_back(streamCase("fill that is still to come", bytesOf(plain).substr(0, 47), {plain}));
  // A shorter header lacks the last words, a longer one has some that nobody knows.
  for (const std::uint32_t size : {32U, 36U, 40U, 48U, 128U}) {
    Packet seen = call;
    if (size < 44) seen.header.depth = 0;
    if (size < 40) seen.header.chain = 0;
    if (size < 36) seen.header.flags = 0;
    cases.push_back(streamCase(("a header of " + std::to_string(size) + " bytes").c_str(),
                               bytesOf(call, size).substr(0, size + 12) + bytesOf(plain),
                               {seen, plain}));
  }
  cases.push_back(streamCase("nothing", "", {}, "incomplete"));
  cases.push_back(streamCase("seven bytes", good.substr(0, 7), {}, "incomplete"));
  cases.push_back(streamCase("a header that lacks a byte", good.substr(0, 43), {}, "incomplete"));
  cases.push_back(streamCase("a payload that lacks a byte",
                             bytesOf(call) + bytesOf(call).substr(0, 55), {call}, "incomplete"));
  cases.push_back(streamCase("the largest packet begins",
                             sizes(44, static_cast<std::uint32_t>(STP_MAX_PACKET_SIZE) - 44), {},
                             "incomplete"));
  for (const auto& [name, header, payload] :
       {std::tuple{"a header of 0 bytes", 0U, 4U},
        {"a header of 28 bytes", 28U, 4U},
        {"a header of 132 bytes", 132U, 4U},
        {"a header of 45 bytes", 45U, 4U},
        {"a header below 0", 0xFFFFFFFCU, 4U},
        {"one byte too many", 44U, static_cast<std::uint32_t>(STP_MAX_PACKET_SIZE) - 43},
        {"a payload of 2 GiB", 44U, 0x7FFFFFFFU},
        {"a payload below 0", 44U, 0xFFFFFFD4U}}) {
    cases.push_back(streamCase(name, sizes(header, payload), {}, "refused"));
  }
  cases.push_back(
      streamCase("eight bytes tell it", bytesOf(call) + wordsOf({3, 0}), {call}, "refused"));
  return cases;
}

Json makePlain() {
  Json cases = Json::array();
  const auto add = [&](const std::string& name, const std::string& bytes) {
    STPMessage message;
    message.putArrayData(STP_TAG_PLAIN_BYTES, bytes.data(), static_cast<std::int32_t>(bytes.size()),
                         1);
    message.finishMessage(1);
    const std::string payload(reinterpret_cast<const char*>(message.storage()) + STP_HEADER_SIZE,
                              static_cast<std::size_t>(message.header.payloadSize));
    cases.push_back({{"name", name},
                     {"verdict", "value"},
                     {"payload", toHex(payload)},
                     {"value", toHex(bytes)},
                     {"writes", true}});
  };
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  for (const std::size_t size : {0U, 1U, 2U, 3U, 4U, 5U, 256U})
    add(std::to_string(size) + " bytes", all.substr(0, size));
  add("zeros", std::string(7, '\0'));
  return cases;
}

}  // namespace vectors
