// The checker as its user meets it: by its executable, with its output and its exit code.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "indgen/scratch.h"

namespace {

struct Outcome {
  int status = -1;
  std::string output;
};

Outcome check(const Scratch& scratch, const std::string& arguments,
              const std::string& program = CHECKER_EXECUTABLE) {
  const std::string command = "cd '" + scratch.path() + "' && PATH=\"$PWD:$PATH\" '" + program +
                              "' " + arguments + " >output 2>&1";
  const int status = std::system(command.c_str());  // NOLINT(bugprone-command-processor)
  return {status / 256, contents(scratch / "output")};
}

// The programs that files name; "mute" can't be executed.
void writePrograms(const Scratch& scratch) {
  for (const char* name : {"tool", "adatool", "other", "mute"})
    std::filesystem::permissions(scratch.write(name, ""), std::filesystem::perms::owner_all);
  std::filesystem::permissions(scratch / "mute", std::filesystem::perms::owner_read);
}

const char* const kGood = R"(Services {
  { ExecName = "tool" AdaExecName = "adatool" PluginName = "The \"tool\"" Persistent = yes
    LaunchTimeout = 90
    PluginData { key = "value" }
    Environment { LIBPATH = "lib" }
    Arguments { { Arg = "-first" } { Arg = "tab	" } }
    ServicesProvided { { ServiceName = "Example" Priority = 3 ServiceData { a = "b" } } }
  } }
)";

// Each report stands behind directives and hidden lines, where a line is easily miscounted.
const char* const kBad = R"(%define X 1
%if X
%bogus

Services {
  { ExecName = "other" Arguments { { } }
%if 0
junk
%elif \
  NOPE
%endif
    ServicesProvided {
      { ServiceName = "Own" }
      { ServiceName = "Example" }
      { Priority = 1 }
    }
  }
%warning   heed: ExecName is missing required care
%include "part.inc"
  { ExecName = "${GONE}" }
}
%endif
)";

}  // namespace

TEST(CheckerTest, Text) {
  const Scratch scratch;
  writePrograms(scratch);
  scratch.write("good.kvs", kGood);
  scratch.write("bad.kvs", kBad);
  scratch.write("part.inc", "# included\n%info fine\n{ PluginName = \"p\" }\n");
  const Outcome outcome = check(scratch, "good.kvs bad.kvs ./good.kvs");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, R"(good.kvs
  plugin "The \"tool\""
    program: "tool"
    choice: "tool", for Ada "adatool"
    arguments: "-first" "tab\t"
    environment: LIBPATH="lib"
    data: key="value"
    persistent: yes
    launch timeout: 90 seconds
    service: "Example", priority 3, data a="b"

bad.kvs
  plugin "other"
    program: "other"
    service: "Own"
    service: "Example", already provided by "The \"tool\"" in good.kvs
  plugin "GONE"
    program: "GONE"
bad.kvs:3: error: illegal directive: "%bogus"
bad.kvs:9: error: macro not defined(NOPE) ...
bad.kvs:18: warning: heed: ExecName is missing required care
part.inc:2: info: fine
bad.kvs:20: error: macro not defined(GONE) ...
bad.kvs:6: warning: "Services..Arguments.": is missing required str attribute "Arg"
bad.kvs:15: warning: "Services..ServicesProvided.": is missing required str attribute "ServiceName"
part.inc:3: warning: "Services.": is missing required str attribute "ExecName"
bad.kvs:20: warning: the plugin provides no service, so that nobody can ask for it: write ServicesProvided { { ServiceName = "..." } }
bad.kvs:20: warning: the program "GONE" is neither beside the hub nor in PATH: write its full name, or put it there
bad.kvs:14: warning: the service "Example" is already provided by "The \"tool\"" in good.kvs

2 files, 3 plugins, 3 services: 3 errors, 7 warnings
)");
}

