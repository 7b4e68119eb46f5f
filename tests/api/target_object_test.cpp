// Target objects end to end against a real vesta-kx on the quick scenario: kit-one (on, the
// default), kit-two (off), kit-gone (unreachable) and kit-slow (a 20 s boot).
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "api/live_api.h"
#include "api/server_call.h"
#include "platform/process_identity.h"
#include "requests/catalogue.h"
#include "requests/target_states.h"
#include "vekxapi/library.h"

namespace qv::apitest {
namespace {

using servertest::WaitUntil;

// A second root object is a second client of the server, so that two can contend for one kit.
class TargetObjectTest : public LiveApiTest {
 protected:
  void SetUp() override {
    LiveApiTest::SetUp();
    other_api_ = CheckedRoot();
    ASSERT_TRUE(other_api_);
  }
  void TearDown() override {
    if (other_api_) other_api_->Dispose();
    other_api_.Reset();
    LiveApiTest::TearDown();
  }

  // A target object for `host` from the second client.
  vekx::ComPtr<ITarget47> OtherTarget(const char* host) { return Target(host, other_api_.Get()); }

  static ePowerStatus Power(ITarget47* target) { return Get(target, &ITarget::get_PowerStatus); }
  static bool IsDefault(ITarget47* target) {
    return Get(target, &ITarget::get_Default) == VARIANT_TRUE;
  }

