// Both generated sides of the sample interface, against each other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>
#include <vector>

#include "indgen/find.h"
#include "sample_left_impl.h"
#include "sample_right_impl.h"
#include "stpc/in_process.h"

namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsNull;
using ::testing::StrEq;
using ::testing::StrictMock;

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

template <class T>
std::vector<T> copyOf(const STPArray<T>& array) {
  return {array.data, array.data + array.count};
}

// An array of each kind, with the ends of what it may hold.
template <class... T>
class ArraysOf {
 public:
  void give(auto send) const {
    std::apply([&](const auto&... each) { send(arrayOf(each)...); }, all_);
  }
  void expectEqual(auto... got) const { EXPECT_EQ(std::tuple(copyOf(got)...), all_); }

 private:
  template <class Element, class Limits = std::numeric_limits<Element>>
  static std::vector<Element> extremes() {
    return {Limits::lowest(), Element{}, Element{1}, Limits::max()};
  }
  const std::tuple<std::vector<T>...> all_{extremes<T>()...};
};
using Arrays = ArraysOf<std::uint8_t, std::uint16_t, std::int32_t, std::uint64_t, float, double>;

class SampleTest : public ::testing::Test {
 protected:
  SampleTest() {
    pair.join(*left, *right);
    EXPECT_TRUE(left->isNegotiated() && right->isNegotiated());
  }

  InProcessPair pair;
  CountedPtr<StrictMock<Left>> left = makeCounted<StrictMock<Left>>();
  CountedPtr<StrictMock<Right>> right = makeCounted<StrictMock<Right>>();
};

TEST_F(SampleTest, ScalarsArriveAtTheEndsOfTheirRanges) {
  const gen_text absolute = gen_absolute_path("here/file");
  EXPECT_CALL(*right,
              Scalars(true, 0xFFFF, -1, UINT64_MAX, std::numeric_limits<float>::lowest(),
                      std::numeric_limits<double>::max(), StrEq(""), StrEq(absolute.get())));
  left->Scalars(true, 0xFFFF, -1, UINT64_MAX, std::numeric_limits<float>::lowest(),
                std::numeric_limits<double>::max(), "", "here/file");
  EXPECT_CALL(*right,
              Scalars(false, 0x0102, std::numeric_limits<std::int32_t>::min(), 0x0102030405060708,
                      std::numeric_limits<float>::denorm_min(), -0.0, IsNull(), IsNull()))
      .WillOnce([](auto, auto, auto, auto, auto, double zero, auto, auto) {
        EXPECT_TRUE(std::signbit(zero));
      });
  left->Scalars(false, 0x0102, std::numeric_limits<std::int32_t>::min(), 0x0102030405060708,
                std::numeric_limits<float>::denorm_min(), -0.0, nullptr, nullptr);
  EXPECT_CALL(*right, Names(1, StrEq("2"), _)).WillOnce([](auto, auto, const auto& got) {
    EXPECT_TRUE(got.STPArray_ == 3 && got.std_ && got.StringArray_ == 4);
  });
  left->Names(1, "2", {3, true, 4, {}, {}});
  EXPECT_CALL(*right, Nothing());
  left->Nothing();
  pair.pump();
}

TEST_F(SampleTest, NestedBlocksArriveWithTheFieldsBehindThem) {
  const std::vector<const char*> marks = {"a", nullptr, "", "bcd"};
  Left::Figure_block block;
  block.closed = true;
  block.corner = {0.5, -2.25, "top"};
  block.id = 77;
  block.marks = arrayOf(marks);
  EXPECT_CALL(*right, Figure(StrEq("square"), _, 12))
      .WillOnce([](auto, const Right::Figure_block& got, auto) {
        EXPECT_TRUE(got.closed);
        EXPECT_EQ(got.corner.x, 0.5);
        EXPECT_EQ(got.corner.y, -2.25);
        EXPECT_STREQ(got.corner.name, "top");
        EXPECT_EQ(got.id, 77u);
        EXPECT_THAT(copyOf(got.marks), ElementsAre(StrEq("a"), IsNull(), StrEq(""), StrEq("bcd")));
      });
  left->Figure("square", block, 12);
  EXPECT_CALL(*right, Figure(IsNull(), _, -3)).WillOnce([](auto, const auto& got, auto) {
    EXPECT_EQ(got.marks.count, 0);
    EXPECT_EQ(got.corner.name, nullptr);
  });
  left->Figure(nullptr, {}, -3);
  pair.pump();
}

