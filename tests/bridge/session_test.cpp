#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bridge/session_pair.h"

namespace bridge_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

void sendText(Session& session, const std::string& text, std::uint32_t link = 1) {
  session.send(FrameKind::data, link, reinterpret_cast<const unsigned char*>(text.data()),
               text.size());
}

Bytes messageOf(MessageHead head, int kind = 0, std::size_t size = 0) {
  head.session = 77;
  Bytes message(kMessageHeadSize + (size > 0 ? kFrameHeadSize + size : 0));
  writeMessageHead(message.data(), head);
  if (size > 0)
    writeFrameHead(message.data() + kMessageHeadSize, static_cast<FrameKind>(kind), 1, size);
  return message;
}

TEST(Session, FramesShareAMessageToTheByte) {
  SessionPair pair;
  sendText(pair.first, "ab", 3);
  sendText(pair.first, "c", 3);
  pair.first.send(FrameKind::credit, 2, Bytes{1, 2, 3, 4});
  sendText(pair.first, "d", 3);
  pair.first.flush(0);
  EXPECT_THAT(pair.ends[0].out,
              ElementsAre(Bytes{77, 0, 0, 0, 0, 0, 0, 0, 1, 0,   0,   0,   0, 0, 0, 0,  //
                                1,  0, 0, 0, 0, 0, 0, 0, 0, 0,   4,   0,   1, 0, 0, 0,  //
                                3,  3, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c',              //
                                4,  4, 0, 0, 0, 2, 0, 0, 0, 1,   2,   3,   4,           //
                                3,  1, 0, 0, 0, 3, 0, 0, 0, 'd'}));
  for (std::uint32_t i = 0; i < 10000; ++i) sendText(pair.first, "0123456789", i % 2);
  pair.first.flush(0);
  EXPECT_THAT(pair.ends[0].out, SizeIs(3));
  EXPECT_LE(pair.ends[0].out[1].size(), SessionOptions().maxMessage);
  EXPECT_FALSE(pair.first.send(FrameKind::open, 1, Bytes(kMaxBody + 1)));
}

TEST(Frames, BodiesComeBackAndNothingElseIsTaken) {
  OpenBody open{7, -1, OpenBody::kMayStart, "Search", {}, "/home", {"k", "", {}}}, read;
  const auto isTaken = [&](Bytes bytes, std::size_t size) {
    return readBody({FrameKind::open, 1, bytes.data(), size}, read);
  };
  Bytes bytes = bodyOf(open);
  ASSERT_TRUE(isTaken(bytes, bytes.size()));
  EXPECT_EQ(bodyOf(read), bytes);
  EXPECT_EQ(read.pairs, open.pairs);
  for (std::size_t size = 0; size < bytes.size(); ++size) EXPECT_FALSE(isTaken(bytes, size));
  bytes.push_back(0);
  EXPECT_FALSE(isTaken(bytes, bytes.size()));
  Bytes counted(25, 0xFF);  // of texts that nothing stands behind
  counted[8] = 0;
  EXPECT_FALSE(isTaken(counted, counted.size()));
  open.service = std::string("a\0b", 3);
  bytes = bodyOf(open);
  EXPECT_FALSE(isTaken(bytes, bytes.size()));
}

// Whatever the carrier does, and however often it is away, what comes is what was sent.
TEST(Session, StreamsArriveInOrderAndOnce) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SessionPair pair({15, 10, 0, seed % 3 == 0 ? 1u : 30u}, seed);
    std::map<std::uint32_t, std::string> sent[2];
    for (int turn = 0; turn < 3000; ++turn) {
      for (const std::size_t side : {0, 1}) {
        if (!pair.chance(10) || pair.ends[side].isHeld) continue;
        std::string piece(1 + pair.below(pair.chance(3) ? 200000 : 300), '\0');
        for (char& byte : piece) byte = static_cast<char>(pair.random());
        const std::uint32_t link = pair.below(3);
        sent[side][link] += piece;
        sendText(pair.session(side), piece, link);
        pair.ends[side].isHeld = !pair.session(side).hasRoom();
      }
      if (turn % 500 == 250) pair.session(seed % 2).setWindow(turn % 1000 < 500 ? 1 << 20 : 0);
      if (turn % 1000 == 300 || turn % 1000 == 700) pair.setUp(seed % 2, turn % 1000 == 700);
      pair.turn();
    }
    const auto hasCome = [&] {
      return pair.ends[1].streams == sent[0] && pair.ends[0].streams == sent[1];
    };
    for (int i = 0; i < 6000 && !hasCome(); ++i) pair.run(100);
    EXPECT_TRUE(hasCome()) << "seed " << seed;
    pair.run(100);
    for (const std::size_t side : {0, 1}) {
      EXPECT_THAT(pair.ends[side].ends, IsEmpty());
      EXPECT_FALSE(pair.ends[side].isHeld);
      EXPECT_GT(pair.session(side).counters().resentMessages, 0u);
    }
  }
  // Garbled ones may say anything, or end it; the sanitizers see to the rest.
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SessionPair pair({0, 0, 50, 1}, seed);
    for (int i = 0; i < 20; ++i, pair.turn()) {
      pair.first.send(FrameKind::open, 1, bodyOf(OpenBody{}));
      sendText(pair.second, std::string(1 + pair.below(100), 'x'));
    }
    EXPECT_LE(pair.ends[0].ends.size() + pair.ends[1].ends.size(), 2u);
  }
}

