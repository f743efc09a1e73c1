#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "stp_transport/spec/stp_stub_support.h"
#include "tests/stp/message_bytes.h"

namespace {

Bytes payload(std::initializer_list<std::uint32_t> values) {
  Bytes bytes(values.size() * 4);
  unsigned char* place = bytes.data();
  for (std::uint32_t value : values) stpWriteWord(place, value), place += 4;
  return bytes;
}

Bytes payload(STPMessage& message) {
  const Bytes bytes = finishedBytes(message);
  return {bytes.begin() + STP_HEADER_SIZE, bytes.end()};
}

void writeArguments(STPMessage& message) {
  std::int64_t block;
  message.beginStruct(1, block);
  message.putU32(6, 2);
  message.putU32(STP_TAG_ARRAY_COUNT, 2);
  message.putString(STP_TAG_ARRAY_ELEMENT, "a");
  message.putString(STP_TAG_ARRAY_ELEMENT, "bc");
  message.endStruct(block);
  message.putU32(5, 7);
  message.putString(48, nullptr);
}

TEST(BinaryMessage, MatchesTheFormatToTheByte) {
  STPMessage sync;
  sync.header = {0, 0, 3, 7, 0, 0, STP_SYNC, 0, 0, 2, 1};
  EXPECT_EQ(finishedBytes(sync), payload({44, 4, 3, 7, 2, 0, 5, 0, 0, 2, 1, 0}));

  STPMessage arguments;
  writeArguments(arguments);
  EXPECT_EQ(payload(arguments),
            payload({0x0140, 39, 0x0624, 2, 0x1624, 2, 0x1710, 2, 'a', 0x1710, 3, 0x6362,  //
                     0x0524, 7, 0x3010, 0, 0}));

  STPMessage wide;
  const std::uint32_t numbers[] = {0x100, 0x101};
  wide.putArray(7, numbers, 2, 4);
  wide.putU8(1, 0xAB);
  wide.putU64(2, 0x0000000100000002);
  wide.putF64(3, 1.0);
  wide.putString(15, "abc");
  EXPECT_EQ(payload(wide), payload({0x0750, 12, 2, 0x100, 0x101, 0x0121, 0xAB, 0x0228, 1, 2, 0x0338,
                                    0x3FF00000, 0,  //
                                    0x0F10, 4, 0x636261, 0}));
}

TEST(BinaryReader, ReadsInAnyOrderWithoutMovingTheStart) {
  STPMessage message;
  message.putU8(1, 200);
  message.putU16(2, 0xABCD);
  message.putF32(3, 1.5F);
  message.putU64(4, 0x123456789ABCDEF0);
  message.putString(5, "");
  message.putString(6, nullptr);
  STPReceivedMessage reader = received(message);
  EXPECT_EQ(reader.getString(6).get(), nullptr);
  EXPECT_STREQ(reader.getStringView(5), "");
  EXPECT_EQ(reader.getU64(4), 0x123456789ABCDEF0U);
  EXPECT_EQ(reader.getF32(3), 1.5F);
  EXPECT_EQ(reader.getU16(2), 0xABCD);
  EXPECT_EQ(reader.getU32(99), 0U);
  EXPECT_EQ(reader.getU32(1), 0U) << "one byte holds no 32-bit value";
  EXPECT_EQ(reader.getU8(1), 200);
}

TEST(BinaryReader, WalksRepeatedTagsInsideAStructAndResumesBehindIt) {
  STPMessage message;
  writeArguments(message);
  STPReceivedMessage reader = received(message);
  STPReceivedMessage::Range range;
  reader.enterStruct(1, range);
  EXPECT_EQ(reader.getU32(6), 2U);
  EXPECT_EQ(reader.getU32(STP_TAG_ARRAY_COUNT), 2U);
  EXPECT_STREQ(reader.getString(STP_TAG_ARRAY_ELEMENT), "a");
  EXPECT_STREQ(reader.getString(STP_TAG_ARRAY_ELEMENT), "bc");
  EXPECT_EQ(reader.getU32(5), 0U) << "a field behind the struct isn't found from inside";
  reader.leaveStruct(range);
  EXPECT_EQ(reader.getU32(5), 7U);
}

// A sender of another version has fields in front, behind and in between, in another order, and its
// numbers of them may be those that mark an array.
TEST(BinaryReader, FindsPointerArraysWhateverStandsAroundThem) {
  const std::vector<std::int32_t> tags = {6, 9, STP_TAG_ARRAY_COUNT, STP_TAG_ARRAY_ELEMENT, 5};
  enum { kCount, kOtherCount, kNumber, kText, kLast };
  const char* const texts[] = {"a", "bc", nullptr};
  const std::int32_t numbers[] = {7, 8};
  const StringArray sentTexts{3, texts};
  const RNArray sentNumbers{2, numbers};
  for (const bool hasArrays : {true, false})
    for (const bool isReordered : {false, true})
      for (const bool hasUnknown : {false, true}) {
        STPMessage message;
        if (hasUnknown) message.putU32(77, 1);
        const auto putNumbers = [&] {
          stpPutCount(message, 9, sentNumbers);
          stpPutElements(message, sentNumbers);
        };
        if (hasArrays && isReordered) putNumbers();
        if (hasArrays || hasUnknown) stpPutCount(message, 6, sentTexts);  // or a mere number
        if (hasUnknown) message.putU32(78, 1);
        if (hasArrays) stpPutElements(message, sentTexts);
        if (hasArrays && !isReordered) putNumbers();
        message.putU32(STP_TAG_ARRAY_COUNT, 3);
        message.putString(STP_TAG_ARRAY_ELEMENT, "text");
        message.putU32(5, 4);
        STPReceivedMessage packet = received(message);
        STPStubReader in(packet, tags);
        StringArray gotTexts;
        RNArray gotNumbers;
        in.count(kCount, gotTexts);
        in.elements(gotTexts);
        in.count(kOtherCount, gotNumbers);
        in.elements(gotNumbers);
        EXPECT_EQ(in.u4(kNumber), 3);
        EXPECT_STREQ(in.str(kText), "text");
        EXPECT_EQ(in.u4(kLast), 4);
        ASSERT_EQ(gotTexts.count, hasArrays ? 3 : 0);
        ASSERT_EQ(gotNumbers.count, hasArrays ? 2 : 0);
        if (!hasArrays) continue;
        EXPECT_STREQ(gotTexts.data[0], "a");
        EXPECT_STREQ(gotTexts.data[1], "bc");
        EXPECT_EQ(gotTexts.data[2], nullptr);
        EXPECT_EQ(gotNumbers.data[1], 8);
      }
  // Two counts that differ: the lesser holds.
  for (const std::uint32_t count : {2U, 1000U, 0x80000000U}) {
    STPMessage message;
    message.putU32(6, count);
    stpPutElements(message, sentTexts);
    STPReceivedMessage packet = received(message);
    STPStubReader in(packet, tags);
    StringArray got;
    in.count(kCount, got);
    in.elements(got);
    EXPECT_EQ(got.count, count == 2 ? 2 : 3);
  }
}

TEST(BinaryReader, ArraysGiveWhatFitsAndZeroTheRest) {
  const std::uint64_t wide[] = {0x0000000100000002, 3};
  const std::uint16_t halves[] = {1, 2, 3};
  STPMessage message;
  message.putArray(1, wide, 2, 8);
  message.putArrayData(2, halves, 3, 2);
  Bytes bytes = finishedBytes(message);
  stpWriteWord(&bytes[STP_HEADER_SIZE + 8], 0x7FFFFFFF);
  STPReceivedMessage reader = received(bytes, bytes.size());
  std::int32_t count = -1;
  void* elements = reader.getArrayAlloc(1, count, 8);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(std::memcmp(elements, wide, sizeof wide), 0);
  gen_free(elements);
  std::uint16_t out[5] = {9, 9, 9, 9, 9};
  reader.getArray(2, out, 5, 2);
  EXPECT_THAT(out, testing::ElementsAre(1, 2, 3, 0, 0));
}

TEST(BinaryReader, KeepsToTheMessageWhateverLengthsSay) {
  STPMessage message;
  message.putString(1, "abc");
  message.putString(2, "def");
  Bytes bytes = finishedBytes(message);
  bytes[STP_HEADER_SIZE + 11] = 'x';                       // the first string loses its zero
  stpWriteWord(&bytes[STP_HEADER_SIZE + 16], 0xFFFFFFF0);  // the second one claims too much
  STPReceivedMessage reader = received(bytes, bytes.size());
  EXPECT_STREQ(reader.getStringView(1), "abcx");
  EXPECT_EQ(reader.getString(2).get(), nullptr);
  EXPECT_EQ(reader.cursorOffset(), reader.capacity());
}

void readEveryTag(STPReceivedMessage& reader) {
  for (std::int32_t tag : {1, 48, 5, 6, 7, STP_TAG_ARRAY_COUNT, STP_TAG_ARRAY_ELEMENT}) {
    STPReceivedMessage::Range range;
    reader.enterStruct(tag, range);
    STPReceivedMessage::Range elements;
    const std::int32_t strings = reader.enterElements(reader.getCount(6), elements);
    for (std::int32_t i = 0; i < strings; ++i) reader.getString(STP_TAG_ARRAY_ELEMENT);
    reader.leaveStruct(elements);
    reader.leaveStruct(range);
    const char* view = reader.getStringView(tag);
    EXPECT_LT(view ? std::strlen(view) : 0, static_cast<std::size_t>(reader.capacity()));
    reader.getU8(tag), reader.getU16(tag), reader.getU64(tag);
    for (int size : {1, 2, 4, 8}) {
      std::int32_t count;
      gen_free(reader.getArrayAlloc(tag, count, size));
      EXPECT_LE(std::int64_t{count} * size, reader.capacity());
      std::uint64_t out[3];
      reader.getArray(tag, out, 3, size);
    }
    EXPECT_LE(reader.cursorOffset(), reader.capacity());
  }
}

TEST(BinaryReader, SurvivesDamage) {
  STPMessage message;
  const std::uint32_t numbers[] = {1, 2, 3};
  writeArguments(message);
  message.putArray(7, numbers, 3, 4);
  message.putU8(6, 1);
  readDamaged(message, readEveryTag);
}

}  // namespace
