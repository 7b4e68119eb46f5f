// Generic protocol channels through the public objects against a real vesta-kx: the endpoints of
// a scenario, and on Linux a protocol of the local target forwarded to a TCP server of the test.
#include <gtest/gtest.h>

#ifdef __linux__
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <cctype>
#include <string>
#include <thread>
#include <vector>

#include "api/event_sink_recorder.h"
#include "api/live_api.h"

namespace qv::apitest {
namespace {

using servertest::WaitUntil;
using Bytes = std::vector<uint8_t>;

constexpr char kProtocolScenario[] = R"(kits:
  - host: kit-one
    power: on
    protocols:
      - {number: 1, endpoint: echo}
      - {number: 2, endpoint: source, length: 70000, pattern: "00 ff 01"}
      - {number: 3, endpoint: sink}
      - number: 4
        endpoint: script
        steps:
          - {send: "hello\n"}
          - {expect: ping}
          - {send: "pong\n"}
          - {after_ms: 50, status: down}
          - {after_ms: 50, status: up}
          - {close: true}
)";

// Reads until `size` bytes came or a read fails; the failure, S_OK when they all came.
HRESULT ReadBytes(IGenericProtocol& channel, size_t size, Bytes& bytes) {
  bytes.clear();
  for (int quiet = 0; bytes.size() < size && quiet < 20;) {
    vekx::Variant data;
    if (HRESULT hr = channel.Read(static_cast<ULONG>(size - bytes.size()), data.Put()); FAILED(hr))
      return hr;
    const SAFEARRAY* array = data.Get().parray;
    if (data.Type() != (VT_ARRAY | VT_UI1) || array == nullptr) return E_UNEXPECTED;
    const auto* first = static_cast<const uint8_t*>(array->pvData);
    bytes.insert(bytes.end(), first, first + array->rgsabound[0].cElements);
    quiet = array->rgsabound[0].cElements == 0 ? quiet + 1 : 0;
  }
  return S_OK;
}

class GenericProtocolTest : public LiveApiTest {
 protected:
  std::string Scenario() const override { return kProtocolScenario; }
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(LiveApiTest::SetUp());
    target_ = Target(host_);
    ASSERT_TRUE(target_);
  }

  // `protocol` of the test's target, opened with `sink` (the test's own unless given).
  vekx::ComPtr<IGenericProtocol> Open(uint32_t protocol, IEventGenericProtocol* sink = nullptr) {
    vekx::ComPtr<IGenericProtocol> channel;
    EXPECT_OK(target_->OpenGenericProtocol(protocol, sink ? sink : sink_.Get(), channel.Put()));
    return channel;
  }

  // An advised sink holds the private client: the test's is unadvised before the root goes.
  void TearDown() override {
    if (target_) target_->UnadviseGenericProtocolEvents(sink_.Get());
    LiveApiTest::TearDown();
  }

  const char* host_ = "kit-one";
  vekx::ComPtr<RecordingSink> sink_ = vekx::MakeSink<RecordingSink>();
  vekx::ComPtr<ITarget47> target_;
};

TEST_F(GenericProtocolTest, EchoReturnsBinaryDataWhole) {
  auto channel = Open(1);
  ASSERT_TRUE(channel);
  Bytes sent(200000);
  for (size_t i = 0; i < sent.size(); ++i)
    sent[i] = static_cast<uint8_t>(i * 7 % 251);  // zeros included
  const vekx::Variant array = ArrayOf(VT_UI1, std::vector<uint64_t>(sent.begin(), sent.end()));
  // One call takes at most 64 KiB; the count says where the next starts.
  std::vector<ULONG> counts;
  for (LONG offset = 0; offset < static_cast<LONG>(sent.size());) {
    ULONG written = 0;
    ASSERT_OK(channel->Write(array.Get(), offset, &written));
    counts.push_back(written);
    offset += static_cast<LONG>(written);
  }
  EXPECT_EQ(counts, (std::vector<ULONG>{65536, 65536, 65536, 3392}));
  Bytes back;
  ASSERT_OK(ReadBytes(*channel.Get(), sent.size(), back));
  EXPECT_EQ(back, sent);
  EXPECT_EQ(Get(channel.Get(), &IGenericProtocol::get_Status), VARIANT_TRUE);

  // An offset outside the array is the caller's mistake and sends nothing; the channel goes on.
  ULONG written = 7;
  EXPECT_EQ(channel->Write(array.Get(), -1, &written), E_INVALIDARG);
  EXPECT_EQ(channel->Write(array.Get(), 200001, &written), E_INVALIDARG);
  EXPECT_EQ(written, 7u);
  EXPECT_OK(channel->Close());
  EXPECT_EQ(channel->Close(), KXAPI_COMMS_ERR_INVALID_PROTOCOL);
}

TEST_F(GenericProtocolTest, SourceSendsItsLengthThenCloses) {
  auto channel = Open(2);
  ASSERT_TRUE(channel);
  Bytes got;
  EXPECT_EQ(ReadBytes(*channel.Get(), 80000, got), KXAPI_COMMS_ERR_ULP_DISCONNECT);
  EXPECT_EQ(TakeErrorText(),
            "Target error - The upper-layer protocol disconnected. protocol 2 was closed by its "
            "endpoint");
  ASSERT_EQ(got.size(), 70000u);
  const uint8_t pattern[] = {0x00, 0xff, 0x01};
  for (size_t i = 0; i < got.size(); ++i)
    ASSERT_EQ(got[i], pattern[i % 3]) << "at " << i;
  EXPECT_EQ(Get(channel.Get(), &IGenericProtocol::get_Status), VARIANT_FALSE);
}

