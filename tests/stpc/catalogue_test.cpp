// What the compiler says of bad catalogues, and what it takes from good ones.
#include <gtest/gtest.h>

#include <string>

#include "tools/stpc/author_names.h"
#include "tools/stpc/catalogue_parser.h"
#include "tools/stpc/emit.h"
#include "tools/stpc/text_template.h"

namespace {

std::string faultOf(const std::string& source) {
  stpc::Catalogue catalogue;
  stpc::Error error;
  if (stpc::parseCatalogue(source, catalogue, error)) return "good";
  return std::to_string(error.at.line) + ":" + std::to_string(error.at.column) + ": " + error.text;
}

// A catalogue around the messages of one direction, which begin in the second line.
std::string withMessages(const std::string& messages) {
  return "spec S side a { } side b { } from a to b {\n" + messages + "\n}";
}

struct Case {
  std::string source, fault;
};

TEST(CatalogueTest, FaultsInTheFrameAreNamedWithTheirPlace) {
  const Case cases[] = {
      {"", "1:1: there is no \"spec\""},
      {"spec S # none", "1:14: a side is missing: a spec has two"},
      {"spec S side a {\n} side b { }\n", "3:1: there are no messages"},
      {"spec S\n  sidde a", "2:3: unknown word \"sidde\""},
      {"spec a__b",
       "1:6: \"a__b\" is no name: underscores stand between other characters, one at a time"},
      {"spec S side a { colour 1 }", "1:17: unknown word \"colour\""},
      {"spec S side a { flags 0x100000000 }", "1:23: \"0x100000000\" is no number of 32 bits"},
      {"spec S side a { source 0 }", "1:24: the number 0 is out of range"},
      {"spec S side a {", "1:16: a setting or \"}\" was expected, not the end of the file"},
      {"spec S side a { vstamp \"1\n\" }", "1:24: the text has no closing quote"},
      {"spec S side a { } side a { }", "1:24: a second side \"a\""},
      {"spec S side a { } side b { } side c { }", "1:35: a third side: a spec has two"},
      {"spec S side a { } side b { } from a to a { }", "1:40: a side sends to the other side"},
      {"spec S side aB { } side Ab { }", "1:25: the files of both sides would have the same names"},
      {"spec EOF", "1:6: \"EOF\" is a macro of the system's headers"},
      {"spec S ;", "1:8: this character has no meaning here"},
  };
  for (const Case& each : cases) EXPECT_EQ(faultOf(each.source), each.fault) << each.source;
}

TEST(CatalogueTest, FaultsInMessagesAreNamedWithTheirPlace) {
  const Case cases[] = {
      {"M", "3:1: a format was expected, not \"}\""},
      {"M \"\" M \"\"", "2:6: a second message \"M\": the first is in line 2"},
      {"M \"\" } from b to a {\nM \"\"",
       "3:1: the other direction has a message \"M\" too: the first is in line 2"},
      {"while \"\"", "2:1: \"while\" is a reserved word of C++"},
      {"release \"\"", "2:1: \"release\" is an operation of every spec"},
      {"packet \"\"", "2:1: \"packet\" means something else in every generated class"},
      {"M \"\" STPStatus \"\"", "2:6: \"STPStatus\" means something else in every generated class"},
      {"S_b_Impl \"\"", "2:1: \"S_b_Impl\" is the class of a side"},
      {"M \"b:{x:%u4% } \" N \"c:{M_b:%u4% } \"",
       "2:24: \"M_b\" is the type of a block or the class of a side"},
      {"M entry 0x102 \"\"", "2:9: the value of flags 0x102 is out of range"},
      {"M packet 0x03 \"\"", "2:10: the flags of a one-way message have 0x02 and not 0x01"},
      {"M two-way entry 2 \"| \"", "2:17: the flags of a two-way message have 0x01 and not 0x02"},
      {"M two-way \"x:%u4% \"", "2:1: the two-way message \"M\" has no reply marker in its format"},
      {"M \"x:%u4% | y:%u4% \"", "2:11: a reply marker in the one-way message \"M\""},
      {"M \"\" M_b \"\" N \"\" M2 \"b:{x:%u4% } \" M2_b \"\"",
       "2:22: the type of the block would be \"M2_b\", and that name is taken"},
      {"M \"M:%u4% \"", "2:4: a field named like its message"},
      {"M nullable x \"x:%u4% \"", "2:12: \"M\" has no text or texts called \"x\""},
  };
  for (const Case& each : cases)
    EXPECT_EQ(faultOf(withMessages(each.source)), each.fault) << each.source;
}

TEST(CatalogueTest, DocsAndTextsThatMayBeNoneAreKept) {
  stpc::Catalogue catalogue;
  stpc::Error error;
  ASSERT_TRUE(
      stpc::parseCatalogue("# Of the file.\n\n"
                           "# Of the spec,\n  # in two lines.\nspec S\n"
                           "side a { } # no doc\nside b { }\n"
                           "from a to b {\n# Of M.\nM nullable x \"x:%str% "
                           "l:{n:%u4% x:*(n)[%str%] } b:{x:%fn% } \"\n"
                           "N two-way nullable l \"l:{n:%u4% d:*(n)[%str%] } | r:%str% \" }",
                           catalogue, error))
      << error.text;
  EXPECT_EQ(catalogue.doc, "Of the spec,\nin two lines.");
  EXPECT_EQ(catalogue.sides[1].doc, "");
  const stpc::Message& message = catalogue.messages[0];
  EXPECT_EQ(message.doc, "Of M.");
  EXPECT_TRUE(message.fields[0].isNullable);
  EXPECT_FALSE(message.fields[1].list()->isNullable) << "its name is hidden by the block's";
  EXPECT_TRUE(message.fields[2].fields[0].isNullable);
  EXPECT_TRUE(catalogue.messages[1].fields[0].list()->isNullable);
  EXPECT_FALSE(catalogue.messages[1].reply[0].isNullable);
}

TEST(AuthorNamesTest, FollowTheCustomsOfALanguage) {
  EXPECT_EQ(stpc::snakeCase("RNBlockReservedEvent"), "rn_block_reserved_event");
  EXPECT_EQ(stpc::snakeCase("serviceRN"), "service_rn");
  EXPECT_EQ(stpc::camelCase("client_cookie2"), "clientCookie2");
  EXPECT_EQ(stpc::pascalCase("URLOf_aFile"), "UrlOfAFile");
  EXPECT_EQ(stpc::unreserved("from", stpc::Language::python), "from_");
  EXPECT_EQ(stpc::unreserved("from", stpc::Language::typescript), "from");
  stpc::Catalogue catalogue;
  catalogue.specName = "Index";  // a function of the C library, and so no namespace
  EXPECT_EQ(stpc::moduleName(catalogue, stpc::Language::cpp), "index_");
  EXPECT_EQ(stpc::moduleName(catalogue, stpc::Language::python), "index");
}

// What is right on the wire and in the hub's own style may not be in a language's.
TEST(AuthorNamesTest, ClashesAreNamedWithTheirPlace) {
  const auto faultIn = [](const std::string& messages, stpc::Language language) {
    stpc::Catalogue catalogue;
    stpc::Error error;
    EXPECT_TRUE(stpc::parseCatalogue(withMessages(messages), catalogue, error)) << error.text;
    if (stpc::checkAuthorNames(catalogue, language, {"close"}, error)) return std::string("good");
    return std::to_string(error.at.line) + ":" + std::to_string(error.at.column) + ": " +
           error.text;
  };
  using stpc::Language;
  EXPECT_EQ(faultIn("M \"aB:%u4% a_b:%u4% \"", Language::python),
            "2:12: \"a_b\" would be the field \"a_b\", and so would \"aB\"");
  EXPECT_EQ(faultIn("M \"aB:%u4% a_b:%u4% \"", Language::cpp), "good");
  EXPECT_EQ(faultIn("Close \"\"", Language::typescript),
            "2:1: \"Close\" would be the operation \"close\", which every side has");
  EXPECT_EQ(faultIn("Promise \"\"", Language::typescript),
            "2:1: \"Promise\" would be the type \"Promise\", which the language has");
  EXPECT_EQ(faultIn("M two-way \"| x:%u4% \" MReply \"\"", Language::typescript),
            "2:23: \"MReply\" would be the type \"MReply\", and so would \"M\"");
}

TEST(CatalogueTest, FaultsInFormatsAreNamedWithTheirPlace) {
  const Case cases[] = {
      {"x:%u4%", "2:10: a blank is missing behind \"x\""},
      {"x:%u4% y:%u4%z:%u4% ", "2:17: a blank is missing behind \"y\""},
      {"x:%u4%  ", "2:11: a field's name was expected"},
      {"x:%u3% ", "2:6: unknown type \"%u3%\""},
      {"x:u4 ", "2:6: a value was expected, such as %u4% or %str%"},
      {"x:%u4% x:%u1% ", "2:11: a second field \"x\""},
      {"d:*(n)[%str%] n:%u4% ", "2:8: there is no count field \"n\" before the array"},
      {"n:%u1% d:*(n)[%str%] ", "2:15: the count field \"n\" is no %u4%"},
      {"n:%u4% c:*(n)[%u4%] d:*(n)[%u4%] ", "2:28: the field \"n\" counts another array already"},
      {"n:%u4% d:%dar%(n, %str%) ", "2:22: a dynamic array holds numbers only"},
      {"b:{x:%u4% ", "2:6: the block \"b\" isn't closed"},
      {"b:{} ", "2:6: the block \"b\" is empty"},
      {"x:%u4% } ", "2:11: a \"}\" without a block"},
      {"b:{| } ", "2:7: the reply marker can't stand in a block"},
      {"|x:%u4% ", "2:4: the reply marker is a \"|\" and a blank"},
      {"| x:%u4% | ", "2:13: a second reply marker"},
      {"| b:{x:%u4% } ", "2:6: a reply carries numbers and texts only"},
      {"x:%u4% \"\n    \"y:%u9% ", "3:8: unknown type \"%u9%\""},
  };
  for (const char* name :
       {"errno", "EOF", "NULL", "INT32_MAX", "UINT_FAST8_MAX", "INT64_C", "ENOENT", "SEEK_SET",
        "stdin", "assert", "linux", "SIGTERM", "M_PI", "GEN_ASSERT"})
    EXPECT_EQ(faultOf(withMessages("M \"x:%u4% " + std::string(name) + ":%u4% \"")),
              "2:11: \"" + std::string(name) + "\" is a macro of the system's headers");
  for (const Case& each : cases)
    EXPECT_EQ(faultOf(withMessages("M \"" + each.source + "\"")), each.fault) << each.source;
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "b:{";
  EXPECT_EQ(faultOf(withMessages("M \"" + deep + "\"")), "2:54: blocks are nested too deeply");
}

TEST(CatalogueTest, ASideThatOnlySendsHasNoTablesToReceive) {
  stpc::Catalogue catalogue;
  stpc::Error error;
  ASSERT_TRUE(stpc::parseCatalogue(withMessages("M \"\""), catalogue, error)) << error.text;
  const auto files = stpc::emitSide(catalogue, 0, "s.stp");
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[1].name, "s_a_impl.cpp");
  EXPECT_NE(files[1].text.find(".receiveTable = nullptr"), std::string::npos);
  EXPECT_EQ(files[1].text.find("kReceiveTable"), std::string::npos);
}

TEST(TemplateDeathTest, GapsAndValuesMustMatch) {
  EXPECT_EQ(stpc::fillTemplate("${a}-${b}${a}", {{"a", "${b}"}, {"b", ""}}), "${b}-${b}");
  EXPECT_DEATH(stpc::fillTemplate("${a} ${b}", {{"a", ""}}), "lacks a value for: \"b\"");
  EXPECT_DEATH(stpc::fillTemplate("${a}", {{"a", ""}, {"c", ""}}), "has no gap for: \"c\"");
  EXPECT_DEATH(stpc::fillTemplate("${a", {{"a", ""}}), "without an end");
}

}  // namespace
