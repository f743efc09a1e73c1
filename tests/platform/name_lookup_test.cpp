#include "platform/name_lookup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "platform/process.h"
#include "platform/readiness.h"

namespace {

using namespace platform;

// More than there are threads, some given up, and the environment that they read changes.
TEST(NameLookup, ManyAreAnsweredInTurnAndEndTheWait) {
  std::vector<std::unique_ptr<NameLookup>> lookups;
  for (int i = 0; i < 300; ++i) {
    lookups.push_back(std::make_unique<NameLookup>(i % 2 == 0 ? "localhost" : "127.0.0.5"));
    NameLookup givenUp("localhost");
    const std::string name = "LOOKUP_" + std::to_string(i);
    for (const char* value : {"a", "b"}) setEnvironmentVariable(name.c_str(), value);
    if (i % 3 != 0) unsetEnvironmentVariable(name.c_str());
  }
  bool failed = false;
  const auto isOver = [](const auto& lookup) { return lookup->isOver(); };
  while (!std::all_of(lookups.begin(), lookups.end(), isOver)) {
    readiness().forgetNews();
    ASSERT_TRUE(readiness().wait(10000, failed) && readiness().hasNews());
  }
  for (std::size_t i = 0; i < lookups.size(); ++i)
    EXPECT_EQ(lookups[i]->address(), i % 2 == 0 ? 0x7F000001u : 0x7F000005u);
  EXPECT_STREQ(environmentVariable("LOOKUP_3"), "b");
  EXPECT_EQ(environmentVariable("LOOKUP_4"), nullptr);
}

}  // namespace
