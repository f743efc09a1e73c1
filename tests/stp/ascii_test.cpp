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

  STPMessage many;
  for (std::uint32_t i = 0; i < 200; ++i) {
    many.writeInt(i, ("n" + std::to_string(i)).c_str());
    many.writeBlockBegin(("in" + std::to_string(i)).c_str());
    many.writeWord("word", "a"), many.writeQuoted("text", "b"), many.writeInt(i, "n0");
    many.writeBlockEnd();
  }
  STPReceivedMessage backwards = received(many);
  for (std::uint32_t i = 200; i-- > 0;) {
    std::int32_t length;
    backwards.enterBlock(&block, ("in" + std::to_string(i)).c_str());
    EXPECT_EQ(backwards.readInt("n0"), i);
    EXPECT_EQ(std::string(backwards.readQuoted("b", &length), 4), "text");
    EXPECT_EQ(wordAt(backwards, "a"), "word");
    backwards.leaveBlock(&block);
    EXPECT_EQ(backwards.readInt(("n" + std::to_string(i)).c_str()), i);
  }
  EXPECT_EQ(STPReceivedMessage("b:1 a:2 b:3 a:4 ").readInt("a"), 2U) << "the first of a name";
  STPReceivedMessage passed("a:1 b:2 c:3 a:4 ");
  EXPECT_EQ(passed.readInt("d"), 0U) << "and the search is at the mark again";
  EXPECT_EQ(passed.readInt("a"), 1U);
  EXPECT_EQ(passed.readInt("a"), 4U) << "what has been read in order isn't found again";
}

// A text is as long as its packet, and then has no end word; brackets nest to any depth.
TEST(AsciiReader, FindsTheEndOfAFullTextAndOfDeepNesting) {
  Bytes bytes(STP_HEADER_SIZE);
  for (char c : std::string("in:{ a:1 b:2 } c:12345"))
    bytes.push_back(static_cast<unsigned char>(c));
  STPReceivedMessage reader = received(bytes, bytes.size());
  Mark block;
  reader.enterBlock(&block, "none");
  EXPECT_EQ(wordAt(reader), "") << "an absent block is empty";
  reader.leaveBlock(&block);
  EXPECT_EQ(wordAt(reader, "c"), "12345");
  for (int depth : {1, 63, 64, 65, 128, 129, 200}) {
    std::string text = "x:[ ";  // where a level is lost, it is taken for a block
    for (int i = 1; i < depth; ++i) text += "{ ";
    for (int i = 1; i < depth; ++i) text += "} ";
    EXPECT_EQ(STPReceivedMessage((text + "] y:7").c_str()).readInt("y"), 7U) << depth;
  }
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
// a word; a name without a colon runs to the end, too. What a reader may step over is bounded by
// the size of the text: then nothing more is found. The last text nests too deep to recurse.
TEST(AsciiReader, HostileTextCostsLinearTime) {
  for (const char* record : {"{ name:[ } ", "{ n } "}) {
    std::string text = "list:(0xfffffff )[ ";
    while (text.size() < 40'000) text += record;
    STPReceivedMessage reader((text + "{ name:1 } ] ").c_str());
    Mark array, block;
    EXPECT_EQ(reader.enterArray(&array, "list"), 0xfffffff);
    int found = 0;
    for (std::size_t i = 0; i < text.size(); ++i, reader.leaveBlock(&block)) {
      reader.enterBlock(&block);
      found += reader.findAsciiField("name") != nullptr;
      wordAt(reader);
    }
    EXPECT_LT(found, record[3] == ' ' ? 1 : 50) << record;
  }
  std::string openings = "x:";
  while (openings.size() < 10'000'000) openings += "[{[[[";
  EXPECT_EQ(STPReceivedMessage(openings.c_str()).readInt("y"), 0U);
}

}  // namespace
