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
  const std::string command =
      "cd '" + scratch.path() + "' && '" + program + "' " + arguments + " >output 2>&1";
  const int status = std::system(command.c_str());  // NOLINT(bugprone-command-processor)
  return {status / 256, contents(scratch / "output")};
}

const char* const kGood = R"(Services {
  { ExecName = "tool" AdaExecName = "adatool" PluginName = "The \"tool\"" Persistent = yes
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
%warning   heed
%include "part.inc"
  { ExecName = "${GONE}" }
}
%endif
)";

}  // namespace

TEST(CheckerTest, Text) {
  const Scratch scratch;
  scratch.write("good.kvs", kGood);
  scratch.write("bad.kvs", kBad);
  scratch.write("part.inc", "# included\n%info fine\n{ PluginName = \"p\" }\n");
  const Outcome outcome = check(scratch, "good.kvs bad.kvs ./good.kvs");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, R"(good.kvs
  plugin "The \"tool\""
    program: "tool"
    choice: "tool", for Ada "adatool"
    arguments: "-first" "tab\x09"
    environment: LIBPATH="lib"
    data: key="value"
    persistent: yes
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
bad.kvs:18: warning: heed
part.inc:2: info: fine
bad.kvs:20: error: macro not defined(GONE) ...
bad.kvs:6: warning: "Services..Arguments.": is missing required str attribute "Arg"
bad.kvs:15: warning: "Services..ServicesProvided.": is missing required str attribute "ServiceName"
part.inc:3: warning: "Services.": is missing required str attribute "ExecName"
bad.kvs:14: warning: the service "Example" is already provided by "The \"tool\"" in good.kvs

2 files, 3 plugins, 3 services: 3 errors, 5 warnings
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
    "services": [{"name": "Example", "priority": 3, "data": [{"name": "a", "value": "b"}],
                  "already_provided_by": null}]})"));
  EXPECT_EQ(json["plugins"][1]["services"][0]["already_provided_by"],
            nlohmann::json::parse(R"({"id": 0, "name": "The \"tool\"", "file": "good.kvs"})"));
  EXPECT_EQ(json["files"][1], nlohmann::json::parse(R"({"path":"late.kvs","result":"accepted"})"));
  EXPECT_EQ(json["findings"][0]["line"], 2);
  EXPECT_EQ(json["all_is_well"], false);
}

TEST(CheckerTest, TroubleAndExitCodes) {
  const Scratch scratch;
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
      {"empty", 0, "0 files, 0 plugins, 0 services: all is well\n"},
      {"none.kvs", 1, "none.kvs: warning: has no block \"Services\""},
      {"dir", 1, "dir/dangling.kvs: error: can't be opened\n"},
      {"absent", 1, "absent: error: there is no such file or directory\n"},
      {"pipe", 1, "pipe: error: can't be opened\n"},
      {"x", 1, "x:1: error: could not open \"", "%include \"pipe\"\n"},
      {"--nonsense", 2, ""},
      {"x", 0, "x:1: info: ready\n", "%info ready\nServices { ExecName = \"t\" }\n"},
      {"x", 1, "x:2: error: parse error:\n  nothing is taken from this file\n",
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