TEST(Session, NoticesALossAndEndsOnBothSidesAfterTooLongACut) {
  SessionPair pair;
  const auto lose = [&](const std::string& text) {
    sendText(pair.second, text);
    pair.second.flush(pair.now);
    pair.ends[1].out.clear();
  };
  lose("k");
  sendText(pair.first, "x");  // with whose ack it is noticed
  pair.run(80);
  EXPECT_EQ(pair.ends[0].streams[1], "k");
  lose("l");
  sendText(pair.second, "m");
  pair.run(80);
  EXPECT_EQ(pair.ends[0].streams[1], "klm");
  for (const char* text : {"1", "2", "3"}) lose(text);  // which nothing else follows
  pair.run(1100);
  EXPECT_EQ(pair.ends[0].streams[1], "klm123");
  pair.setUp(0, false);
  lose("n");
  pair.setUp(0, true);
  pair.run(80);
  EXPECT_EQ(pair.ends[0].streams[1], "klm123n");
  pair.setUp(0, false);
  sendText(pair.first, "y");
  pair.run(10000);
  EXPECT_FALSE(pair.first.hasEnded());
  pair.run(1);
  EXPECT_THAT(pair.ends[0].ends, ElementsAre("without a connection for longer than the grace"));
  EXPECT_FALSE(pair.second.hasEnded());
  pair.run(5000);
  EXPECT_THAT(pair.ends[1].ends, ElementsAre("nothing was heard of second"));
  EXPECT_EQ(pair.ends[1].streams[1], "x");
  EXPECT_FALSE(pair.second.send(FrameKind::close, 1));
  EXPECT_EQ(pair.first.step(pair.now), -1);
  // Who has nothing to say says so: the other side may have lost the session, and not its end.
  SessionPair quiet;
  sendText(quiet.first, "x");
  quiet.run(3200);
  quiet.second.step(quiet.now + 3000);
  EXPECT_THAT(quiet.ends[1].out, ElementsAre(SizeIs(kMessageHeadSize)));
  EXPECT_FALSE(quiet.first.isAtRest(quiet.now));
  EXPECT_TRUE(quiet.first.isAtRest(quiet.now + 30000));
}

TEST(Session, AcknowledgesWithWhatGoesBackAndRestsWhenAllHasCome) {
  SessionPair pair;
  for (int i = 0; i < 200; ++i) {  // questions and their answers
    sendText(pair.session(i % 2 == 0 ? 0 : 1), "x");
    pair.turn();
  }
  EXPECT_THAT(pair.way, SizeIs(1));
  EXPECT_EQ(pair.first.counters().receivedMessages, 99u);
  pair.turn();
  EXPECT_EQ(pair.first.step(pair.now), 20);
  pair.run(19);
  EXPECT_THAT(pair.way, IsEmpty());
  pair.run(1);
  EXPECT_THAT(pair.way, SizeIs(1));  // the acknowledgement
  pair.run(100);
  for (const std::size_t side : {0, 1}) EXPECT_GT(pair.session(side).step(pair.now), 2800);
  // Much without an answer isn't kept waiting for the timer.
  for (int i = 0; i < 64; ++i) {
    sendText(pair.first, "x");
    pair.first.flush(pair.now);
  }
  pair.run(2);
  EXPECT_THAT(pair.way, SizeIs(1));
  pair.run(100);
  sendText(pair.first, std::string(65536, 'x'));
  pair.run(2);
  EXPECT_THAT(pair.way, SizeIs(1));
}

TEST(Session, TellsOfRoomAgainAlsoIfTheWindowHadTakenIt) {
  SessionPair pair;
  pair.ends[0].isUp = false;  // nothing leaves
  sendText(pair.first, std::string(400 << 10, 'x'));
  EXPECT_TRUE(pair.first.hasRoom());
  pair.ends[0].isHeld = true;
  for (const std::uint32_t window : {Session::kMinWindow, Session::kStartWindow}) {
    Bytes message = messageOf({0, 1, 1, window, 0});
    pair.first.take(message.data(), message.size(), 0);
    EXPECT_EQ(pair.first.hasRoom(), window == Session::kStartWindow);
  }
  pair.first.flush(0);
  EXPECT_FALSE(pair.ends[0].isHeld);
}

