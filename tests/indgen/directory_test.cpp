#include "indgen/directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scratch.h"

namespace {

namespace fs = std::filesystem;
using testing::UnorderedElementsAre;

std::vector<std::string> namesOf(gen_dir_walker& walker) {
  std::vector<std::string> names;
  while (gen_walk_next(walker)) names.emplace_back(walker.name);
  return names;
}

TEST(Directory, MakesAndKnowsDirectories) {
  const Scratch scratch;
  const std::string deep = scratch / "a/b//c/", file = scratch.write("file", "");
  for (const std::string& path : {deep, deep, scratch / "x:y/z"})
    EXPECT_EQ(gen_make_directory_path(path.c_str(), 0755), 0);
  EXPECT_TRUE(gen_is_directory(deep.c_str()));
  EXPECT_FALSE(fs::exists(scratch / "x:")) << "no drive";
  EXPECT_EQ(gen_make_directory_path((file + "/x").c_str(), 0755), -1);
  EXPECT_FALSE(gen_is_directory(file.c_str()) || gen_is_directory(nullptr));
}

TEST(Directory, WalksAndLists) {
  const Scratch scratch;
  for (const char* name : {"sub", "CVS"}) fs::create_directory(scratch / name);
  for (const char* name : {"a.kvs", "B.KVS", "c.txt"}) scratch.write(name, "");
  gen_dir_walker walker;
  EXPECT_FALSE(gen_walk_open(walker, (scratch / "a.kvs").c_str()));
  const auto open = [&] { return gen_walk_open(walker, (scratch.path() + "/").c_str()); };

  ASSERT_TRUE(open());
  EXPECT_THAT(namesOf(walker), UnorderedElementsAre("sub", "CVS", "a.kvs", "B.KVS", "c.txt"));
  ASSERT_TRUE(open());
  gen_walk_filter_files(walker, false, ".kvs");
  gen_walk_filter_directories(walker, true, true, false);
  EXPECT_THAT(namesOf(walker), UnorderedElementsAre("a.kvs", "B.KVS"));
  ASSERT_TRUE(open());
  gen_walk_filter_files(walker, true, nullptr);
  gen_walk_filter_directories(walker, false, false, true);
  EXPECT_THAT(namesOf(walker), UnorderedElementsAre(".", "..", "sub"));
}

// Names that read as drives or paths must lead to their own files, and links must not be followed.
TEST(Directory, RemovesNothingOutsideTheTree) {
  const Scratch scratch;
  const fs::path before = fs::current_path();
  fs::current_path(scratch.path());
  fs::create_directories("tree/in/deep");
  fs::create_directory("outside");
  for (const char* name : {"outside/kept", "b", "a:b", "tree/a:b", "tree/in/x\\b", "tree/~b"})
    scratch.write(name, "");
  fs::create_directory_symlink("../outside", "tree/link");
  fs::create_directory_symlink("outside", "link");
  EXPECT_EQ(gen_empty_directory("tree"), 0);
  EXPECT_TRUE(fs::is_empty("tree"));
  EXPECT_EQ(gen_remove_tree("tree/"), 0);
  EXPECT_EQ(gen_remove_tree("link/"), 0);
  EXPECT_FALSE(fs::exists("tree") || fs::is_symlink("link"));
  EXPECT_TRUE(fs::exists("outside/kept") && fs::exists("a:b") && fs::exists("b"));
  fs::current_path(before);
}

}  // namespace