TEST_F(GenericProtocolTest, FailedOpenLeavesNoRegistration) {
  vekx::ComPtr<IGenericProtocol> channel;
  EXPECT_EQ(target_->OpenGenericProtocol(9, sink_.Get(), channel.Put()),
            KXAPI_COMMS_ERR_NOPROTOCOL);
  EXPECT_EQ(TakeErrorText(),
            "Target error - The protocol is not available. 'kit-one' has no protocol 9");
  EXPECT_FALSE(channel);
  const ULONG handle = HandleOf(target_);
  EXPECT_EQ(client_->RegistrationCount(EventGroup::GenericProtocol, handle), 0u);
  // The same sink again is not refused as registered, and a second open of one number is.
  channel = Open(3);
  auto second = vekx::MakeSink<RecordingSink>();
  vekx::ComPtr<IGenericProtocol> again;
  EXPECT_EQ(target_->OpenGenericProtocol(3, second.Get(), again.Put()),
            KXAPI_COMMS_ERR_ALREADY_CONNECTED);
  EXPECT_EQ(client_->RegistrationCount(EventGroup::GenericProtocol, handle), 1u);
}

TEST_F(GenericProtocolTest, ScriptTalksAndItsStatusReachesEverySink) {
  auto other = vekx::MakeSink<RecordingSink>();
  auto echo = Open(1, other.Get());
  auto script = Open(4);
  ASSERT_TRUE(echo && script);
  Bytes got;
  ASSERT_OK(ReadBytes(*script.Get(), 6, got));
  EXPECT_EQ(got, (Bytes{'h', 'e', 'l', 'l', 'o', '\n'}));
  ULONG written = 0;
  ASSERT_OK(script->Write(ArrayOf(VT_UI1, {'p', 'i', 'n', 'g', '\n'}).Get(), 0, &written));
  ASSERT_OK(ReadBytes(*script.Get(), 5, got));
  EXPECT_EQ(got, (Bytes{'p', 'o', 'n', 'g', '\n'}));

  // Both sinks of the target hear protocol 4 go down and come back, whichever they opened.
  for (RecordingSink* sink : {sink_.Get(), other.Get()}) {
    ASSERT_TRUE(WaitUntil([&] { return sink->CallCount() >= 2; }));
    EXPECT_EQ(sink->Values("OnProtocolStatus", "Protocol"), (std::vector<std::string>{"4", "4"}));
    EXPECT_EQ(sink->Values("OnProtocolStatus", "Availability"),
              (std::vector<std::string>{"false", "true"}));
  }
  // Then the script hangs up.
  EXPECT_EQ(ReadBytes(*script.Get(), 1, got), KXAPI_COMMS_ERR_ULP_DISCONNECT);
  EXPECT_OK(target_->UnadviseGenericProtocolEvents(other.Get()));
}

#ifdef __linux__
// A TCP server of the test on the loopback interface: it answers each connection's first bytes
// in upper case and hangs up.
class ForwardTest : public GenericProtocolTest {
 protected:
  void SetUp() override {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(listener_, 1), 0);
    ASSERT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
    server_thread_ = std::thread([this] {
      const int peer = accept(listener_, nullptr, nullptr);
      char text[64] = {};
      const ssize_t got = recv(peer, text, sizeof text, 0);
      for (ssize_t i = 0; i < got; ++i)
        text[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
      if (got > 0) send(peer, text, static_cast<size_t>(got), MSG_NOSIGNAL);
      close(peer);
    });
    host_ = "localhost";
    GenericProtocolTest::SetUp();
  }
  void TearDown() override {
    GenericProtocolTest::TearDown();
    shutdown(listener_, SHUT_RDWR);
    server_thread_.join();
    close(listener_);
  }
  std::string Scenario() const override {
    return "local:\n  protocols:\n    - {number: 7, endpoint: forward, to: \"tcp:127.0.0.1:" +
           std::to_string(port_) + "\"}\n";
  }

  int listener_ = -1;
  uint16_t port_ = 0;
  std::thread server_thread_;
};

TEST_F(ForwardTest, OpenConnectsToTheForwardedPort) {
  auto channel = Open(7);
  ASSERT_TRUE(channel);
  ULONG written = 0;
  ASSERT_OK(channel->Write(ArrayOf(VT_UI1, {'a', 'b', 0, 'c'}).Get(), 0, &written));
  EXPECT_EQ(written, 4u);
  Bytes got;
  EXPECT_EQ(ReadBytes(*channel.Get(), 8, got), KXAPI_COMMS_ERR_ULP_DISCONNECT);
  EXPECT_EQ(got, (Bytes{'A', 'B', 0, 'C'}));
  EXPECT_EQ(Get(channel.Get(), &IGenericProtocol::get_Status), VARIANT_FALSE);
}
#endif

}  // namespace
}  // namespace qv::apitest