// What is only late isn't lost: copies would make a slow line slower.
TEST(Session, OpensItsWindowStepByStepAndSendsNoCopiesOnALateLine) {
  for (const auto& [late, resent, widest] :
       {std::tuple(450u, 0u, 2u << 20), std::tuple(1500u, 2u, Session::kStartWindow)}) {
    SessionPair pair({0, 0, 0, 1, late});
    pair.second.setWindow(Session::kMaxWindow);
    std::size_t most = 0;
    for (unsigned i = 0; i < 20000; ++i, pair.turn()) {
      while (pair.first.hasRoom()) sendText(pair.first, std::string(10000, 'x'));
      std::size_t underWay = 0;
      for (const auto& [due, message] : pair.way) underWay += message.second.size();
      if (i == 2 * late) {
        EXPECT_LE(most, Session::kStartWindow + resent * (1u << 16) + 1000);
      }
      most = std::max(most, underWay);
    }
    EXPECT_GE(most, widest);
    EXPECT_EQ(pair.first.counters().resentMessages, resent);
    EXPECT_EQ(pair.second.counters().droppedMessages, resent);
  }
}

TEST(Session, WhatIsOldOrEarlyChangesNothing) {
  SessionPair pair;
  const auto take = [&](Bytes message) {
    pair.second.take(message.data(), message.size(), pair.now);
  };
  for (int i = 0; i < 5; ++i) {
    sendText(pair.first, "a");
    pair.first.flush(pair.now);
    const Bytes message = pair.ends[0].out.back();
    pair.run(30);
    take(message);
    take(messageOf({0, 99, 1, Session::kMinWindow, 0}, 3, 1));
  }
  EXPECT_EQ(pair.ends[1].streams[1], "aaaaa");
  for (int i = 0; i < 3; ++i, pair.second.flush(pair.now))
    take(messageOf({0, 99, 1, Session::kMinWindow, 0}, 3, 1));
  EXPECT_THAT(pair.ends[1].out, SizeIs(1));  // it asks for what it lacks, once
  EXPECT_GE(pair.second.counters().droppedMessages, 10u);
  // Whoever asks for all again, again and again, gets it at a measured pace.
  sendText(pair.second, "b");
  pair.second.flush(pair.now);
  for (int i = 0; i < 1000; ++i) {
    take(messageOf({0, 6, 1, Session::kMinWindow, kNak}));
    pair.second.flush(pair.now);
  }
  EXPECT_LE(pair.second.counters().resentMessages, 1u);
  // And not any more once it has come.
  take(messageOf({0, 6, 2, Session::kMinWindow, 0}));
  sendText(pair.second, "c");
  pair.second.flush(pair.now);
  pair.second.step(pair.now + 500);
  EXPECT_LE(pair.second.counters().resentMessages, 1u);
  // Nor is more kept for it than the widest window, whatever it says.
  take(messageOf({0, 99, 3, ~0u, 0}));
  int pieces = 0;
  while (pieces < 20 && pair.second.hasRoom() && ++pieces)
    sendText(pair.second, std::string(1 << 20, 'x'));
  EXPECT_EQ(pieces, 9);
  // Whoever makes us answer but takes no answer is left.
  for (int i = 0; i < 300; ++i) pair.second.send(FrameKind::valued, 1, Bytes(kMaxBody));
  pair.second.flush(pair.now);
  EXPECT_THAT(pair.ends[1].ends, ElementsAre("too much waits for second"));
}

TEST(Session, EndsWithWhatBreaksARule) {
  const MessageHead good{0, 1, 1, Session::kMinWindow, 0};
  Bytes cut = messageOf(good, 3, 5), reserved = messageOf(good);
  cut.pop_back();
  reserved[30] = 1;
  const std::size_t most = Session::kStartWindow - kFrameHeadSize;
  for (Bytes message :
       {Bytes(31), reserved, cut, messageOf({0, 1, 1, Session::kMinWindow, 8}),
        messageOf({0, 1, 2, Session::kMinWindow, 0}), messageOf({0, 1, ~0ull, 1 << 20, 0}),
        messageOf({0, 1, 1, Session::kMinWindow - 1, 0}), messageOf(good, 0, 1),
        messageOf(good, 8, 1), messageOf(good, 2, 6),  // an answer to who has not asked
        messageOf(good, 1, kMaxBody + 1), messageOf(good, 3, most + 1)}) {
    SessionPair pair;
    pair.second.take(message.data(), message.size(), 0);
    EXPECT_THAT(pair.ends[1].ends, SizeIs(1));
    pair.second.end("twice", true);
    EXPECT_THAT(pair.ends[1].ends, SizeIs(1));
    EXPECT_EQ(pair.ends[1].frames, 0);
    ASSERT_THAT(pair.ends[1].out, SizeIs(1));
    pair.first.take(pair.ends[1].out[0].data(), kMessageHeadSize, 0);
    EXPECT_THAT(pair.ends[0].ends, ElementsAre("ended by first"));
    EXPECT_THAT(pair.ends[0].out, IsEmpty());
  }
  SessionPair pair;  // and not at the edge of what is allowed
  Bytes message = messageOf(good, 3, most);
  pair.second.take(message.data(), message.size(), 0);
  EXPECT_EQ(pair.ends[1].frames, 1);
  EXPECT_THAT(pair.ends[1].ends, IsEmpty());
}

}  // namespace
}  // namespace bridge_test
