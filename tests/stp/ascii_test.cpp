#include <gtest/gtest.h>

#include "tests/stp/message_bytes.h"

namespace {

using Mark = STPReceivedMessage::Mark;

std::string wordAt(STPReceivedMessage& reader, const char* name = nullptr) {
  std::int32_t length = -1;
  const char* word = name ? reader.readWord(name, &length) : reader.readWord(&length);
  return {word, static_cast<std::size_t>(length)};
}

TEST(AsciiWriter, WritesTheNotationToTheBlank) {
  STPMessage message("start");
  message.writeInt64(0xC, "b");
  message.writeString(nullptr, "d");
  message.writeWord("", "e");
  message.writeQuoted("q", "f");
  message.writeQuoted(nullptr);
  message.writeBlockBegin("g");
  message.writeBlockEnd();
  message.writeArrayBegin(3, "h");
  message.writeArrayEnd();
  message.writeArrayBegin(-1);
  const Bytes bytes = finishedBytes(message);
  EXPECT_STREQ(reinterpret_cast<const char*>(&bytes[STP_HEADER_SIZE]),
               "start b:0x00000000c d:null e: f:\"q\" \"\" "
               "g:{  } h:(0x3 )[  ] [ ");
  EXPECT_EQ(stpReadWord(&bytes[bytes.size() - 4]), 0U);
}

TEST(AsciiReader, GivesBackWhatWasWritten) {
  STPMessage message;
  message.writeString("back\\slash \"quote\"\nline \\n", "text");
  message.writeString(nullptr, "none");
  message.writeInt64(0xFEDCBA9876543210, "wide");
  message.writeQuoted("a b", "quoted");
  STPReceivedMessage reader = received(message);
  EXPECT_STREQ(reader.readString("text"), "back\\slash \"quote\"\nline \\n");
  EXPECT_EQ(reader.readString("none").get(), nullptr);
  EXPECT_EQ(reader.readInt64("wide"), 0xFEDCBA9876543210U);
  std::int32_t length;
  EXPECT_EQ(std::string(reader.readQuoted("quoted", &length), 3), "a b");
  EXPECT_EQ(length, 3);
}

TEST(AsciiReader, FindsFieldsInAnyOrder) {
  STPReceivedMessage reader(
      "name:1 in:{ x:\"}\\\"\" y:[ 2 } 3 ] z:5 } list:(0x1 )[ { q:1 } ] b:2 c:3 ");
  EXPECT_EQ(reader.findAsciiField("na"), nullptr);
  EXPECT_EQ(reader.findAsciiField("z"), nullptr) << "a field in a block isn't found from outside";
  EXPECT_EQ(reader.readInt("c"), 3U);
  EXPECT_EQ(reader.readInt("name"), 1U);
  Mark block;
  reader.enterBlock(&block, "in");
  EXPECT_EQ(reader.readInt("z"), 5U);
  EXPECT_STREQ(reader.readString("x"), "}\"");
  reader.leaveBlock(&block);
  EXPECT_EQ(reader.readInt("b"), 2U) << "the next search starts behind a block left early";
}

TEST(AsciiReader, ReadsNumbersAndCutStrings) {
  const auto narrow = [](const char* text) { return STPReceivedMessage(text).readInt(); };
  EXPECT_EQ(narrow(" \t\n0x1F)") | narrow("017") << 8, 0xF1FU);
  EXPECT_EQ(narrow("-2"), 0xFFFFFFFEU);
  for (const char* most : {"4294967295", "0x100000000", "99999999999999999999999999"})
    EXPECT_EQ(narrow(most), 0xFFFFFFFFU);
  EXPECT_EQ(narrow("0x") | narrow("abc") | narrow("-") | narrow(nullptr), 0U);
  EXPECT_EQ(static_cast<std::int64_t>(STPReceivedMessage("-0x10").readInt64()), -16);
  EXPECT_STREQ(STPReceivedMessage("\"open").readString(), "open");
  EXPECT_STREQ(STPReceivedMessage("\"tail\\").readString(), "tail\\");
}

TEST(AsciiReader, WalksArraysAndUnknownFields) {
  STPReceivedMessage reader(
      "list:(0x2 )[ a bc ] bare:[ x ] in:{ k:1 l:(0x1 )[ 2 ] m:\"s\" } end:4");
  Mark mark;
  EXPECT_EQ(reader.enterArray(&mark, "list"), 2);
  EXPECT_EQ(wordAt(reader), "a");
  EXPECT_EQ(wordAt(reader), "bc");
  reader.leaveArray(&mark);
  EXPECT_EQ(reader.enterArray(&mark, "bare"), 0);
  EXPECT_NE(reader.nextValue(), nullptr);
  EXPECT_EQ(reader.nextValue(), nullptr);
  reader.leaveArray(&mark);
  reader.enterBlock(&mark, "in");
  std::string names;
  for (char* name; reader.nextField(&name);) names += *name;
  EXPECT_EQ(names, "klm");
  reader.leaveBlock(&mark);
  EXPECT_EQ(reader.readInt("end"), 4U);
}

// Reads a list of blocks like a record's, one level deeper in each.
void readEverything(STPReceivedMessage& reader, int depth = 0) {
  for (const char* name : {"name", "list", "text"}) {
    std::int32_t length;
    Mark mark;
    reader.readInt(name), reader.readInt64(name), reader.readString(name);
    reader.readQuoted(name, &length), reader.peekWord(&length), wordAt(reader, name);
    reader.enterArray(&mark, name);
    for (int i = 0; i < 100 && reader.nextValue(); ++i) {
      Mark element;
      reader.enterBlock(&element);
      if (depth < 2) readEverything(reader, depth + 1);
      reader.leaveBlock(&element);
    }
    while (reader.nextValue()) wordAt(reader);
    reader.leaveArray(&mark);
    for (char* field; reader.nextField(&field);) EXPECT_NE(field, nullptr);
    EXPECT_LE(reader.cursorOffset(), reader.capacity());
  }
}

TEST(AsciiReader, SurvivesDamage) {
  STPMessage message("name:w list:(0x2 )[ { name:w text:\"a\\\\b\" } { text:null } ] end:\"x\"");
  readDamaged(message, [](STPReceivedMessage& reader) { readEverything(reader); });
}

// A "[" runs to the end of the text when it is stepped over as a value, but not when it is read as
// a word. Without a bound the first text takes many minutes; the second one nests too deep to
// recurse.
TEST(AsciiReader, HostileTextCostsLinearTime) {
  std::string records = "list:(0xfffffff )[ ", openings = "x:";
  while (records.size() < 2'000'000) records += "{ name:[ } ";
  while (openings.size() < 10'000'000) openings += "[{[[[";
  STPReceivedMessage reader(records.c_str());
  Mark array, block;
  EXPECT_EQ(reader.enterArray(&array, "list"), 0xfffffff);
  for (int i = 0; i < 200'000; ++i, reader.leaveBlock(&block)) {
    reader.enterBlock(&block);
    wordAt(reader, "name");
  }
  EXPECT_EQ(STPReceivedMessage(openings.c_str()).readInt("y"), 0U);
}

}  // namespace
