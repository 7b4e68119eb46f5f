// The link finds the server along PATH and starts it when none runs, and starts it again after it
// died in the middle of a call. The server here is the scripted stand-in built as vesta-kx.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/process_identity.h"
#include "platform/server_process.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/server_link.h"
#include "support/test_environment.h"

namespace qv {
namespace {

using testing::ScopedVariable;

#ifdef _WIN32
constexpr char kPathSeparator = ';';
#else
constexpr char kPathSeparator = ':';
#endif

class ServerStartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    std::ofstream(alive_file_) << "serve\n";
  }
  // Ends every scripted server this test started.
  void TearDown() override {
    std::error_code error;
    std::filesystem::remove(alive_file_, error);
  }

  std::unique_ptr<ServerLink> MakeLink() {
    return std::make_unique<ServerLink>(
        ResponseFactory(), NotificationFactory(),
        ServerLink::ServerNames{user_, platform::ServerRuntimeDirectory().value_or("")},
        ServerLink::Hooks{});
  }

  // The process id of the server that answers, or 0 when the call fails (the test fails then,
  // naming the link's status).
  static uint32_t ServerPid(ServerLink& link) {
    CGetServerVersionRequest request;
    CGetServerVersionResponse response;
    uint32_t sequence = 0;
    const LinkStatus status = link.SendAndWait(kNoTarget, request, response, sequence);
    EXPECT_EQ(status, LinkStatus::kSuccess);
    return status == LinkStatus::kSuccess ? response.Build : 0;
  }

  std::u16string user_ = testing::UniqueUser("vkxstart");
  testing::TempDir dir_;
  std::filesystem::path alive_file_ = dir_.path() / "alive";
  ScopedVariable scripted_user_{"VEKX_SCRIPTED_USER", platform::Utf16ToUtf8(user_)};
  ScopedVariable alive_{"VEKX_SCRIPTED_ALIVE_FILE", alive_file_.string()};
};

TEST_F(ServerStartTest, StartsTheServerFromPathAndAgainAfterItDied) {
  const char* old_path = std::getenv("PATH");
  ScopedVariable path(
      "PATH", std::string(VEKX_SCRIPTED_SERVER_DIR) + kPathSeparator + (old_path ? old_path : ""));
  auto link = MakeLink();
  const uint32_t first = ServerPid(*link);
  ASSERT_NE(first, 0u);
  EXPECT_NE(first, platform::CurrentProcessId());
  EXPECT_EQ(ServerPid(*link), first);  // the same server while it lives

  // The server dies before it answers: the waiting call fails, the next one starts a new server.
  CPowerOffRequest power_off;
  CPowerOffResponse lost;
  uint32_t sequence = 0;
  EXPECT_EQ(link->SendAndWait(2, power_off, lost, sequence), LinkStatus::kWaitFailed);
  // The broken pipe can arrive before the dying process has let go of its readiness sign; a
  // call in that moment would find a server "running" whose pipe nobody serves any more.
  ASSERT_TRUE(testing::WaitUntil([&] {
    return !platform::ServerIsReady(user_, platform::ServerRuntimeDirectory().value_or(""), 0);
  }));
  const uint32_t second = ServerPid(*link);
  EXPECT_NE(second, 0u);
  EXPECT_NE(second, first);
}

TEST_F(ServerStartTest, AServerThatNeverBecomesReadyIsGivenUpOn) {
  const char* old_path = std::getenv("PATH");
  ScopedVariable path(
      "PATH", std::string(VEKX_SCRIPTED_SERVER_DIR) + kPathSeparator + (old_path ? old_path : ""));
  ScopedVariable not_ready("VEKX_SCRIPTED_NOT_READY", "1");
  auto link = MakeLink();
  EXPECT_EQ(link->Connect(), LinkStatus::kServerNotReachable);
  EXPECT_FALSE(link->IsConnected());
}

}  // namespace
}  // namespace qv