TEST(CheckerTest, Json) {
  const Scratch scratch;
  scratch.write("good.kvs", kGood);
  scratch.write("late.kvs",
                "Services { ExecName = \"\xFF\"\n"
                "ServicesProvided { { ServiceName = \"Example\" } } }");
  const auto json = nlohmann::json::parse(check(scratch, "--json good.kvs late.kvs").output);
  EXPECT_EQ(json["plugins"][0], nlohmann::json::parse(R"({
    "id": 0, "name": "The \"tool\"", "file": "good.kvs", "program": "tool", "exec_name": "tool",
    "ada_exec_name": "adatool", "arguments": ["-first", "tab\t"],
    "environment": [{"name": "LIBPATH", "value": "lib"}],
    "data": [{"name": "key", "value": "value"}], "persistent": true, "shared_object": false,
    "launch_timeout": 90,
    "services": [{"name": "Example", "priority": 3, "data": [{"name": "a", "value": "b"}],
                  "already_provided_by": null}]})"));
  EXPECT_EQ(json["plugins"][1]["services"][0]["already_provided_by"],
            nlohmann::json::parse(R"({"id": 0, "name": "The \"tool\"", "file": "good.kvs"})"));
  EXPECT_EQ(json["files"][1], nlohmann::json::parse(R"({"path":"late.kvs","result":"accepted"})"));
  EXPECT_EQ(json["findings"].back()["line"], 2);
  EXPECT_EQ(json["all_is_well"], false);
}

TEST(CheckerTest, TroubleAndExitCodes) {
  const Scratch scratch;
  writePrograms(scratch);
  scratch.write("none.kvs", "Other { }\n");
  std::filesystem::create_directory(scratch / "empty");
  std::filesystem::create_directory(scratch / "dir");
  std::filesystem::create_symlink("nowhere", scratch / "dir/dangling.kvs");
  ASSERT_EQ(std::system(("mkfifo " + scratch / "pipe").c_str()), 0);
  const struct {
    const char* argument;
    int status;
    const char *output, *text = nullptr;
  } cases[] = {
      {"empty", 1,
       "empty: warning: holds no description file: name them like tool.kvs\n\n0 files,"},
      {"none.kvs", 1, "none.kvs: warning: has no block \"Services\""},
      {"dir", 1, "dir/dangling.kvs: error: can't be opened\n"},
      {"absent", 1, "absent: error: there is no such file or directory\n"},
      {"pipe", 1, "pipe: error: can't be opened\n"},
      {"x", 1, "x:1: error: could not open \"", "%include \"pipe\"\n"},
      {"--nonsense", 2, ""},
      {"--version", 0, "hublink-services "},
      {"x", 0, "x:1: info: ready\n",
       "%info ready\nServices { ExecName = \"tool\" ServicesProvided { { ServiceName = \"S\" } } "
       "}\n"},
      {"x", 1, "not \"y\"\n  nothing is taken from this file\n",
       "Services {\n{ ExecName = \"t\" } x = y }\n"},
      {"x", 1,
       "x:5: error: parse error:", "%if 0\nx\n%else\n\nServices { ExecName = oops }\n%endif\n"},
      {"x", 1, "x:7: error: parse error: unknown operator sequence \"cd\"",
       "Services {\n# }\n}\n\n%if 1\n%endif\nab cd\n"},
      {"x", 1, "x:3: error: could not open \"", "a = 1\n%if 1\n%include \"none\"\n%endif\n"},
      {"x", 1, "x:4: error: macro recursion", "%define A ${A}\nx = 1\n%define B 1\ny = \"${A}\"\n"},
  };
  for (const auto& each : cases) {
    if (each.text) scratch.write("x", each.text);
    const Outcome outcome = check(scratch, each.argument);
    EXPECT_EQ(outcome.status, each.status) << each.argument;
    EXPECT_THAT(outcome.output, testing::HasSubstr(each.output));
  }
}

