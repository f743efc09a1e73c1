// Another user of the machine at the hub's port. His processes are the system's own programs, since
// this one can't become somebody else and come back.
#include <gmock/gmock.h>

#include <csignal>

#include "platform/credentials.h"
#include "support/hub_test.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// A stranger who knows the hub's other socket: what he does, and the port.
const char* const kLocalStranger = R"(
use Socket;
socket(my $peer, AF_UNIX, SOCK_STREAM, 0) or die;
my $name = pack_sockaddr_un("\0hublink/0/$ARGV[1]");
if ($ARGV[0] eq "connect") {
  connect($peer, $name) or die;
  exit(sysread($peer, my $byte, 1) ? 1 : 0);
}
bind($peer, $name) && listen($peer, 9) or die;
syswrite(STDOUT, "has it\n");
sleep;
)";

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
    platform::waitForChildren(&child, 1, true, kPatience, ended);
    const auto end = platform::childEnd(child);
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status(), 0) << script;
  }
  HubProcess localStranger(const char* act, std::uint16_t at) const {
    return HubProcess({"--reuid=65534", "--regid=65534", "--clear-groups", "perl", "-e",
                       kLocalStranger, act, std::to_string(at)},
                      directory, 0, "setpriv");
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

TEST_F(StrangerTest, GetsNothingByTheLocalRoad) {
  startHub({"-hl_log_internal", directory / "internal"});
  EXPECT_EQ(localStranger("connect", port).waitForEnd(), 0);
  settle();
  EXPECT_THAT(logged(), HasSubstr(refusal("65534")));
  EXPECT_EQ(join()->id, 2);
}

TEST_F(StrangerTest, WhoHoldsTheNameOfAPortHoldsNothingElse) {
  port = freePort();
  const HubProcess stranger = localStranger("hold", port);
  await([&] { return stranger.printed() == "has it\n"; });
  HubProcess reached({"-port", std::to_string(port), "-hl_log_internal", directory / "internal"},
                     directory);
  auto link = makeCounted<STPTransport>();
  await([&] {
    link->connect("127.0.0.1", port);
    return link->isConnected();
  });
  EXPECT_NE(platform::localPort(link->fileDescriptor()), 0) << "it is the port itself";
  makeCounted<TestPlugin>(link.get())->next();
  EXPECT_THAT(logged(), HasSubstr("Local socket of port " + std::to_string(port)));
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

TEST_F(StrangerTest, IsNoBridgeEvenIfHeIsTaken) {
  startHub({"-any_user", "-hl_log_internal", directory / "internal"});
  const std::string request = hubMessageBytes("RequestServiceConnection", [](STPMessage& message) {
    message.putString(tag("serviceName"), "hublink.abroad");
    message.putU32(tag("providingPluginID"), ~0u);
  });
  comeAsStranger(
      "cat >&3; while IFS= read -r -d '' -t 10 word <&3; do "
      "case \"$word\" in *hublink.abroad) exit 0 ;; esac; done; exit 1",
      filled(negotiateBytes()) + filled(request));
  EXPECT_THAT(logged(), HasSubstr("Plugin ID 2 can't be a bridge.\n"));
}

TEST_F(StrangerTest, IsTakenIfTheHubIsToldSo) {
  startHub({"-any_user"});
  comeAsStranger("test \"$(head -c 4 <&3 | wc -c)\" = 4");
}
