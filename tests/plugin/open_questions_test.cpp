// Questions that wait for their answers.
#include "hublink_plugin/open_questions.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Handler = std::function<void(const std::string& answer)>;

class OpenQuestionsTest : public testing::Test {
 protected:
  static void fail(const Handler& tell, NoAnswer reason) {
    tell(reason == NoAnswer::timedOut ? "-" : "!");
  }
  Handler as(const std::string& name) {
    return [this, name](const std::string& answer) { heard += name + answer; };
  }

  TimedCalls time;
  std::string heard;
  OpenQuestions<int, Handler> numbered{time, fail};
  OpenQuestions<InTurn, Handler> inTurn{time, fail};
};

TEST_F(OpenQuestionsTest, EachIsToldOnceAndALateAnswerIsNobodyElses) {
  numbered.ask(2, as("a"), -1);
  numbered.ask(1, as("b"), 0);
  numbered.ask(2, as("c"), 10000);
  numbered.ask(3, as("d"), 0);
  numbered.ask(4, nullptr, 0);
  EXPECT_TRUE(numbered.giveUp(3));
  time.callDue();
  EXPECT_EQ(heard, "b-");
  EXPECT_FALSE(numbered.answer(1, "x") || numbered.answer(3, "x") || numbered.giveUp(1));
  EXPECT_TRUE(numbered.answer(2, "1") && numbered.answer(2, "2"));
  EXPECT_EQ(heard, "b-a1c2");
  EXPECT_EQ(time.next(), -1) << "no limit is left of one that was answered";

  heard.clear();
  inTurn.ask({}, as("a"), 0, as("late"));
  inTurn.ask({}, as("b"), -1);
  inTurn.ask({}, nullptr, -1, as("unheard"));
  time.callDue();
  EXPECT_FALSE(inTurn.answer({}, "1"));
  EXPECT_TRUE(inTurn.answer({}, "2"));
  EXPECT_FALSE(inTurn.answer({}, "3") || inTurn.answer({}, "4"));
  EXPECT_EQ(heard, "a-late1b2unheard3");
}

TEST_F(OpenQuestionsTest, WhatIsAskedWhileTheEndIsToldStaysOpen) {
  inTurn.ask({}, as("late"), 0, as("undone"));
  time.callDue();
  inTurn.ask(
      {},
      [&](const std::string& answer) {
        heard += answer;
        inTurn.ask({}, as("new"), 10000);
      },
      10000);
  inTurn.takeAll()();
  EXPECT_EQ(heard, "late-!");
  EXPECT_NE(time.next(), -1);
  EXPECT_TRUE(inTurn.answer({}, "?"));
  EXPECT_EQ(heard, "late-!new?");
  EXPECT_EQ(time.next(), -1);
}

}  // namespace
