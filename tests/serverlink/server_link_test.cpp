#include "serverlink/server_link.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "platform/process_identity.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "support/scripted_server.h"
#include "support/test_environment.h"

namespace qv {
namespace {

using testing::Reply;
using testing::ScriptedServer;
using testing::WaitUntil;

class ServerLinkTest : public ::testing::Test {
 protected:
  // Starts a scripted server for this test's user.
  ScriptedServer& Serve(testing::Script script, ScriptedServer::Options options = {}) {
    options.user = user_;
    server_ = std::make_unique<ScriptedServer>(options, std::move(script));
    EXPECT_TRUE(server_->Start());
    return *server_;
  }

  std::unique_ptr<ServerLink> MakeLink() {
    // Notifications reaching the hook are tested through the private client.
    return std::make_unique<ServerLink>(
        ResponseFactory(), NotificationFactory(),
        ServerLink::ServerNames{user_, platform::ServerRuntimeDirectory().value_or("")},
        ServerLink::Hooks{nullptr, [this] { ++connected_hooks_; }});
  }

  // A user name of its own per test, so that no two tests (or a real server) share a pipe name.
  std::u16string user_ = testing::UniqueUser("vkxtest");
  std::unique_ptr<ScriptedServer> server_;
  std::atomic<int> connected_hooks_{0};
};

// A GET_TARGET_LIST call, the request most of these tests send.
LinkStatus ListTargets(ServerLink& link) {
  CGetTargetListRequest request;
  CGetTargetListResponse response;
  uint32_t sequence = 0;
  return link.SendAndWait(kNoTarget, request, response, sequence);
}

TEST_F(ServerLinkTest, DroppedAnswersLeaveOnlyTheirCallerWaitingUntilTheConnectionEnds) {
  std::atomic<int> seen{0};
  Serve([&](const testing::ReceivedRequest&) {
    Reply reply;
    const int n = seen++;
    if (n == 0) reply.kind = Reply::Kind::kUnawaited;   // the first caller's answer goes astray
    if (n == 2) reply.kind = Reply::Kind::kBadFrame;    // then the server breaks the stream
    if (n == 4) reply.kind = Reply::Kind::kWrongClass;  // and at last answers with another class
    return reply;
  });
  auto link = MakeLink();
  EXPECT_FALSE(link->IsConnected()) << "it connects on the first call";
  auto first = std::async(std::launch::async, [&] { return ListTargets(*link); });
  ASSERT_TRUE(WaitUntil([&] { return seen >= 1; }));

  CGetDefaultTargetRequest second;
  CGetDefaultTargetResponse answer;
  uint32_t sequence = 0;
  EXPECT_EQ(link->SendAndWait(kNoTarget, second, answer, sequence), LinkStatus::kSuccess);

  // A frame with a bad first word ends the reader: every waiter wakes with the wait error.
  CGetServerVersionRequest third;
  CGetServerVersionResponse lost;
  EXPECT_EQ(link->SendAndWait(kNoTarget, third, lost, sequence), LinkStatus::kWaitFailed);
  ASSERT_EQ(first.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(first.get(), LinkStatus::kWaitFailed);

  // The next call connects again.
  EXPECT_EQ(link->SendAndWait(kNoTarget, second, answer, sequence), LinkStatus::kSuccess);
  EXPECT_EQ(link->SendAndWait(kNoTarget, second, answer, sequence), LinkStatus::kWrongResponseType);
  EXPECT_EQ(server_->Connections(), 2);
  EXPECT_EQ(connected_hooks_, 2);
}

TEST_F(ServerLinkTest, DisconnectAndShutdownEndEveryBlockedWait) {
  Serve([](const testing::ReceivedRequest&) { return Reply{.kind = Reply::Kind::kSilent}; });
  auto link = MakeLink();
  // After Disconnect the next call connects again, and waits again.
  int requests = 0;
  for (void (ServerLink::*end)() : {&ServerLink::Disconnect, &ServerLink::Shutdown}) {
    auto waiting = std::async(std::launch::async, [&] { return ListTargets(*link); });
    ASSERT_TRUE(WaitUntil([&] { return server_->Requests() > requests; }));
    ++requests;
    ((*link).*end)();
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), LinkStatus::kWaitFailed);
  }
  EXPECT_EQ(link->Connect(), LinkStatus::kShuttingDown);
}

TEST_F(ServerLinkTest, HandshakeFailuresReportTheirStatus) {
  struct Case {
    const char* what;
    ScriptedServer::Options options;
    LinkStatus status;
  };
  const Case cases[] = {
      {"wrong version", {.version = {5, 0, 11, 0}}, LinkStatus::kVersionMismatch},
      {"empty pipe name", {.empty_pipe_name = true}, LinkStatus::kConnectFailed},
      {"handshake cut short", {.cut_handshake = true}, LinkStatus::kConnectFailed},
  };
  for (const Case& c : cases) {
    user_ = testing::UniqueUser("vkxtest");
    Serve([](const testing::ReceivedRequest&) { return Reply{}; }, c.options);
    auto link = MakeLink();
    EXPECT_EQ(link->Connect(), c.status) << c.what;
    EXPECT_FALSE(link->IsConnected()) << c.what;
    EXPECT_EQ(connected_hooks_, 0) << c.what;
    server_->Stop();
  }
}

// With no server running, the link starts the one it finds along PATH (here the scripted stand-in
// built as vesta-kx, which ends once its alive file has gone) and gives up on one that never
// becomes ready.
TEST_F(ServerLinkTest, AServerItStartsThatNeverBecomesReadyIsGivenUpOn) {
  testing::TempDir dir;
  const std::filesystem::path alive = dir.path() / "alive";
  std::ofstream(alive) << "serve\n";
  testing::ScopedVariable scripted_user("VEKX_SCRIPTED_USER", platform::Utf16ToUtf8(user_));
  testing::ScopedVariable alive_file("VEKX_SCRIPTED_ALIVE_FILE", alive.string());
  testing::ScopedVariable path("PATH", testing::PathStartingWith(VEKX_SCRIPTED_SERVER_DIR));
  testing::ScopedVariable not_ready("VEKX_SCRIPTED_NOT_READY", "1");
  auto link = MakeLink();
  EXPECT_EQ(link->Connect(), LinkStatus::kServerNotReachable);
  EXPECT_FALSE(link->IsConnected());
}

// Sequence numbers wrap, and a request beyond the frame limit is never sent.
TEST_F(ServerLinkTest, SequenceNumbersWrapAndAnOversizedRequestIsNotSent) {
  std::vector<uint32_t> sequences;
  std::mutex seen_mutex;
  Serve([&](const testing::ReceivedRequest& received) {
    std::lock_guard lock(seen_mutex);
    sequences.push_back(received.sequence);
    return Reply{};
  });
  auto link = MakeLink();
  ASSERT_EQ(link->Connect(), LinkStatus::kSuccess);
  link->SetSequenceForTesting(0x7FFFFFFE);
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(ListTargets(*link), LinkStatus::kSuccess);
  EXPECT_EQ(sequences, (std::vector<uint32_t>{0x7FFFFFFF, 0, 1}));

  CGenericProtocolWriteRequest huge;
  huge.Data.resize(kMaxFrameBodyBytes);  // plus its header and count: over the limit
  CGenericProtocolWriteResponse response;
  uint32_t sequence = 0;
  EXPECT_EQ(link->SendAndWait(2, huge, response, sequence), LinkStatus::kWriteFailed);
  EXPECT_EQ(ListTargets(*link), LinkStatus::kSuccess);
  EXPECT_EQ(server_->Requests(), 4);
}

}  // namespace
}  // namespace qv
