// The examples of plugins in loops of others, each as its own program.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "hublink_plugin/hublink_plugin.h"
#include "support/hub_test.h"

namespace {

class LoopTest : public HubTest, public testing::WithParamInterface<std::string> {
 protected:
  // Starts the example, and asks it for a link.
  void SetUp() override {
    startHub();
    const std::vector<std::string> words = {"-hl_connect_hublink_port", std::to_string(port)};
    example = std::make_unique<HubProcess>(words, directory, 0, GetParam());
    std::string error;
    ASSERT_TRUE(requester.connect(port, error, "127.0.0.1", kPatience)) << error;
    ServiceQuery query;
    query.serviceName = "Digest";
    ASSERT_TRUE(await([&] {
      link = requester.requestService(query, kPatience).link;
      return link != nullptr;
    }));
    link->onPacket([this](const unsigned char* bytes, std::size_t size) {
      if (size == 1)
        ++beats;
      else
        digests.emplace_back(bytes, bytes + size);
    });
  }
  bool serveUntil(const std::function<bool()>& done) {
    return requester.serveUntil(done, kPatience);
  }

  std::unique_ptr<HubProcess> example;
  HublinkPlugin requester;
  std::shared_ptr<HublinkLink> link;
  std::vector<std::string> digests;
  int beats = 0;
};

TEST_P(LoopTest, ServesBesideATimerAndAThreadAndSleepsOtherwise) {
  ASSERT_TRUE(serveUntil([&] { return beats > 0; })) << "no timer as long as nobody asks";
  const std::string large(3 << 20, 'x');
  for (const std::string& text : {std::string(), std::string("a"), large})
    link->send(text.data(), text.size());
  ASSERT_TRUE(serveUntil([&] { return digests.size() == 3; }));
  EXPECT_EQ(digests[0], "cbf29ce484222325");
  EXPECT_EQ(digests[1], "af63dc4c8601ec8c");
  const int before = beats;
  for (std::size_t made = 4; made <= 54; ++made) {
    link->send("b", 1);
    ASSERT_TRUE(serveUntil([&] { return digests.size() == made; }));
  }
  EXPECT_LT(beats - before, 20) << "what wakes it is the timer alone";
  ASSERT_TRUE(serveUntil([&] { return beats >= before + 2; }));
  link->close();
  requester.countPlugins();
  EXPECT_EQ(example->waitForEnd(), 0);
  std::istringstream told(example->printed().substr(example->printed().find('\n') + 1));
  std::string word;
  int made = 0, timed = 0, steps = 0;
  told >> made >> word >> timed >> word >> steps;
  EXPECT_EQ(made, 54);
  EXPECT_GE(timed, beats);
  EXPECT_LT(steps, 10 * (made + timed) + 1000) << "it doesn't sleep";
}

TEST_P(LoopTest, EndsWithItsHub) {
  hub->terminate();
  EXPECT_EQ(hub->waitForEnd(), 0);
  hub.reset();
  EXPECT_EQ(example->waitForEnd(), 1);
}

std::vector<std::string> loops() {
  std::vector<std::string> all;
  std::istringstream list(LOOPS);
  for (std::string program; std::getline(list, program, ':');) all.push_back(program);
  return all;
}

INSTANTIATE_TEST_SUITE_P(Examples, LoopTest, testing::ValuesIn(loops()), [](const auto& example) {
  return std::filesystem::path(example.param).filename().string();
});

}  // namespace
