// What is taken from description files, what is left out, and who provides a service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "indgen/scratch.h"
#include "service_database/prefer_ada.h"
#include "service_database/service_database.h"
#include "tools/services/finding.h"

namespace {

// "name program [limit] service service;" for each plugin.
std::string summary(const ServiceDatabase& database) {
  std::string text;
  for (const PluginRecord& plugin : database.plugins()) {
    EXPECT_EQ(plugin.id(), &plugin - database.plugins().data());
    text += plugin.plugin_name() + ' ' + plugin.executable_name();
    if (const auto limit = plugin.launch_timeout()) text += ' ' + std::to_string(*limit);
    for (const ServiceRecord& service : plugin.services()) text += ' ' + service.name;
    text += ';';
  }
  return text;
}

std::string pairs(const std::vector<NameAndValue>& list) {
  std::string text;
  for (const NameAndValue& pair : list) text += pair.name + '=' + pair.value + ';';
  return text;
}

class ServiceDatabaseTest : public testing::Test {
 protected:
  bool read(const std::string& text, const std::string& name = "a.kvs") {
    return database.read_file(scratch.write(name, text).c_str());
  }
  // "severity text|" for each report, without the directory.
  std::string reports() const {
    std::string all;
    for (const services::Finding& finding : findings)
      all += std::string(wordOf(finding.severity)) + ' ' + finding.text + '|';
    const std::string prefix = scratch.path() + "/";
    for (std::size_t at; (at = all.find(prefix)) != std::string::npos;)
      all.erase(at, prefix.size());
    return all;
  }

  Scratch scratch;
  ServiceDatabase database;
  std::vector<services::Finding> findings;
  services::ReportCapture capture{findings, [] { return services::Place(); }};
};

TEST_F(ServiceDatabaseTest, EveryField) {
  scratch.write("common.inc",
                "Services { { ExecName = \"${__DIR__}/other\" SharedObject = 7 } }\n");
  EXPECT_TRUE(read(R"(# comment
%if 1
Services {
  Tool { ExecName = "tool" AdaExecName = "adatool" PluginName = "The tool"
    Persistent = yes SharedObject = "yes"
    PluginData { key = "v1" number = 3 list = { "x" } Key = "v2" }
    Environment { PATH = "x" COUNT = 3 LIBPATH = "" }
    Arguments { { Arg = "-first" } { Arg = "a \"b\"" } { Arg = "" } }
    ServicesProvided {
      { ServiceName = "Example" Priority = -2 ServiceData { b = "1" a = "2" } }
      { ServiceName = "Example" Priority = "9" }
    }
  }
}
%else
Services { { ExecName = "hidden" } }
%endif
%include "common.inc"
)"));
  const std::string other = scratch / "other";
  EXPECT_EQ(summary(database), "The tool tool Example Example;" + other + ' ' + other + ';');
  const PluginRecord& tool = database.plugins()[0];
  EXPECT_TRUE(tool.is_persistent() && database.plugins()[1].is_shared_object());
  EXPECT_FALSE(tool.is_shared_object()) << "a text is no number";
  EXPECT_EQ(pairs(tool.plugin_data()), "key=v1;Key=v2;");
  EXPECT_EQ(pairs(tool.environment()), "PATH=x;LIBPATH=;");
  EXPECT_THAT(tool.arguments(), testing::ElementsAre("-first", "a \"b\"", ""));
  EXPECT_EQ(tool.services()[0].priority, -2);
  EXPECT_EQ(pairs(tool.services()[0].service_data), "b=1;a=2;");
  EXPECT_EQ(tool.services()[1].priority, 0);
  EXPECT_EQ(tool.line(), 4);
  EXPECT_EQ(database.plugins()[1].file(), scratch / "common.inc");
  EXPECT_TRUE(tool.provides("Example"));
  EXPECT_FALSE(tool.provides("example") || tool.provides(nullptr));
  EXPECT_EQ(reports(), "");

  setPreferAda(true);
  EXPECT_EQ(tool.executable_name(), "adatool");
  EXPECT_EQ(database.plugins()[1].executable_name(), other);
  preferAdaSettings() = {};
}

TEST_F(ServiceDatabaseTest, FormsAndFailures) {
  using Result = ServiceDatabase::FileResult;
  const std::string lacking = "\": is missing required str attribute ";
  const std::string limit = "\": the int32 attribute \"LaunchTimeout\" is ";
  const std::string range = ", which counts as none: write 0 to 86400|";
  const struct {
    const char* text;
    Result result;
    std::string plugins, reports;
  } cases[] = {
      {R"(Services { ExecName = "t" A { ExecName = "x" } { } })", Result::accepted, "t t;", ""},
      {"Services { ExecName = 1 }", Result::accepted, "", ""},
      {R"(Other { Services { ExecName = "t" } })", Result::without_services, "", ""},
      {R"(Services { { ExecName = "1" } Bad { Arguments { { } } } { ExecName = 2 }
          { ExecName = "3" } })",
       Result::section_refused, "1 1;3 3;",
       "warning \"a.kvs:Services.Bad" + lacking + "\"ExecName\"|warning \"a.kvs:Services." +
           lacking + "\"ExecName\"|"},
      {R"(Services { ExecName = "t" Arguments { { arg = "x" Arg = 1 } }
          ServicesProvided { { Priority = 1 } { ServiceName = "S" } } })",
       Result::accepted, "t t S;",
       "warning \"a.kvs:Services.Arguments." + lacking +
           "\"Arg\"|warning \"a.kvs:Services.ServicesProvided." + lacking + "\"ServiceName\"|"},
      {R"(Services { { ExecName = "1" LaunchTimeout = 0 } { ExecName = "2" LaunchTimeout = 86400 }
          Bad { ExecName = "3" LaunchTimeout = -1 } { ExecName = "4" LaunchTimeout = 86401 }
          { ExecName = "5" LaunchTimeout = "9" } })",
       Result::accepted, "1 1 0;2 2 86400;3 3;4 4;5 5;",
       "warning \"a.kvs:Services.Bad" + limit + "-1" + range + "warning \"a.kvs:Services." + limit +
           "86401" + range},
      {"Services { { ExecName = \"1\" } { ExecName = \"2\" } }\nx = oops", Result::malformed, "",
       "error parse error:|"},
      {"%error stay\n%bogus\nServices { ExecName = \"1\" }", Result::accepted, "1 1;",
       "error stay|error illegal directive: \"%bogus\"|"},
      {"Services { ExecName = \"1\" }\n%include \"none\"\nx = oops", Result::accepted, "1 1;",
       "error could not open \"none\" which was referenced at \"a.kvs\":3|"},
  };
  for (const auto& entry : cases) {
    database = ServiceDatabase();
    findings.clear();
    EXPECT_EQ(database.add_file(scratch.write("a.kvs", entry.text).c_str()), entry.result)
        << entry.text;
    EXPECT_EQ(summary(database), entry.plugins) << entry.text;
    EXPECT_EQ(reports(), entry.reports);
  }
  EXPECT_EQ(database.add_file((scratch / "nowhere.kvs").c_str()), Result::unreadable);
}

