#include "libcxxutil/ut_attribute_list.h"

#include "cxxutil/reading.h"
#include "libcxxutil/ut_options_database.h"

namespace {

class AttributeListTest : public testing::Test {
 protected:
  static std::string names(const ut_attribute_list& list) {
    std::string result;
    for (const ut_attribute_list* at = list.first_child(); at; at = at->next_sibling())
      result += at->name();
    return result;
  }

  Scratch scratch;
  ut_attribute_list root{nullptr};
};

TEST_F(AttributeListTest, ChildrenKeepTheirOrder) {
  for (const char* name : {"b", "a", "b", "", "c"}) root.add_child(name);
  ut_attribute_list* first = root.find_child("b");
  EXPECT_EQ(first, root.first_child());
  EXPECT_EQ(root.find_or_add_child("b"), first);
  EXPECT_EQ(root.find_child(""), nullptr);
  first->add_child("x")->add_child("y");
  EXPECT_STREQ(root.find_child("b", "x", "y")->name(), "y");
  root.move_child_to_front("c");
  EXPECT_EQ(names(root), "cbab");
  root.remove_child("a", true);
  EXPECT_EQ(root.remove_child(root.find_child("c"), false)->parent(), nullptr);
  root.move_child_to_front("b");
  EXPECT_EQ(root.first_child()->next_sibling(), first);
  root.add_child("z");
  EXPECT_EQ(names(root), "bbz");
}

TEST_F(AttributeListTest, SortsByKeysAndThenByName) {
  const char* const rows[][3] = {
      {"a", "2", "x"}, {"b", nullptr, "x"}, {"c", "1", "y"}, {"d", "1", "x"}, {"B", "1", "x"}};
  for (const auto& [name, first, second] : rows) {
    ut_attribute_list* child = root.add_child(name);
    if (first) child->add_str("first", first);
    child->add_str("second", second);
  }
  root.sort_children("first", "second");
  EXPECT_EQ(names(root), "Bdcab");
}

TEST_F(AttributeListTest, CopiesStandAlone) {
  ut_attribute_list* a = root.add_child("a");
  a->add_int32("n", 1);
  a->set_str_list("l", "x");
  a->add_child("b")->add_child("c")->add_int32("m", 2);
  a->add_child("d");
  // A block may be copied into its own depths.
  ut_attribute_list* copy = a->find_child("b", "c")->copy_child(*a, true, "copy");
  a->append_str_list("l", "y");
  EXPECT_EQ(copy->full_name(false), "a.b.c.copy");
  EXPECT_EQ(copy->str_list_value("l")->next, nullptr);
  EXPECT_EQ(copy->find_child("b")->child_int32_value("c", "m"), 2);
  EXPECT_EQ(names(*copy), "bd");
  EXPECT_EQ(copy->find_child("b", "c")->child_count(), 0);
}

TEST_F(AttributeListTest, GettersGiveDefaultsAndWarnWhenRequired) {
  ut_options_database options("test");
  ASSERT_TRUE(options.read(scratch.write("file", "a.b { s = \"t\" n = 3 l = { \"x\" } }").c_str()));
  const ut_attribute_list& b = *options.find_child("a", "b");
  const auto missing = [&](const std::string& kind, const std::string& name) {
    return "warning: \"file:a.b\": is missing required " + kind + " attribute \"" + name + "\"\n";
  };
  EXPECT_EQ(reported(scratch,
                     [&] {
                       EXPECT_STREQ(b.require_str("n", "d"), "d");
                       EXPECT_EQ(b.require_int32("s", 7), 7);
                       EXPECT_EQ(b.require_str_list("s"), nullptr);
                       EXPECT_TRUE(b.require_bool("x", true));
                       EXPECT_EQ(b.int32_or_parsed("x", 8), 8);
                     }),
            missing("str", "n") + missing("int32", "s") + missing("str_list", "s") +
                missing("int32", "x") + missing("int32", "x"));
  EXPECT_EQ(reported(scratch,
                     [&] {
                       EXPECT_STREQ(b.str_value("n", "d"), "d");
                       EXPECT_EQ(b.int32_or_parsed_quiet("x", 8), 8);
                       EXPECT_EQ(b.str_list_value("l")->value, "x");
                       EXPECT_EQ(options.child_require_int32("a", "b", "n", 0), 3);
                       EXPECT_EQ(options.child_require_int32("no", "n", 9), 9);
                     }),
            "");
}

TEST_F(AttributeListTest, TextsAreReadInManyWays) {
  const std::tuple<const char*, bool, std::int32_t> cases[] = {
      {" \tYES", true, 5}, {"on", true, 5},  {"1", true, 1}, {"true", true, 5}, {"0x1f", false, 31},
      {"12 ", false, 5},   {"-1", false, 5}, {"", false, 5}, {"-2", false, -2}, {"yes!", false, 5}};
  for (const auto& [text, truth, parsed] : cases) {
    root.add_or_replace_str("v", text);
    EXPECT_EQ(root.require_bool("v"), truth) << text;
    EXPECT_EQ(root.int32_or_parsed("v", 5), parsed) << text;
  }
  root.add_or_replace_str("bad", "c:x");
  EXPECT_EQ(reported(scratch, [&] { EXPECT_STREQ(root.filename_value("bad"), "c:x"); }),
            "warning: filename attribute \"bad\" appears to not have been backslashed \"c:x\"\n");
}

TEST_F(AttributeListTest, SettersReplaceAnyKind) {
  EXPECT_FALSE(root.add_or_replace_int32("v", 1));
  EXPECT_TRUE(root.append_str("v", "a") && root.append_str("v", root.str_value("v")));
  EXPECT_STREQ(root.str_value("v"), "aa");
  EXPECT_TRUE(root.append_int32_list("v", 1) && root.append_int32_list("v", 2));
  EXPECT_EQ(root.int32_list_value("v")->next->value, 2);
  EXPECT_TRUE(root.set_str_list("v", "x") && root.append_str_list("v", "y"));
  int count = 0;
  const auto copies = ut_attribute_list::attribute_strings(root.first_attribute(), true, &count);
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(copies.get()[1], "y");
  EXPECT_EQ(copies.get()[2], nullptr);
  EXPECT_FALSE(root.add_int32("v", 9));
  EXPECT_TRUE(root.remove_attribute("v"));
  EXPECT_EQ(root.int32_value("v"), 9);
}

TEST_F(AttributeListTest, LargeBlocksFindTheFirstOfEachName) {
  for (int i = 0; i < ut_attribute_list::kMostAttributes; ++i) {
    const std::string name = "n" + std::to_string(i % 32000);
    root.add_int32(name.c_str(), i);
    root.add_child(name.c_str())->add_int32("i", i);
  }
  EXPECT_EQ(root.int32_value("n40"), 40);
  EXPECT_EQ(root.child_int32_value("n40", "i"), 40);
  EXPECT_NE(reported(scratch, [&] { root.add_str("more", ""); }), "");
  EXPECT_FALSE(root.has_attribute("more"));
  EXPECT_TRUE(root.remove_attribute("n40"));
  root.remove_child("n40", true);
  EXPECT_EQ(root.int32_value("n40"), 32040);
  EXPECT_EQ(root.child_int32_value("n40", "i"), 32040);
  EXPECT_EQ(root.int32_value("n41"), 41);
}

}  // namespace
