// Both generated sides of the sample interface, against each other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "indgen/find.h"
#include "sample_left_impl.h"
#include "sample_right_impl.h"
#include "stpc/in_process.h"

namespace {

using ::testing::_;
using ::testing::HasSubstr;
using ::testing::NiceMock;
using ::testing::StrEq;

class Left : public Sample_left_Impl {
 public:
  MOCK_METHOD(void, Urgent, (std::int32_t id), (override));
  MOCK_METHOD(void, Question, (const char* text, gen_text& answer), (override));
};

class Right : public Sample_right_Impl {
 public:
  MOCK_METHOD(void, Scalars,
              (bool, std::uint16_t, std::int32_t, std::uint64_t, float, double, const char*,
               const char*),
              (override));
  MOCK_METHOD(void, Nothing, (), (override));
  MOCK_METHOD(void, Names, (std::int32_t, const char*, const Names_kTables&), (override));
  MOCK_METHOD(void, Figure, (const char*, const Figure_block&, std::int32_t), (override));
  MOCK_METHOD(void, Pointers,
              (STPArray<std::uint8_t>, STPArray<std::uint16_t>, RNArray, STPArray<std::uint64_t>,
               STPArray<float>, STPArray<double>, std::int32_t, StringArray, StringArray),
              (override));
  MOCK_METHOD(void, Packed,
              (STPArray<std::uint8_t>, STPArray<std::uint16_t>, RNArray, STPArray<std::uint64_t>,
               STPArray<float>, STPArray<double>),
              (override));
  MOCK_METHOD(void, Divide,
              (std::int32_t, std::int32_t, bool&, std::uint16_t&, std::int32_t&, std::uint64_t&,
               float&, double&, gen_text&, gen_text&),
              (override));
  MOCK_METHOD(void, Ping, (), (override));
};

template <class T>
STPArray<T> arrayOf(const std::vector<T>& elements) {
  return {static_cast<std::int32_t>(elements.size()), elements.data()};
}

class SampleTest : public ::testing::Test {
 protected:
  SampleTest() {
    pair.join(*left, *right);
    EXPECT_TRUE(left->isNegotiated() && right->isNegotiated());
  }

  InProcessPair pair;
  CountedPtr<NiceMock<Left>> left = makeCounted<NiceMock<Left>>();
  CountedPtr<NiceMock<Right>> right = makeCounted<NiceMock<Right>>();
};

TEST_F(SampleTest, RepliesBringValuesOfEveryKind) {
  PumpingHandler patience(pair);
  EXPECT_CALL(*right, Divide(7, 2, _, _, _, _, _, _, _, _))
      .WillOnce([](auto, auto, auto&... values) {
        std::tie(values...) = std::tuple(true, 0xABCD, -1, UINT64_MAX - 1, 3.5F, 1e300,
                                         gen_absolute_path("/remark"), gen_text());
      });
  std::tuple<bool, std::uint16_t, std::int32_t, std::uint64_t, float, double> got;
  gen_text remark, none = gen_absolute_path("/old");
  EXPECT_TRUE(std::apply(
      [&](auto&... values) { return left->Divide(7, 2, &values..., &remark, &none, &patience); },
      got));
  EXPECT_EQ(got, std::tuple(true, 0xABCD, -1, UINT64_MAX - 1, 3.5F, 1e300));
  EXPECT_STREQ(remark, "/remark");
  EXPECT_EQ(none.get(), nullptr);
}

TEST_F(SampleTest, ACallIsAnsweredByACallBack) {
  KeepingLog log;
  left->setLogs(&log);
  right->setLogs(&log);
  PumpingHandler patience(pair);
  EXPECT_CALL(*right, Ping()).WillOnce([&] {
    PumpingHandler innerPatience(pair);
    gen_text answer;
    right->Urgent(3);
    EXPECT_TRUE(right->Question("why", &answer, &innerPatience));
    EXPECT_STREQ(answer, "/because");
  });
  EXPECT_CALL(*left, Urgent(3));
  EXPECT_CALL(*left, Question(StrEq("why"), _)).WillOnce([](auto, gen_text& answer) {
    answer = gen_absolute_path("/because");
  });
  EXPECT_TRUE(left->Ping(&patience));
  EXPECT_EQ(log.text,
            "SEND: Ping: \nRECV: Ping: \nSEND: Urgent: id:0x3\nSEND: Question: text:\"why\"\n"
            "RECV: Urgent: id:0x3\nRECV: Question: text:\"why\"\n"
            "REPLY: Question: answer:\"/because\"\nREPLY: Ping: \n");
}

// What arrives is traced as what was sent. The random versions of interfaces hold the values
// themselves against each other.
TEST_F(SampleTest, TracesShowWhatIsGivenAndTheSameArrives) {
  KeepingLog sent, taken;
  left->setLogs(&sent);
  right->setLogs(&taken);
  const std::vector<const char*> marks = {"a"};
  Left::Figure_block block;
  block.corner = {0.5, 2, nullptr};
  block.id = 0x100000000;
  block.marks = arrayOf(marks);
  left->Figure("t", block, 1);
  left->Scalars(true, 0xFFFF, -1, 4, 0.5F, 0.25, nullptr, "/x");
  EXPECT_EQ(sent.text,
            "SEND: Figure: title:\"t\", block:{closed:0x0 corner:{x:0.5 y:2 name:\"\"} count:0x1 "
            "id:0x100000000 marks:\"a\", }, after:0x1\n"
            "SEND: Scalars: id:0x1, wait:0xffff, status:0xffffffff, busy:0x4, packet:0.5, in:0.25, "
            "reply:\"\", tag:\"/x\"\n");
  const std::vector<std::uint8_t> bytes = {0, 255};
  const std::vector<std::uint16_t> shorts = {0xFFFF, 1};
  const std::vector<std::int32_t> words = {-1, 7};
  const std::vector<std::uint64_t> longs = {UINT64_MAX, 1};
  const std::vector<float> floats = {0.5F, -3};
  const std::vector<double> doubles = {-0.0, 1e300};
  left->Pointers(arrayOf(bytes), arrayOf(shorts), {-4, nullptr}, arrayOf(longs), arrayOf(floats),
                 arrayOf(doubles), 5, arrayOf(marks), {});
  left->Packed(arrayOf(bytes), arrayOf(shorts), arrayOf(words), arrayOf(longs), arrayOf(floats),
               arrayOf(doubles));
  left->Packed({}, {}, {}, {}, {}, {});
  left->Names(1, "2", {3, true, 4, {}, arrayOf(marks)});
  left->Nothing();
  pair.pump();
  EXPECT_THAT(sent.text, HasSubstr("Nothing: \n"));
  sent.text.replace(sent.text.find("0xfffffffc"), 10, "0x0");  // no elements are sent for that
  for (std::size_t at = 0; (at = taken.text.find("RECV", at)) != std::string::npos;)
    taken.text.replace(at, 4, "SEND");
  EXPECT_EQ(taken.text, sent.text);
}

}  // namespace