  vekx::ComPtr<IVEKXAPI12> other_api_;
};

TEST_F(TargetObjectTest, PowerChangesFollowTheKitAndRefuseTheStateItIsIn) {
  auto two = Target("kit-two");
  EXPECT_EQ(Power(two.Get()), POWER_STATUS_OFF);
  EXPECT_EQ(two->PowerOff(), KXAPI_COMMS_ERR_INVALID_POWER_STATE);
  EXPECT_EQ(TakeErrorText(),
            "Target error - The power state is invalid. 'kit-two' is already off (Off)");

  // A reboot is the Python binding's (tests/python, test_a_power_action_changes_the_state...).
  EXPECT_OK(two->PowerOn());
  EXPECT_TRUE(WaitUntil([&] { return Power(two.Get()) == POWER_STATUS_ON; }));
  EXPECT_EQ(two->PowerOn(), KXAPI_COMMS_ERR_INVALID_POWER_STATE);
  EXPECT_OK(two->ForcePowerOff());
  EXPECT_TRUE(WaitUntil([&] { return Power(two.Get()) == POWER_STATUS_OFF; }));

  // Suspend, refused unsent, is PropertiesComeFromTheServer's. The unreachable kit's connect, its
  // code and text, is vesta-ctrl's (tests/cli/vesta_ctrl_test.cpp, FailuresExitWithOneAndSayWhy).
  EXPECT_EQ(two->get_PowerStatus(nullptr), E_POINTER);
}

TEST_F(TargetObjectTest, OneClientHoldsTheConnectionAtATime) {
  auto mine = Target("kit-one");
  auto theirs = OtherTarget("kit-one");
  EXPECT_EQ(Get(mine.Get(), &ITarget::get_ConnectionState), CONNECTION_AVAILABLE);
  vekx::Bstr info;
  EXPECT_EQ(mine->get_ConnectionInfo(info.Put()), KXAPI_COMMS_ERR_NOT_CONNECTED);

  ASSERT_OK(mine->Connect());
  EXPECT_EQ(Get(mine.Get(), &ITarget::get_ConnectionState), CONNECTION_CONNECTED);
  EXPECT_EQ(Get(theirs.Get(), &ITarget::get_ConnectionState), CONNECTION_IN_USE);
  EXPECT_EQ(GetText(mine.Get(), &ITarget::get_ConnectionInfo), "kit-one (virtual kit 'One')");
  EXPECT_EQ(theirs->Connect(), KXAPI_COMMS_ERR_TARGET_IN_USE);

  // A request for the connection is granted once the holder lets it go.
  auto request = std::async(std::launch::async, [&] { return theirs->RequestConnection(); });
  EXPECT_OK(mine->ReleaseConnection());
  EXPECT_OK(request.get());
  EXPECT_EQ(Get(theirs.Get(), &ITarget::get_ConnectionState), CONNECTION_CONNECTED);

  EXPECT_OK(mine->ForceDisconnect());
  EXPECT_EQ(Get(mine.Get(), &ITarget::get_ConnectionState), CONNECTION_CONNECTED);
  EXPECT_EQ(theirs->Disconnect(), KXAPI_COMMS_ERR_NOT_CONNECTED);
  EXPECT_OK(mine->Disconnect());
  EXPECT_EQ(Get(mine.Get(), &ITarget::get_ConnectionState), CONNECTION_AVAILABLE);

  // A notification-only connection holds nothing.
  EXPECT_OK(theirs->ConnectForNotifications());
  EXPECT_EQ(Get(mine.Get(), &ITarget::get_ConnectionState), CONNECTION_AVAILABLE);
  EXPECT_OK(theirs->DisconnectFromNotifications());
  EXPECT_EQ(theirs->DisconnectFromNotifications(), KXAPI_COMMS_ERR_NOT_CONNECTED);
  EXPECT_EQ(Target("kit-gone")->ConnectForNotifications(), KXAPI_COMMS_ERR_NO_CONNECT);
}

// kit-slow's power-on keeps it busy until it is cancelled. A call past its thread's answer limit
// returns at the limit; its answer, when it comes, is not taken for a later call's.
TEST_F(TargetObjectTest, BusyWhileAChangeRunsUntilCancelledOrPastTheAnswerLimit) {
  auto slow = Target("kit-slow");
  EXPECT_FALSE(Get(slow.Get(), &ITarget::get_IsBusy));
  EXPECT_EQ(VekxSetAnswerTimeout(200), 0u);
  EXPECT_EQ(slow->PowerOn(), KXAPI_TIMEOUT);
  EXPECT_NE(TakeErrorText().find("The server did not answer within 0.2 s."), std::string::npos);
  // On a loaded machine the server may take the request only after the limit has passed.
  EXPECT_TRUE(WaitUntil([&] { return Get(slow.Get(), &ITarget::get_IsBusy); }));
  EXPECT_OK(slow->CancelCurrentCommand());
  EXPECT_EQ(VekxSetAnswerTimeout(0), 200u);
  EXPECT_TRUE(WaitUntil([&] { return !Get(slow.Get(), &ITarget::get_IsBusy); }));
  EXPECT_EQ(Power(slow.Get()), POWER_STATUS_OFF);

  auto boot = std::async(std::launch::async, [&] { return slow->PowerOn(); });
  EXPECT_TRUE(WaitUntil([&] { return Get(slow.Get(), &ITarget::get_IsBusy); }));
  // Another client's cancel is not this change's.
  EXPECT_OK(OtherTarget("kit-slow")->CancelCurrentCommand());
  EXPECT_TRUE(Get(slow.Get(), &ITarget::get_IsBusy));
  EXPECT_OK(slow->CancelCurrentCommand());
  EXPECT_EQ(boot.get(), KXAPI_COMMS_ERR_OPERATION_CANCELLED);
  EXPECT_FALSE(Get(slow.Get(), &ITarget::get_IsBusy));
  EXPECT_EQ(Power(slow.Get()), POWER_STATUS_OFF);

  boot = std::async(std::launch::async, [&] { return slow->PowerOn(); });
  EXPECT_TRUE(WaitUntil([&] { return Get(slow.Get(), &ITarget::get_IsBusy); }));
  EXPECT_OK(Target("kit-one")->CancelMyCommands());
  EXPECT_EQ(boot.get(), KXAPI_COMMS_ERR_OPERATION_CANCELLED);
  EXPECT_EQ(slow->get_IsBusy(nullptr), E_POINTER);
}

TEST_F(TargetObjectTest, PropertiesComeFromTheServer) {
  auto one = Target("kit-one");
  EXPECT_EQ(GetText(one.Get(), &ITarget::get_HostName), "kit-one");
  EXPECT_EQ(GetText(one.Get(), &ITarget::get_Name), "One");
  ULONG version[4] = {};
  EXPECT_OK(one->SDKVersion(&version[0], &version[1], &version[2], &version[3]));
  EXPECT_EQ(std::vector<ULONG>(version, version + 4), (std::vector<ULONG>{5, 1, 2, 3}));
  EXPECT_EQ(one->SDKVersion(&version[0], &version[1], nullptr, &version[3]), E_POINTER);

  vekx::Variant info;
  ASSERT_OK(one->get_TargetInfo(info.Put()));
  std::string pairs = ";";
  for (const std::string& pair : Pairs(info))
    pairs += pair + ";";
  EXPECT_NE(pairs.find(";SdkVersion=5.1.2.3;"), std::string::npos) << pairs;
  // A kit without channels has no protocol list, not an empty one. The host name among the pairs
  // is vesta-ctrl's (tests/cli/vesta_ctrl_test.cpp, TargetsPowerDefaultAddAndDelete: info).
  EXPECT_EQ(pairs.find(";Protocols="), std::string::npos) << pairs;

  // Refused calls send nothing: the server's packet log has only the one that went through.
  const std::string log = (servertest::TestRoot() / "target.log").string();
  std::filesystem::remove(log);
  ASSERT_OK(api_->StartPacketLogging(B(log).Get()));
  EXPECT_EQ(one->put_Name(nullptr), E_POINTER);
  EXPECT_EQ(one->put_Name(B("").Get()), E_INVALIDARG);
  EXPECT_EQ(one->Suspend(), E_NOTIMPL);
  EXPECT_EQ(GetText(one.Get(), &ITarget::get_Name), "One");
  ASSERT_OK(api_->StopPacketLogging());
  EXPECT_EQ(LoggedRequests(log),
            (std::vector<std::string>{"START_PACKET_LOGGING", "GET_TARGET_NAME"}));

  EXPECT_OK(one->put_Name(B("Bench kit").Get()));
  EXPECT_EQ(GetText(OtherTarget("kit-one").Get(), &ITarget::get_Name), "Bench kit");
  EXPECT_EQ(GetText(one.Get(), &ITarget::get_CachedName), "Bench kit");

  // The unreachable kit keeps its cached name but has no live one.
  auto gone = Target("kit-gone");
  EXPECT_EQ(GetText(gone.Get(), &ITarget::get_CachedName), "kit-gone");
  vekx::Bstr name;
  EXPECT_EQ(gone->get_Name(name.Put()), KXAPI_COMMS_ERR_NO_CONNECT);

  CGetCachedSubnetMaskResponse mask;
  EXPECT_OK(one->put_SubnetMask(0xFFFFFF00u));
  EXPECT_OK(client_->Call(HandleOf(one), CGetCachedSubnetMaskRequest{}, mask));
  EXPECT_EQ(mask.SubnetMask, 0xFFFFFF00u);
}

TEST_F(TargetObjectTest, MacAddressTravelsAsSixBytesAndIsTakenAsBytesOrText) {
  auto one = Target("kit-one");
  auto mac = [&] {
    vekx::Variant address;
    EXPECT_OK(one->get_MacAddress(address.Put()));
    EXPECT_EQ(address.Type(), VT_ARRAY | VT_UI1);
    return Numbers(address);
  };
  auto put_text = [&](const char* text) {
    vekx::Variant value;
    VARIANT* slot = value.Put();
    slot->bstrVal = B(text).Detach();
    slot->vt = VT_BSTR;
    return one->put_MacAddress(value.Get());
  };

  vekx::Variant original;
  ASSERT_OK(one->get_MacAddress(original.Put()));
  const std::vector<uint64_t> kOriginal = {2, 0, 0, 0, 0, 1};
  EXPECT_EQ(mac(), kOriginal);
  EXPECT_OK(put_text("0a-1B-2c-3D-4e-5F"));
  EXPECT_EQ(mac(), (std::vector<uint64_t>{0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}));
  EXPECT_OK(one->put_MacAddress(original.Get()));
  EXPECT_EQ(mac(), kOriginal);

  // A wrong length, digit or type is refused here and changes nothing.
  EXPECT_EQ(put_text("0a:1b:2c:3d:4e"), E_INVALIDARG);
  EXPECT_EQ(put_text("0a:1b:2c:3d:4e:5g"), E_INVALIDARG);
  vekx::Variant number;
  number.Put()->vt = VT_UI4;
  EXPECT_EQ(one->put_MacAddress(number.Get()), E_INVALIDARG);
  EXPECT_EQ(mac(), kOriginal);
}

TEST_F(TargetObjectTest, DefaultIsTheServersOneAndAnyPutMakesIt) {
  auto one = Target("kit-one");
  auto two = Target("kit-two");
  auto two_again = OtherTarget("kit-two");
  EXPECT_TRUE(IsDefault(one.Get()));
  EXPECT_FALSE(IsDefault(two.Get()));

  // Another client's view of a change, after a put of true, is vesta-ctrl's
  // (tests/cli/vesta_ctrl_test.cpp, TargetsPowerDefaultAddAndDelete).
  EXPECT_OK(two->put_Default(VARIANT_FALSE));
  EXPECT_TRUE(IsDefault(two.Get()));
  EXPECT_OK(one->put_Default(VARIANT_TRUE));
  EXPECT_TRUE(IsDefault(one.Get()));
  EXPECT_FALSE(IsDefault(two_again.Get()));
  EXPECT_EQ(one->get_Default(nullptr), E_POINTER);

  // Deleting the default leaves none, which the server reports as an error.
  EXPECT_OK(one->Delete());
  VARIANT_BOOL is_default = VARIANT_TRUE;
  EXPECT_EQ(two->get_Default(&is_default), KXAPI_NO_TARGET);
  vekx::Bstr host;
  EXPECT_EQ(one->get_HostName(host.Put()), KXAPI_SERVER_INVALID_TARGET);
}

TEST_F(TargetObjectTest, AProtocolIsHeldByOneClientAtATime) {
  auto mine = Target("kit-one");
  auto theirs = OtherTarget("kit-one");
  auto in_use = [](ITarget47* target) {
    VARIANT_BOOL used = VARIANT_FALSE;
    EXPECT_OK(target->QueryProtocolInUse(7, &used));
    return used == VARIANT_TRUE;
  };
  const std::string pid = std::to_string(platform::CurrentProcessId());

  EXPECT_FALSE(in_use(theirs.Get()));
  EXPECT_OK(mine->SetProtocolInUse(7));
  EXPECT_TRUE(in_use(theirs.Get()));
  vekx::Variant held;
  ASSERT_OK(mine->get_ProtocolRegistrationInfo(held.Put()));
  EXPECT_EQ(Numbers(held), std::vector<uint64_t>{7});

  EXPECT_EQ(theirs->SetProtocolInUse(7), KXAPI_COMMS_ERR_ALREADY_REGISTERED);
  EXPECT_EQ(
      TakeErrorText(),
      "Target error - Already registered. protocol 7 of 'kit-one' is in use by process " + pid);
  EXPECT_EQ(theirs->ClearProtocolInUse(7), KXAPI_COMMS_ERR_NOT_REGISTERED);
  vekx::Variant info;
  ASSERT_OK(theirs->GetProtocolInfo(7, info.Put()));
  EXPECT_EQ(Pairs(info), (std::vector<std::string>{"Protocol=7", "InUse=Yes", "ProcessId=" + pid,
                                                   "HeldByCaller=No"}));

  EXPECT_OK(mine->ClearProtocolInUse(7));
  EXPECT_OK(theirs->SetProtocolInUse(7));
  // A client that goes away gives its protocols up.
  theirs.Reset();
  other_api_->Dispose();
  EXPECT_TRUE(WaitUntil([&] { return !in_use(mine.Get()); }));
  EXPECT_EQ(Target("kit-gone")->SetProtocolInUse(7), KXAPI_COMMS_ERR_NO_CONNECT);
}

}  // namespace
}  // namespace qv::apitest
