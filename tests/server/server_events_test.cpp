// The console cache, console input and the pacing of console output on acknowledgements, against a
// running vesta-kx. Scripted notifications reaching their sinks, with every field, are the API's
// event test (tests/api/event_delivery_test.cpp).
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/wide_string.h"
#include "server/targets/console_pacing.h"
#include "server_harness.h"

namespace qv::servertest {
namespace {

using server::kConsoleBacklog;
using server::kConsoleInFlight;

// kit-flood writes a window and a backlog of pieces at once, and 112 more.
constexpr uint32_t kFlood = kConsoleInFlight + kConsoleBacklog + 112;

const std::string kEventsScenario = R"(kits:
  - {host: kit-two, power: on}
  - host: kit-flood
    power: on
    scripts:
      - steps:
          - notification: CONSOLE_OUTPUT
            fields: {Text: x}
            repeat: )" + std::to_string(kFlood) +
                                    "\n";

class EventsTest : public ServerTest {
 protected:
  void SetUp() override { StartServer(false, kEventsScenario); }

  static ConsoleCacheRecordList FetchAll(Client& client, uint32_t handle) {
    ConsoleCacheRecordList all;
    CFetchConsoleCacheRequest request;
    for (;;) {
      const auto response = client.Call(handle, request);
      EXPECT_EQ(response.Result, 0u);
      if (response.Records.empty() || response.Result != 0) return all;
      all.insert(all.end(), response.Records.begin(), response.Records.end());
      request.StartIndex = response.NextIndex;
    }
  }
  static uint32_t UpperBound(Client& client, uint32_t handle) {
    return client.Call(handle, CGetConsoleCacheUBoundRequest{}).UpperBound;
  }

  Client a_{user_};
  Client b_{user_};
};

// Echo, sizes and clearing are seen through the library (tests/api/event_delivery_test.cpp);
// these are requests it refuses to send or cannot address.
TEST_F(EventsTest, ConsoleInputAndCacheSizeRefuseWhatTheyCannotTake) {
  const uint32_t two = a_.HandleOf(u"kit-two");
  CSendConsoleInputWithEchoRequest echo;
  EXPECT_EQ(b_.Call(two, echo).Result, Code(KXAPI_SERVER_INVALID_ARG));
  CSendConsoleInputRequest plain;
  plain.Text = u"quiet";
  EXPECT_EQ(b_.Call(4242, plain).Result, Code(KXAPI_SERVER_INVALID_TARGET));
  CSetConsoleCacheSizeRequest size;
  size.Size = 1048577;
  EXPECT_EQ(b_.Call(two, size).Result, Code(KXAPI_SERVER_INVALID_ARG));
}

// A client that does not acknowledge gets the first window of kit-flood's pieces; a backlog more
// waits for it and the rest are dropped for it, which it learns once it catches up.
TEST_F(EventsTest, ConsoleOutputIsPacedOnAcknowledgementsAndDropsAreReported) {
  const uint32_t flood = a_.HandleOf(u"kit-flood");
  EXPECT_EQ(a_.Call(flood, CRequestConsoleOutputEventsRequest{}).Result, 0u);
  a_.WaitNotifications(kConsoleInFlight);
  ASSERT_TRUE(WaitUntil([&] { return UpperBound(b_, flood) == kFlood; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(a_.Notifications().size(), kConsoleInFlight);

  // Acknowledged as the library does: without waiting for the answer.
  size_t acknowledged = 0;
  const auto acknowledge = [&](size_t count) {
    for (size_t i = 0; i < count; ++i, ++acknowledged) {
      uint32_t sequence = 0;
      uint64_t epoch = 0;
      EXPECT_EQ(a_.link().SendRequest(flood, CAckConsoleOutputRequest{}, sequence, false, epoch),
                LinkStatus::kSuccess);
    }
  };
  // A full window refills once half of it is acknowledged, not piece by piece.
  acknowledge(kConsoleInFlight / 2 - 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(a_.Notifications().size(), kConsoleInFlight);
  acknowledge(1);
  EXPECT_EQ(a_.WaitNotifications(kConsoleInFlight * 3 / 2).size(), kConsoleInFlight * 3 / 2);
  const auto last_text = [&] {
    const auto pieces = a_.Notifications();
    acknowledge(pieces.size() - acknowledged);
    return As<CConsoleOutputNotification>(pieces.back())->Text;
  };
  ASSERT_TRUE(WaitUntil([&] { return last_text() != u"x"; }, 60000));
  const auto pieces = a_.Notifications();
  EXPECT_EQ(pieces.size(), kConsoleInFlight + kConsoleBacklog + 1);
  const std::string notice =
      platform::Utf16ToUtf8(As<CConsoleOutputNotification>(pieces.back())->Text);
  EXPECT_NE(notice.find("112 pieces of console output were not sent"), std::string::npos) << notice;
  // The cache kept its newest 1024 regardless, then the notice.
  EXPECT_EQ(UpperBound(b_, flood), kFlood + 1);
  const ConsoleCacheRecordList cached = FetchAll(b_, flood);
  ASSERT_EQ(cached.size(), 1024u);
  EXPECT_EQ(platform::Utf16ToUtf8(cached.back().Text), notice);
}

}  // namespace
}  // namespace qv::servertest