TEST_F(ServiceDatabaseTest, FirstProviderWins) {
  EXPECT_EQ(database.find_plugin("S"), nullptr);
  read("Services { ExecName = \"1\" ServicesProvided { { ServiceName = \"S\" } } }");
  read(
      "Services { { ExecName = \"2\" ServicesProvided {\n"
      "{ ServiceName = \"S\" Priority = 9 } { ServiceName = \"T\" } } }\n"
      "{ ExecName = \"3\" ServicesProvided { { ServiceName = \"T\" } { ServiceName = \"\" } } } }");
  const auto provider = [&](const char* service) {
    const PluginRecord* plugin = database.find_plugin(service);
    return plugin ? plugin->exec_name() : "none";
  };
  EXPECT_EQ(provider("S"), "1");
  EXPECT_EQ(provider("T"), "2");
  EXPECT_EQ(provider(""), "3");
  EXPECT_EQ(provider(nullptr), "none");
  EXPECT_EQ(reports(), "");
}

TEST_F(ServiceDatabaseTest, Directory) {
  for (const char* name : {"a.kvs", "b.KVS", "c.kvs.bak", "kvs", "d.txt"})
    scratch.write(name, std::string("Services { ExecName = \"") + name + "\" }");
  scratch.write("bad.kvs", "Services {\n x = }");
  // One who opened it would wait for ever for somebody to write.
  ASSERT_EQ(std::system(("mkfifo " + scratch / "pipe.kvs").c_str()), 0);
  std::filesystem::create_directory(scratch / "sub.kvs");
  scratch.write("sub.kvs/e.kvs", "Services { ExecName = \"e\" }");
  ServiceDatabase::read_directory(database, scratch.path().c_str());
  EXPECT_THAT(summary(database),
              testing::AnyOf("a.kvs a.kvs;b.KVS b.KVS;", "b.KVS b.KVS;a.kvs a.kvs;"));
  EXPECT_EQ(findings.size(), 1u);
  ServiceDatabase::read_directory(database, (scratch / "nowhere").c_str());
  EXPECT_EQ(database.plugins().size(), 2u);
}

}  // namespace