TEST_F(SampleTest, ArraysOfEveryKindArriveFullAndEmpty) {
  const Arrays arrays;
  const std::vector<const char*> names = {"", nullptr, "name"};
  const std::vector<const char*> files = {"/a/../b", nullptr};
  EXPECT_CALL(*right, Pointers)
      .WillOnce([&](auto b, auto s, auto w, auto l, auto f, auto d, auto after, auto n, auto p) {
        arrays.expectEqual(b, s, w, l, f, d);
        EXPECT_EQ(after, 5);
        EXPECT_THAT(copyOf(n), ElementsAre(StrEq(""), IsNull(), StrEq("name")));
        EXPECT_THAT(copyOf(p), ElementsAre(StrEq("/b"), IsNull()));
      })
      .WillOnce([](auto b, auto, auto w, auto, auto, auto, auto after, auto n, auto p) {
        EXPECT_EQ(b.count + w.count + n.count + p.count, 0);
        EXPECT_EQ(after, 6);
      });
  arrays.give([&](auto... all) { left->Pointers(all..., 5, arrayOf(names), arrayOf(files)); });
  left->Pointers({}, {}, {-4, nullptr}, {}, {}, {}, 6, {}, {});
  EXPECT_CALL(*right, Packed)
      .WillOnce([&](auto... got) { arrays.expectEqual(got...); })
      .WillOnce([](auto... got) { EXPECT_EQ((got.count + ...), 0); });
  arrays.give([&](auto... all) { left->Packed(all...); });
  left->Packed({}, {}, {}, {}, {}, {});
  pair.pump();
}

TEST_F(SampleTest, CallsBringTheirRepliesBack) {
  PumpingHandler patience(pair);
  EXPECT_CALL(*right, Divide(7, 2, _, _, _, _, _, _, _, _))
      .WillOnce([](auto, auto, bool& fits, auto& half, auto& rest, auto& wide, auto& single,
                   auto& quotient, gen_text& remark, gen_text&) {
        fits = true;
        half = 0xABCD;
        rest = -1;
        wide = UINT64_MAX - 1;
        single = 3.5F;
        quotient = 1e300;
        remark = gen_absolute_path("/remark");
      });
  bool fits = false;
  std::uint16_t half = 0;
  std::int32_t rest = 0;
  std::uint64_t wide = 0;
  float single = 0;
  double quotient = 0;
  gen_text remark, none = gen_absolute_path("/old");
  ASSERT_TRUE(left->Divide(7, 2, &fits, &half, &rest, &wide, &single, &quotient, &remark, &none,
                           &patience));
  EXPECT_TRUE(fits && half == 0xABCD && rest == -1 && wide == UINT64_MAX - 1);
  EXPECT_TRUE(single == 3.5F && quotient == 1e300);
  EXPECT_STREQ(remark, "/remark");
  EXPECT_EQ(none.get(), nullptr);
  left->setTransport(nullptr);
  STPStatus status;
  EXPECT_FALSE(right->Question("anyone?", &remark, &patience, &status));
  EXPECT_EQ(status.code, STP_TIMEOUT);
  EXPECT_EQ(remark.get(), nullptr);
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

TEST_F(SampleTest, TracesShowBlocksAndTheValuesAsGiven) {
  KeepingLog log;
  left->setLogs(&log);
  const std::vector<const char*> marks = {"a"};
  Left::Figure_block block;
  block.corner = {0.5, 2, nullptr};
  block.id = 0x100000000;
  block.marks = arrayOf(marks);
  left->Figure("t", block, 1);
  left->Scalars(true, 2, -1, 4, 0.5F, 0.25, nullptr, "x");
  EXPECT_EQ(log.text,
            "SEND: Figure: title:\"t\", block:{closed:0x0 corner:{x:0.5 y:2 name:\"\"} count:0x1 "
            "id:0x100000000 marks:\"a\", }, after:0x1\n"
            "SEND: Scalars: id:0x1, wait:0x2, status:0xffffffff, busy:0x4, packet:0.5, in:0.25, "
            "reply:\"\", tag:\"x\"\n");
}

}  // namespace
