// Another user of the machine at the hub's port. His processes are the system's own programs, since
// this one can't become somebody else and come back.
#include <gmock/gmock.h>

#include <csignal>

#include "platform/credentials.h"
#include "support/hub_test.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class StrangerTest : public HubTest {
 protected:
  void SetUp() override {
    if (platform::currentUser() != platform::kRoot)
      GTEST_SKIP() << "becoming another user takes root";
  }
  /// Has the stranger connect and run `script` with the connection as descriptor 3, and with
  /// `input` to be read.
  void comeAsStranger(const std::string& script, const std::string& input = {}) const {
    platform::StartRequest request;
    request.program = "sh";
    request.arguments = {"sh",
                         "-c",
                         "exec setpriv --reuid=65534 --regid=65534 --clear-groups bash -c "
                         "\"exec 3<>/dev/tcp/127.0.0.1/$1; $2\" <\"$3\"",
                         "sh",
                         std::to_string(port),
                         script,
                         directory.write("input", input)};
    platform::ProcessId child = 0;
    ASSERT_EQ(platform::startProcess(request, child), 0);
    std::size_t ended = 0;
    int status = -1;
    platform::waitForChildren(&child, 1, true, kPatience, ended);
    ASSERT_TRUE(platform::childEnded(child, status));
    EXPECT_EQ(status, 0) << script;
  }
  std::string logged() const { return contents(directory / "internal"); }
  std::string refusal(const std::string& user) const {
    return "Refused a connection to port " + std::to_string(port) + ": user " + user + ".\n";
  }
};

const char* const kGetsNothing = "test \"$(wc -c <&3 2>/dev/null)\" = 0";

}  // namespace

TEST_F(StrangerTest, GetsNothing) {
  startHub({"-hl_log_internal", directory / "internal"});
  comeAsStranger(kGetsNothing);
  settle();
  EXPECT_THAT(logged(), HasSubstr(refusal("65534")));
  EXPECT_EQ(join()->id, 2) << "he has used up no ID";
}

// A connection whose owner has gone stands in the system's table as one of root.
TEST_F(StrangerTest, LeavesNothingBehind) {
  startHub({"-hl_log_internal", directory / "internal"});
  const std::string launch = hubMessageBytes("RequestPluginLaunch", [](STPMessage& message) {
    putTexts(message, tag("args"), tag("count"), 1, {"true"});
  });
  ::kill(hub->id(), SIGSTOP);
  comeAsStranger("cat >&3", filled(negotiateBytes()) + filled(launch));
  ::kill(hub->id(), SIGCONT);
  settle();
  settle();
  EXPECT_THAT(logged(), HasSubstr(refusal("unknown")));
  EXPECT_THAT(logged(), Not(HasSubstr("Launching")));
  EXPECT_EQ(join()->id, 2);
}

TEST_F(StrangerTest, IsTakenIfTheHubIsToldSo) {
  startHub({"-any_user"});
  comeAsStranger("test \"$(head -c 4 <&3 | wc -c)\" = 4");
}
