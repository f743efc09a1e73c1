// The files in languages/vectors are those that the library makes today, and it reads from each
// what stands beside it. With HUBLINK_WRITE_VECTORS in the environment the files are written anew.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "stp_transport/transport/stp_read_buffer.h"
#include "vectors/vector_side.h"

namespace vectors {
namespace {

std::string pathOf(const std::string& file) {
  return std::string(SOURCE_DIRECTORY "/languages/vectors/") + file;
}

Json casesOf(const std::string& file) {
  std::ifstream in(pathOf(file));
  return Json::parse(in, nullptr, false);
}

TEST(Vectors, AreCurrent) {
  for (const auto& [name, cases] : makeFiles()) {
    const std::string text = textOf(cases);
    if (std::getenv("HUBLINK_WRITE_VECTORS")) std::ofstream(pathOf(name)) << text;
    std::ifstream in(pathOf(name));
    const std::string kept{std::istreambuf_iterator<char>(in), {}};
    EXPECT_TRUE(kept == text) << name
                              << " is stale: HUBLINK_WRITE_VECTORS=1 vectors_tests writes it";
  }
}

TEST(Vectors, StreamsGiveTheirPackets) {
  for (const Json& each : casesOf("packets.json")) {
    const std::string stream = fromHex(each["stream"].get<std::string>());
    STPReadBuffer buffer(STP_SMALL_BLOCK);
    const auto room = buffer.roomFor(static_cast<std::int64_t>(stream.size()) + 1);
    std::copy(stream.begin(), stream.end(), room.bytes);
    buffer.add(static_cast<std::int64_t>(stream.size()));
    Json packets = Json::array();
    STPPacketTest test;
    while (buffer.count() > 0) {
      test = buffer.test();
      if (test.state != STPPacketState::complete) break;
      const STPHeader header = stpReadHeader(buffer.front(), test.headerSize);
      const std::string payload(reinterpret_cast<const char*>(buffer.front()) + test.headerSize,
                                static_cast<std::size_t>(test.payloadSize));
      packets.push_back({{"source", header.sourceRN},
                         {"destination", header.destinationRN},
                         {"sequence", header.sequence},
                         {"response_to", header.responseTo},
                         {"type", header.type},
                         {"id", header.id},
                         {"flags", header.flags},
                         {"chain", header.chain},
                         {"depth", header.depth},
                         {"payload", toHex(payload)}});
      buffer.take(stpStoredSize(std::int64_t{test.headerSize} + test.payloadSize),
                  STPReadBuffer::Use::delivered);
    }
    EXPECT_EQ(packets, each["packets"]) << each["name"];
    const char* verdict = test.state == STPPacketState::invalid      ? "refused"
                          : test.state == STPPacketState::incomplete ? "incomplete"
                                                                     : "value";
    EXPECT_EQ(each["verdict"], verdict) << each["name"];
  }
}

TEST(Vectors, RecordsGiveWhatTheyAnnounce) {
  for (const Json& each : casesOf("records.json")) {
    const auto side =
        VectorSide::make(readCatalogue(each["catalogue"]), each["side"], each["side"] == "router");
    side->take(fromHex(each["payload"].get<std::string>()));
    EXPECT_EQ(side->peer(), each["peer"]) << each["name"];
  }
}

const stpc::Message& find(const stpc::Catalogue& catalogue, const Json& name) {
  for (const stpc::Message& message : catalogue.messages)
    if (message.name == name) return message;
  std::abort();
}

std::string versionFile(const Json& version) {
  return version == 1 ? "languages/vectors/vectors.stp" : "languages/vectors/vectors_2.stp";
}

TEST(Vectors, MessagesGiveTheirValues) {
  for (const char* file : {"fields.json", "malformed.json", "versions.json"})
    for (const Json& each : casesOf(file)) {
      const Json version = each.value("reader", Json(1)), writer = each.value("writer", Json(1));
      const stpc::Catalogue catalogue = readCatalogue(versionFile(version));
      const auto side = VectorSide::make(catalogue, "right");
      side->take(recordOf(each.contains("tags")
                              ? each["tags"].get<std::vector<std::string>>()
                              : readCatalogue(versionFile(writer)).tagNamesWithRefusal()));
      const stpc::Message& message = find(catalogue, each["message"]);
      const bool isReply = each.value("part", Json("message")) == "reply";
      const std::string payload = fromHex(each["payload"].get<std::string>());
      EXPECT_EQ(readPayload(isReply ? message.reply : message.fields, payload, side->names()),
                each["value"])
          << file << " " << each["name"];
      if (!each.contains("refusal")) continue;
      EXPECT_EQ(readPayload(refusalFields(), payload, side->names())[stpc::kRefusalField],
                each["refusal"]);
    }
}

TEST(Vectors, PlainPacketsGiveTheirBytes) {
  for (const Json& each : casesOf("plain.json")) {
    const std::string packet =
        std::string(STP_HEADER_SIZE, '\0') + fromHex(each["payload"].get<std::string>());
    STPReceivedMessage message(reinterpret_cast<const unsigned char*>(packet.data()),
                               STP_HEADER_SIZE,
                               static_cast<std::int32_t>(packet.size()) - STP_HEADER_SIZE);
    const std::string bytes = fromHex(each["value"].get<std::string>());
    std::string read(bytes.size(), 'x');
    EXPECT_EQ(stpReadWord(message.storage() + STP_HEADER_SIZE + 4), bytes.size());
    message.getArray(STP_TAG_PLAIN_BYTES, read.data(), static_cast<std::int32_t>(read.size()), 1);
    EXPECT_EQ(read, bytes) << each["name"];
  }
}

}  // namespace
}  // namespace vectors
