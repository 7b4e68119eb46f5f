// vesta-kx as a process: one per user, a clean end when asked to stop, its options and its
// refusal of a bad scenario.
#include <gtest/gtest.h>

#include "server_harness.h"

namespace qv::servertest {
namespace {

// Whether the well-known pipe of `user` exists as a file (POSIX sockets; Windows pipes are
// never files, so there it is only ever absent).
bool WellKnownSocketExists(const std::u16string& user) {
  return !RunDir().empty() && std::filesystem::exists(std::filesystem::path(RunDir()) /
                                                      ("qv_ve_svr_" + platform::Utf16ToUtf8(user)));
}

TEST(ServerProcessTest, ASecondServerExitsAtOnceAndTheFirstEndsCleanlyWhenAsked) {
  const std::u16string user = TestUser();
  ServerProcess first(user, {"--log-level", "4"}, "first");
  ASSERT_TRUE(first.Started());
  ASSERT_TRUE(first.WaitReady()) << first.Output();
  EXPECT_EQ(WellKnownSocketExists(user), !RunDir().empty());

  ServerProcess second(user, {}, "second");
  ASSERT_TRUE(second.Started());
  EXPECT_EQ(second.Wait(10000), std::optional<int>(3));
  EXPECT_NE(second.Output().find("another vesta-kx already serves"), std::string::npos)
      << second.Output();

  // The first one still serves, on the built-in scenario.
  {
    Client client(user);
    const auto list = client.Call(kNone, CGetTargetListRequest{});
#ifdef __linux__
    EXPECT_EQ(list.Targets.size(), 4u);  // and the local target
#else
    EXPECT_EQ(list.Targets.size(), 3u);
#endif
  }
  first.StopCleanly();
  // Level 4 logs every request with its result.
  EXPECT_NE(first.Output().find("GET_TARGET_LIST target 4294967295 -> 0x00000000"),
            std::string::npos)
      << first.Output();
  EXPECT_FALSE(WellKnownSocketExists(user));
  EXPECT_FALSE(platform::ServerIsReady(user, RunDir(), 0));

  // With the first gone, a new one may serve.
  ServerProcess third(user, {}, "third");
  ASSERT_TRUE(third.WaitReady()) << third.Output();
  third.StopCleanly();
}

TEST(ServerProcessTest, OptionsAndScenarioMistakesThatEndAtOnce) {
  const std::string bad = WriteScenario("kits:\n  - host: a\n    power: sideways\n", "bad");
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string output;
  };
  const Case cases[] = {
      {{"--version"}, 0, "vesta-kx 5.0.10.0"},
      {{"--help"}, 0, "--scenario FILE"},
      {{"--scenario"}, 2, "needs a value"},
      {{"--runtime-dir", "/tmp"}, 2, "unknown argument '--runtime-dir'"},
      {{"--scenario", "/nonexistent/kits.yaml"}, 2, "/nonexistent/kits.yaml: cannot be opened"},
      // A scenario's mistake is named with its file and line.
      {{"--scenario", bad}, 2, bad + ":3: 'power' must be on, off or standby"},
  };
  const std::u16string user = TestUser();
  for (const Case& c : cases) {
    ServerProcess process(user, c.args, "options");
    ASSERT_TRUE(process.Started());
    EXPECT_EQ(process.Wait(10000), std::optional<int>(c.code)) << c.args[0];
    EXPECT_NE(process.Output().find(c.output), std::string::npos) << process.Output();
  }
  // None of them left a server behind.
  EXPECT_FALSE(platform::ServerIsReady(user, RunDir(), 0));
}

}  // namespace
}  // namespace qv::servertest
