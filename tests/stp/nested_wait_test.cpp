// What comes on other links while handlers wait inside each other: all of it is served afterwards,
// once and in order.
#include <algorithm>
#include <array>

#include "stp/pair.h"

namespace {

constexpr std::size_t kLinks = 6;

// Peer `a` sends texts and answers questions; `b` is the end under test.
struct Link {
  void send(const std::string& text) {
    sent.push_back(text);
    pair.a->enqueueMessage(*textMessage(*pair.a, STP_BINARY, text));
    pair.a->handleWrite();
  }
  void sendNext() {
    const std::size_t number = sent.size();
    send(std::to_string(number) + std::string(number % 5 == 4 ? 40000 : number % 7 * 100, 'n'));
  }

  Pair pair = socketPair();
  Recorder inbox, questions;
  std::vector<std::string> sent;
};

// The parameter: whether a wait serves all links or only its own.
class NestedWait : public testing::TestWithParam<bool> {
 protected:
  NestedWait() {
    for (std::size_t i = 0; i < kLinks; ++i) {
      Link& link = links[i];
      all.insert(link.pair.b.get());
      link.pair.b->addListener(2, 1, &link.inbox, STP_BINARY);
      link.pair.a->addListener(1, 2, &link.questions, STP_BINARY);
      link.inbox.then = [this, &link, i](STPReceivedMessage&) {
        if (link.inbox.texts.back() != "ask") return;
        call(links[(i + 1) % kLinks]);
        // Also what the outer steps have read and not served yet.
        EXPECT_TRUE(!GetParam() || awaitAll());
      };
      // Before it answers it has the next link called.
      link.questions.then = [this, &link](STPReceivedMessage& question) {
        for (int k = 0; k < 3; ++k) link.sendNext();
        if (++calls < kLinks - 1) link.send("ask");
        link.sendNext();
        link.pair.a->enqueueMessage(*link.pair.a->newResponse(2, 1, question.header.sequence, 0));
      };
    }
  }

  // Lets the peer of a link go on, and brings traffic on all links.
  struct Retry : RetryHandler {
    Retry(NestedWait& test, Link& waiting) : owner(test), link(waiting) {}
    bool shouldRetry() override { return ++rounds < 50000; }
    void wait() override {
      if (rounds < 3)
        for (Link& any : owner.links) any.sendNext();
      link.pair.a->serviceOnce(0);
      if (GetParam())
        serviceFirst(0, owner.all);
      else
        link.pair.b->serviceOnce(0);
    }
    NestedWait& owner;
    Link& link;
    int rounds = 0;
  };

  // Every other question is more than sockets hold, so that its write waits too.
  void call(Link& link) {
    STPTransport& end = *link.pair.b;
    const auto question = end.newMessage(1, 2, STP_BINARY, 7, STP_WANTS_RESPONSE);
    question->putString(1, std::string(calls % 2 ? 12 << 20 : 5, 'q').c_str());
    Retry writing(*this, link), reading(*this, link);
    const std::uint32_t sequence = end.sendMessage(*question, &writing);
    EXPECT_TRUE(end.awaitResponse(sequence, &reading)) << end.status().message;
  }

  bool awaitAll() {
    const auto isComplete = [](const Link& link) {
      return link.inbox.texts.size() >= link.sent.size();
    };
    for (int step = 0; step < 500; ++step) {
      if (std::ranges::all_of(links, isComplete)) return true;
      serviceFirst(20, all);
    }
    return false;
  }

  std::array<Link, kLinks> links;
  STPTransportSet all;
  std::size_t calls = 0;
};

TEST_P(NestedWait, LosesNothingOfAnyLink) {
  for (std::size_t first = 0; first < kLinks; ++first) {
    SCOPED_TRACE(first);
    for (int i = 0; i < 3; ++i) serviceFirst(0, all);  // all are idle now
    calls = 0;
    links[first].send("ask");
    for (Link& link : links) link.sendNext();
    awaitAll();
    serviceFirst(0, all);  // brings nothing a second time
    EXPECT_EQ(calls, kLinks - 1);
    for (Link& link : links) {
      ASSERT_TRUE(link.inbox.texts == link.sent)
          << link.inbox.texts.size() << " of " << link.sent.size();
      link.inbox.texts.clear();
      link.questions.texts.clear();
      link.sent.clear();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ByOneOrAll, NestedWait, testing::Bool());

}  // namespace
