#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bridge/session_pair.h"

namespace bridge_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t kLiveness = 15000;

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

Bytes messageOf(MessageHead head, const Bytes& frames = {}) {
  Bytes message(kMessageHeadSize);
  head.session = 77;
  writeMessageHead(message.data(), head);
  message.insert(message.end(), frames.begin(), frames.end());
  return message;
}

Bytes frameOf(int kind, std::size_t size, std::uint32_t link = 3) {
  Bytes frame(kFrameHeadSize + size);
  writeFrameHead(frame.data(), static_cast<FrameKind>(kind), link, size);
  return frame;
}

TEST(Session, FramesShareAMessageToTheByte) {
  SessionPair pair;
  pair.first.send(FrameKind::credit, 2, Bytes{1, 2, 3, 4});
  pair.first.send(FrameKind::data, 3, bytesOf("ab"), 2);
  pair.first.send(FrameKind::data, 3, bytesOf("c"), 1);
  pair.first.flush(0);
  EXPECT_THAT(pair.ends[0].out,
              ElementsAre(Bytes{77, 0, 0, 0, 0, 0, 0, 0, 1, 0,   0,   0,  0, 0, 0, 0, 1, 0, 0,  //
                                0,  0, 0, 0, 0, 0, 0, 4, 0, 1,   0,   0,  0,                    //
                                4,  4, 0, 0, 0, 2, 0, 0, 0, 1,   2,   3,  4,                    //
                                3,  3, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c'}));
  // Ten thousand small frames: as few messages as they fit in, and no larger than is allowed.
  pair.ends[0].out.clear();
  for (int i = 0; i < 10000; ++i)
    pair.first.send(FrameKind::data, static_cast<std::uint32_t>(i % 2), bytesOf("0123456789"), 10);
  pair.first.flush(0);
  EXPECT_THAT(pair.ends[0].out, SizeIs(2));
  EXPECT_LE(pair.ends[0].out[0].size(), SessionOptions().maxMessage);
  EXPECT_FALSE(pair.first.send(FrameKind::open, 1, Bytes(kMaxBody + 1)));
}

TEST(Frames, BodiesComeBackAndNothingElseIsTaken) {
  OpenBody open{
      7, -1, OpenBody::kMayStart, "Search", std::nullopt, "/home", {"k", "", std::nullopt}};
  Bytes bytes = bodyOf(open);
  OpenBody read;
  ASSERT_TRUE(readBody({FrameKind::open, 1, bytes.data(), bytes.size()}, read));
  EXPECT_EQ(bodyOf(read), bytes);
  EXPECT_EQ(read.pairs, open.pairs);
  for (std::size_t size = 0; size < bytes.size(); ++size)
    EXPECT_FALSE(readBody({FrameKind::open, 1, bytes.data(), size}, read)) << size;
  bytes.push_back(0);
  EXPECT_FALSE(readBody({FrameKind::open, 1, bytes.data(), bytes.size()}, read));
  open.service = std::string("a\0b", 3);
  bytes = bodyOf(open);
  EXPECT_FALSE(readBody({FrameKind::open, 1, bytes.data(), bytes.size()}, read));
  // A count of texts that nothing stands behind.
  bytes = bodyOf(ValuedBody{5, "v"});
  ValuedBody value;
  EXPECT_TRUE(readBody({FrameKind::valued, 1, bytes.data(), bytes.size()}, value));
  bytes = Bytes(25, 0xFF);
  bytes[8] = 0;
  EXPECT_FALSE(readBody({FrameKind::open, 1, bytes.data(), bytes.size()}, read));
}

// Whatever the carrier does, and however often it is away, what comes is what was sent.
TEST(Session, StreamsArriveInOrderAndOnce) {
  for (unsigned seed = 1; seed <= 9; ++seed) {
    SessionPair pair({15, 10, seed % 3 == 0 ? 1 : 30}, seed);
    std::map<std::uint32_t, std::string> sent[2];
    for (int turn = 0; turn < 3000; ++turn) {
      for (const std::size_t side : {0, 1}) {
        if (!pair.chance(10) || pair.ends[side].isHeld) continue;
        std::string piece(1 + pair.random() % (pair.chance(3) ? 400000 : 300), '\0');
        for (char& byte : piece) byte = static_cast<char>(pair.random());
        const auto link = static_cast<std::uint32_t>(pair.random() % 3);
        sent[side][link] += piece;
        pair.session(side).send(FrameKind::data, link, bytesOf(piece), piece.size());
        pair.ends[side].isHeld = !pair.session(side).hasRoom();
      }
      if (turn % 500 == 250) pair.session(turn % 2).setWindow(turn % 1000 < 500 ? 0 : 1 << 20);
      if (turn % 1000 == 300) pair.setUp(seed % 2, false);
      if (turn % 1000 == 700) pair.setUp(seed % 2, true);
      pair.turn();
    }
    pair.run(120000);
    EXPECT_FALSE(pair.ends[0].isHeld || pair.ends[1].isHeld);
    for (const std::size_t side : {0, 1}) {
      EXPECT_TRUE(pair.ends[1 - side].streams == sent[side]) << "seed " << seed;
      EXPECT_THAT(pair.ends[side].ends, IsEmpty());
      const SessionCounters& counters = pair.session(side).counters();
      EXPECT_EQ(counters.sentBytes, pair.session(1 - side).counters().receivedBytes);
      EXPECT_GT(counters.resentMessages, 0u);
      EXPECT_GT(counters.droppedMessages, 0u);
    }
  }
}

TEST(Session, EndsOnBothSidesAfterTooLongACut) {
  SessionPair pair;
  pair.first.send(FrameKind::data, 1, bytesOf("x"), 1);
  pair.run(100);
  pair.setUp(0, false);
  pair.first.send(FrameKind::data, 1, bytesOf("y"), 1);
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
}

TEST(Session, AcknowledgesWithWhatGoesBackAndRestsWhenAllHasCome) {
  SessionPair pair;
  for (int i = 0; i < 500; ++i) {  // a question and its answer
    pair.first.send(FrameKind::data, 1, bytesOf("?"), 1);
    pair.turn();
    pair.second.send(FrameKind::data, 1, bytesOf("!"), 1);
    pair.turn();
  }
  EXPECT_EQ(pair.first.counters().receivedMessages, 499u);  // and one on its way
  EXPECT_THAT(pair.way, SizeIs(1));
  pair.first.send(FrameKind::data, 1, bytesOf("?"), 1);
  pair.turn();
  pair.turn();
  EXPECT_EQ(pair.second.step(pair.now), 20);
  pair.run(18);
  EXPECT_THAT(pair.way, IsEmpty());
  pair.run(2);
  EXPECT_THAT(pair.way, SizeIs(1));  // the acknowledgement
  pair.run(100);
  EXPECT_THAT(pair.way, IsEmpty());
  EXPECT_GT(pair.first.step(pair.now), kLiveness - 200);
  EXPECT_GT(pair.second.step(pair.now), kLiveness - 200);
  // Much without an answer isn't kept waiting for the timer.
  for (int i = 0; i < 64; ++i) {
    pair.first.send(FrameKind::data, 1, bytesOf("?"), 1);
    pair.first.flush(pair.now);
  }
  pair.turn();
  pair.turn();
  EXPECT_THAT(pair.way, SizeIs(1));
}

TEST(Session, WhatIsOldOrEarlyChangesNothing) {
  SessionPair pair;
  std::vector<Bytes> seen;
  for (int i = 0; i < 5; ++i) {
    pair.first.send(FrameKind::data, 1, bytesOf("a"), 1);
    pair.first.flush(pair.now);
    seen.push_back(pair.ends[0].out.back());
    pair.run(3);
  }
  pair.run(50);
  for (int round = 0; round < 3; ++round)
    for (Bytes message : seen) pair.second.take(message.data(), message.size(), pair.now);
  EXPECT_EQ(pair.ends[1].streams[1], "aaaaa");
  EXPECT_EQ(pair.second.counters().droppedMessages, 15u);
  // Whoever asks for all again, again and again, gets it at a measured pace.
  pair.second.send(FrameKind::data, 1, bytesOf("b"), 1);
  pair.second.flush(pair.now);
  for (int i = 0; i < 1000; ++i) {
    Bytes message = messageOf({0, 6, 1, 65536, kNak});
    pair.second.take(message.data(), message.size(), pair.now);
    pair.second.flush(pair.now);
  }
  EXPECT_EQ(pair.second.counters().resentMessages, 1u);
  Bytes early = messageOf({0, 9, 1, 65536, 0}, frameOf(3, 1));
  for (int i = 0; i < 10; ++i) pair.second.take(early.data(), early.size(), pair.now);
  pair.ends[1].out.clear();
  pair.second.flush(pair.now);
  pair.second.flush(pair.now);
  EXPECT_THAT(pair.ends[1].out, SizeIs(1));
  EXPECT_EQ(pair.ends[1].streams[1], "aaaaa");
}

TEST(Session, EndsWithWhatBreaksARule) {
  const MessageHead good{0, 1, 1, Session::kMinWindow, 0};
  const auto with = [&](auto change) {
    MessageHead head = good;
    change(head);
    return messageOf(head);
  };
  Bytes cut = messageOf(good, frameOf(3, 5));
  cut.pop_back();
  Bytes reserved = messageOf(good);
  reserved[30] = 1;
  const std::vector<Bytes> bad = {
      Bytes(31),
      reserved,
      cut,
      with([](auto& head) { head.flags = 8; }),
      with([](auto& head) { head.ack = 2; }),
      with([](auto& head) { head.ack = ~0ull; }),
      with([](auto& head) { head.window = Session::kMinWindow - 1; }),
      messageOf(good, frameOf(0, 1)),
      messageOf(good, frameOf(8, 1)),
      messageOf(good, frameOf(2, 6)),  // an answer to who has not asked
      messageOf(good, frameOf(1, kMaxBody + 1)),
      messageOf(good, frameOf(3, Session::kStartWindow - kFrameHeadSize + 1))};
  for (const Bytes& original : bad) {
    SessionPair pair;
    Bytes message = original;
    pair.second.take(message.data(), message.size(), 0);
    EXPECT_THAT(pair.ends[1].ends, SizeIs(1));
    EXPECT_EQ(pair.ends[1].frames, 0);
    ASSERT_THAT(pair.ends[1].out, SizeIs(1));
    EXPECT_EQ(pair.ends[1].out[0][28], kReset);
    // The other side ends with it.
    pair.first.take(pair.ends[1].out[0].data(), kMessageHeadSize, 0);
    EXPECT_THAT(pair.ends[0].ends, ElementsAre("ended by first"));
    EXPECT_THAT(pair.ends[0].out, IsEmpty());
  }
  SessionPair pair;  // and at the edge of what is allowed it doesn't
  for (Bytes message : {messageOf(good, frameOf(3, Session::kStartWindow - kFrameHeadSize)),
                        messageOf({0, 2, 1, Session::kMinWindow, kFirst}, frameOf(3, 0))}) {
    pair.second.take(message.data(), message.size(), 0);
    pair.second.flush(0);
  }
  EXPECT_EQ(pair.ends[1].frames, 2);
  EXPECT_THAT(pair.ends[1].ends, IsEmpty());
}

TEST(Session, MakesItsSenderWaitAndKeepsToItsMemory) {
  SessionPair pair;
  const std::string piece(100000, 'x');
  std::size_t sent = 0;
  const auto fill = [&] {
    for (; pair.first.hasRoom(); sent += piece.size())
      pair.first.send(FrameKind::data, 1, bytesOf(piece), piece.size());
  };
  fill();
  EXPECT_LE(sent, 2 * Session::kStartWindow + piece.size());
  pair.first.flush(0);
  std::size_t underWay = 0;
  for (const Bytes& message : pair.ends[0].out) underWay += message.size() - kMessageHeadSize;
  EXPECT_LE(underWay, Session::kStartWindow);
  // A wider window comes with the next message of the other side.
  pair.second.setWindow(4 << 20);
  pair.run(3);
  fill();
  EXPECT_GT(sent, 4u << 20);
  pair.run(100);
  EXPECT_EQ(pair.ends[1].streams[1].size(), sent);
  // Who makes us answer but takes no answer is left.
  for (int i = 0; i < 300; ++i) pair.second.send(FrameKind::valued, 1, Bytes(kMaxBody));
  pair.second.flush(pair.now);
  EXPECT_THAT(pair.ends[1].ends, ElementsAre("too much waits for second"));
}

// Any bit of any message may be another. (Frames are not summed up: what carries them sees to
// that.)
TEST(Session, GarbledMessagesDoNoHarm) {
  for (unsigned round = 0; round < 400; ++round) {
    SessionPair pair({}, round);
    for (int i = 0; i < 4; ++i) {
      pair.first.send(FrameKind::open, 1, bodyOf(OpenBody{}));
      pair.first.send(FrameKind::data, 1, Bytes(1 + pair.random() % 100));
      pair.first.flush(pair.now);
      for (Bytes& message : pair.ends[0].out)
        message[pair.random() % message.size()] ^= static_cast<unsigned char>(1 << round % 8);
      pair.run(2);
    }
    EXPECT_LE(pair.ends[1].ends.size(), 1u);
  }
}

}  // namespace
}  // namespace bridge_test
