// A client that sends what the library never would: the server answers what it can address,
// closes what it cannot delimit, and keeps serving everybody else.
#include <gtest/gtest.h>

#include "platform/wide_string.h"
#include "server_harness.h"
#include "support/wire_bytes.h"

namespace qv::servertest {
namespace {

// On the quick scenario.
class HostileTest : public ServerTest {
 protected:
  HostileTest() { extra_args_ = {"--frame-timeout", "0.3"}; }

  // The well-behaved client still gets its answers.
  void ExpectServerServes() {
    const auto version = good_.Call(kNone, CGetServerVersionRequest{});
    EXPECT_EQ(version.Result, 0u);
    EXPECT_EQ(version.Major, 5u);
  }

  Client good_{user_};
};

template <class... T>
std::vector<uint8_t> Words(T... words) {
  return testing::HandBytes().U32(words...).bytes();
}

TEST_F(HostileTest, RequestsThatCannotBeDecodedAreAnsweredAndTheConnectionStays) {
  RawClient raw{user_};
  ASSERT_TRUE(raw.Connect());
  struct Case {
    const char* what;
    uint32_t type_number;
    std::vector<uint8_t> fields;
    eErrorCode expected;
    const char* text;  // null: a success, which this operation does not answer
  };
  constexpr auto kBad = KXAPI_SERVER_INVALID_REQUEST;
  const Case cases[] = {
      {"unknown type number", 0x01020304, {}, kBad, "0x01020304"},
      // The client does not wait for an acknowledgement's answer; a refused one is answered.
      {"acknowledgement", CAckConsoleOutputRequest::kTypeNumber, {}, KXAPI_SUCCESS, nullptr},
      {"acknowledgement with bytes after it", CAckConsoleOutputRequest::kTypeNumber, Words(0), kBad,
       "ACK_CONSOLE_OUTPUT"},
      // A string count that promises more units than follow.
      {"truncated string", CAddTargetRequest::kTypeNumber, Words(50, 0x00410041), kBad,
       "ADD_TARGET"},
      {"missing field", CSetDefaultTargetRequest::kTypeNumber, {1, 0}, kBad, "SET_DEFAULT_TARGET"},
      {"bytes after the fields", CGetTargetListRequest::kTypeNumber, {0}, kBad, "GET_TARGET_LIST"},
      {"operation not implemented",
       CCaptureScreenShotRequest::kTypeNumber,
       {},
       KXAPI_SERVER_NOT_IMPLEMENTED,
       "CAPTURE_SCREEN_SHOT"},
  };
  uint32_t sequence = 100;
  for (const Case& c : cases) {
    ASSERT_TRUE(raw.WriteRequest(c.type_number, kNone, ++sequence, c.fields)) << c.what;
    if (c.text == nullptr) continue;
    uint32_t type_number = 0;
    CResponse head;
    ASSERT_TRUE(raw.ReadResponseHead(type_number, head)) << c.what;
    EXPECT_EQ(type_number, c.type_number) << c.what;
    EXPECT_EQ(head.Sequence, sequence) << c.what;
    EXPECT_EQ(head.Result, Code(c.expected)) << c.what;
    EXPECT_NE(platform::Utf16ToUtf8(head.ResultText).find(c.text), std::string::npos)
        << c.what << ": " << platform::Utf16ToUtf8(head.ResultText);
  }
  // The same connection still serves a well-formed request.
  ASSERT_TRUE(raw.WriteRequest(CGetServerVersionRequest::kTypeNumber, kNone, 999, {}));
  uint32_t type_number = 0;
  CResponse head;
  ASSERT_TRUE(raw.ReadResponseHead(type_number, head));
  EXPECT_EQ(head.Result, 0u);
  EXPECT_EQ(head.Sequence, 999u);
}

// A SET_MEMORY of 1 MiB whose data stops after 8 KiB: it stalls while being taken apart.
std::vector<uint8_t> StalledLargeBody() {
  const uint32_t body = 1 << 20;
  std::vector<uint8_t> bytes = testing::HandBytes()
                                   .U32(0, body, CSetMemoryRequest::kTypeNumber, 1, 1, 1)
                                   .U64(0x1000)
                                   .U32(body - 28)
                                   .bytes();
  bytes.resize(bytes.size() + 8192);
  return bytes;
}

TEST_F(HostileTest, FramesThatCannotBeDelimitedCloseThatConnectionOnly) {
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      {"bad reserved word", Words(1, 12, 0, 0)},
      {"body beyond the limit", Words(0, kMaxFrameBodyBytes + 1, 0, 0)},
      {"frame without a request header", Words(0, 4, 0, 0, 7)},
      // Bodies that stop arriving: a small one, and a large one taken apart as it comes.
      {"body that stalls", Words(0, 100, 0, 0, 0)},
      {"large body that stalls", StalledLargeBody()},
  };
  for (const Case& c : cases) {
    RawClient raw{user_};
    ASSERT_TRUE(raw.Connect()) << c.what;
    ASSERT_TRUE(raw.WriteRaw(c.bytes.data(), c.bytes.size())) << c.what;
    EXPECT_TRUE(raw.ClosedByServer()) << c.what;
    ExpectServerServes();
  }
}

TEST_F(HostileTest, ABadHandshakeIsRefusedAndTheWellKnownPipeKeepsServing) {
  const std::vector<uint8_t> requests[] = {
      Words(12345, 1, 2),     // wrong magic word
      Words(32768, 1),        // too short
      Words(32768, 1, 2, 3),  // too long
  };
  for (const auto& body : requests) {
    RawClient raw{user_};
    ASSERT_TRUE(raw.OpenWellKnown());
    ASSERT_TRUE(raw.WriteFrame(body.data(), body.size()));
    EXPECT_TRUE(raw.ClosedByServer());
  }
  // A client that connects and says nothing does not hold up the next one.
  RawClient silent{user_};
  ASSERT_TRUE(silent.OpenWellKnown());
  ExpectServerServes();
}

}  // namespace
}  // namespace qv::servertest
