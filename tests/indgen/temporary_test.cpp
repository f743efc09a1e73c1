#include "indgen/temporary.h"

#include <gtest/gtest.h>

#include <charconv>

#include "indgen/find.h"
#include "platform/process.h"
#include "scratch.h"

namespace {

namespace fs = std::filesystem;

class TemporaryTest : public testing::Test {
 protected:
  TemporaryTest() { gen_temporary_directory(scratch.path().c_str()); }
  // Each variable back to what it was, and the remembered directory to what follows from them.
  ~TemporaryTest() override {
    for (const char* name : {"TEMP", "TMPDIR", "BUILDER_TEMPORARY_NAME"}) gen_setenv(name, nullptr);
    gen_temporary_directory("/tmp");
  }

  const Scratch scratch;
};

TEST_F(TemporaryTest, DirectoryIsTheFirstUsable) {
  for (const char* name : {"temp", "own"}) fs::create_directory(scratch / name);
  gen_setenv("TMPDIR", scratch.path().c_str());
  const std::string own = scratch / "own";
  EXPECT_STREQ(gen_temporary_directory("/no/such"), scratch.path().c_str());
  EXPECT_EQ(gen_temporary_directory(own.c_str()), own);
  gen_setenv("TEMP", (scratch / "temp").c_str());
  EXPECT_EQ(gen_temporary_directory(nullptr), own) << "remembered";
  EXPECT_EQ(gen_temporary_directory(own.c_str()), scratch / "temp");
}

TEST_F(TemporaryTest, NamesShareAStemAndSkipTakenOnes) {
  gen_text first, second;
  const char* directory = scratch.path().c_str();
  ASSERT_TRUE(gen_temporary_name(directory, first, ".c", &second, "obj"));
  const std::string stem = fs::path(first.get()).stem();
  EXPECT_EQ(second.get(), scratch / (stem + ".obj"));
  // The process id and then the number, both in base 32.
  char id[8] = "";
  std::to_chars(id, id + 7, platform::currentProcess(), 32);
  EXPECT_EQ(stem.rfind(std::string("kv_") + id, 0), 0u) << stem;
  gen_setenv("BUILDER_TEMPORARY_NAME", "given");
  EXPECT_EQ(gen_temporary_name(directory, first, "c"), scratch / "given.c");
  scratch.write("given.c", "");
  EXPECT_NE(gen_temporary_name(directory, first, "c"), scratch / "given.c");
}

TEST_F(TemporaryTest, UniqueNamesCountUpAndRunOut) {
  const std::string first = gen_unique_name(scratch.path().c_str()).get();
  ASSERT_EQ(first.substr(first.size() - 8, 2), "kv");
  const std::string stem = first.substr(0, first.size() - 2);
  EXPECT_EQ(first, stem + "aa");
  const std::string order = "abcdefghijklmnopqrstuvwxyz0123456789";
  for (const char high : order) {
    EXPECT_EQ(gen_make_unique_directory(scratch.path().c_str(), 0700).get(), stem + high + 'a');
    for (const char low : order) scratch.write(fs::path(stem + high + low).filename(), "");
  }
  EXPECT_STREQ(gen_unique_name(scratch.path().c_str()), nullptr);
}

}  // namespace