// What the hub passes over without a word, told with its line and with what to write instead.
TEST(CheckerTest, WhatPeopleGetWrong) {
  const Scratch scratch;
  writePrograms(scratch);
  const std::string program = "Services { ExecName = \"tool\"\n";
  const std::string services = "ServicesProvided { { ServiceName = \"S\" } }\n";
  const struct {
    std::string text, finding;
  } cases[] = {
      {"Services { ExecName = \"gone\"\n" + services + "}",
       "x:1: warning: the program \"gone\" is "},
      {"Services {\nExecName = \"/gone\" " + services + "}",
       "x:2: warning: the program \"/gone\" isn't"},
      {"Services {\nExecName = \"mute\" " + services + "}", "(chmod +x)"},
      {program + "AdaExecName = \"gone\"\n" + services + "}", "x:2: warning: the program \"gone\""},
      {program + "ServicesProvided { ServiceName = \"S\" } }",
       "x:2: warning: \"ServiceName\" stands outside of a block of its own: write ServicesProvided "
       "{ { "
       "ServiceName = \"...\" } }\n\n1"},
      {program + "ServiceProvided { { ServiceName = \"S\" } } }",
       "x:2: warning: \"ServiceProvided\" means nothing here: write ServicesProvided\n\n1"},
      {program + services + "Hint = 1 }",
       "x:3: warning: \"Hint\" means nothing here: write ExecName, "},
      {program + "}", "x:1: warning: the plugin provides no service"},
      {program + "Persistent = \"on\"\n" + services + "}",
       "x:2: warning: \"Persistent\" has a value in "
       "quotes, which counts as no: write Persistent = on\n"},
      {program + "ServicesProvided { { ServiceName = \"S\"\nPriority = \"5\" } } }",
       "x:3: warning: \"Priority\" has a value in quotes, which counts as 0: write Priority = 5\n"},
      {program + services + "LaunchTimeout = \"30\" }",
       "x:3: warning: \"LaunchTimeout\" has a value in quotes, which counts as none: write "
       "LaunchTimeout = 30\n"},
      {program + services + "Arguments { { } }\nLaunchTimeout = 86401 }",
       "x:4: warning: \"x:Services\": the int32 attribute \"LaunchTimeout\" is 86401, which counts "
       "as none: write 0 to 86400\nx:3: warning: \"x:Services.Arguments.\": is missing"},
      {program + services + "PluginName = 5 }",
       "x:3: warning: \"PluginName\" has a value that is no text"},
      {program + services + "Arguments { Arg = \"a\" } }",
       "write Arguments { { Arg = \"...\" } }\n"},
      {program + services + "Arguments = \"a\" }",
       "x:3: warning: \"Arguments\" is a block: write "},
      {program + services + "ExecName { } }",
       "x:3: warning: \"ExecName\" is no block: write ExecName = "},
      {program + services + "Environment { LIBPATH = 1 } }",
       "x:3: warning: \"LIBPATH\" has a value"},
      {program + services,
       "x:1: warning: the block that begins here is never closed: write a \"}\""},
      {"Services {\n{ ExecName = \"tool\" " + services + "{ ExecName = \"other\" " + services +
           "} }",
       "x:3: warning: the plugin is passed over, since it stands within the block of another"},
      {"Services {\nExecName = \"tool\n" + services + "}",
       "x:2: warning: a text ends with its line"},
      {"Services { x = y\na = \"",
       "x:1: error: parse error: expected a text in double quotes, a number, "
       "yes or no, not \"y\"\n"},
      {"Services\n{",
       "expected \"=\", \"+=\", \".\" or \"{\" on the same line behind \"Services\"\n"},
      {"\xEF\xBB\xBF" + program + services + "}", "x:1: error: begins with a byte-order mark"},
      {"Services { ExecName = 5 }", "write ExecName = \"...\"\n\n1 file, 0 plugins"},
      {"Services {\n}", "x:1: warning: \"Services\" describes no plugin"},
      {"\nservices { }", "x:2: warning: \"services\" means nothing here: write Services\n"},
      {"Services = \"tool\"", "x:1: warning: \"Services\" is a block"},
      {"ExecName = \"tool\"", "x:1: warning: \"ExecName\" counts only within Services { ... }"},
      {"Services { " + services + "}", "x:1: warning: \"ServicesProvided\" is taken for a plugin"},
      {program + "ServicesProvided { a { ServiceName = \"S\" }\na { ServiceName = \"T\" } } }",
       "x:3: warning: there is a block \"a\" already, and both are one"},
      {"Services {\nExecName = \"\x9B\xC2\x9B\xE2\x80\xAE\xFF\xC3\xA9\" }",
       "program: \"\\x9b\\xc2\\x9b\\xe2\\x80\\xae\\xff\xC3\xA9\"\n"},
  };
  for (const auto& each : cases) {
    scratch.write("x", each.text);
    const Outcome outcome = check(scratch, "x");
    EXPECT_EQ(outcome.status, 1) << each.text;
    EXPECT_THAT(outcome.output, testing::HasSubstr(each.finding));
  }
  // A file that an include ends says nothing about its end.
  scratch.write("x", "Services {\n%include \"none\"\n}\n");
  EXPECT_THAT(check(scratch, "x").output, testing::Not(testing::HasSubstr("never closed")));
}

// A copy in a tree of its own has that tree's directory and programs.
TEST(CheckerTest, InstalledTree) {
  const Scratch scratch;
  const std::string program = scratch / "hublink-services";
  std::filesystem::copy_file(CHECKER_EXECUTABLE, program);
  EXPECT_EQ(check(scratch, "", program).status, 1);
  std::filesystem::create_directories(scratch / "defaults/services");
  scratch.write("defaults/services/good.kvs", kGood);
  scratch.write("adavestrel", "");
  const auto json = nlohmann::json::parse(check(scratch, "--json", program).output);
  EXPECT_EQ(json["plugins"][0]["program"], "adatool");
}
