// Two clients and one process: the lock's holder runs and changes it, the other only reads it;
// the lock moves by transfer, reclaim and release, and goes with its holder's connection.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>

#include "api/live_api.h"
#include "platform/process_identity.h"
#include "vekxapi/event_sink.h"

namespace qv::apitest {
namespace {

constexpr char kLockScenario[] = R"(kits:
  - host: kit-lock
    power: on
    timings: {connect_ms: 1}
    images:
      - path: /app/lock.elf
        entry: 0x401000
        regions:
          - {base: 0x401000, hex: "90 90 90 90", size: 4096}
)";

class AskedSink : public vekx::EventSink<IEventProcessLock> {
 public:
  HRESULT STDMETHODCALLTYPE OnOwnershipRequest(IOwnershipRequestEvent*) override {
    ++asked;
    return S_OK;
  }
  std::atomic<int> asked{0};
};

class ProcessLockTest : public LiveApiTest {
 protected:
  std::string Scenario() const override { return kLockScenario; }
};

// One client's view: its target and its object for the process with `pid`.
struct Client {
  vekx::ComPtr<ITarget34> target;
  vekx::ComPtr<IProcess> process;

  HRESULT Write() const {
    const vekx::Variant bytes = ArrayOf(VT_UI1, {0});
    ULONG written = 0;
    return process->SetMemory(0x401000, bytes.Get(), &written);
  }
  HRESULT Read() const {
    vekx::Variant bytes;
    ULONG bad = 0;
    return process->GetMemory(0x401000, 4, &bad, bytes.Put());
  }
};

Client Open(IVEKXAPI& root, ULONG pid) {
  Client client;
  vekx::ComPtr<ITarget> target;
  EXPECT_OK(root.AddTarget(B("kit-lock").Get(), target.Put()));
  EXPECT_OK(target.QueryInto(IID_ITarget34, client.target));
  vekx::Variant list;
  EXPECT_OK(target->get_ProcessInfoSnapshot(list.Put()));
  for (const auto& info : Objects<IProcessInfo>(list, IID_IProcessInfo)) {
    ULONG id = 0;
    if (info && info->get_Id(&id) == S_OK && id == pid)
      info->get_ProcessInterface(client.process.Put());
  }
  EXPECT_TRUE(client.process);
  return client;
}

TEST_F(ProcessLockTest, TheHolderChangesTheProcessTheOthersOnlyRead) {
  auto first_target = Target("kit-lock");
  ASSERT_TRUE(first_target);
  const auto loaded = LoadProcess(first_target.Get(), DEVICE_APP, "/app/lock.elf", true);
  ASSERT_TRUE(loaded);
  const ULONG pid = Get(loaded.Get(), &IProcess::get_Id);
  const Client a = Open(*api_.Get(), pid);
  const vekx::ComPtr<IVEKXAPI12> second_root = CheckedRoot();
  ASSERT_TRUE(second_root);
  const Client b = Open(*second_root.Get(), pid);
  ASSERT_TRUE(a.process && b.process);
  const auto sink = vekx::MakeSink<AskedSink>();
  ASSERT_OK(a.target->AdviseProcessLockEvents(sink.Get()));

  const HRESULT kNotOwner = KXAPI_ERR_NOT_PROCESS_OWNER;
  const ULONG own_pid = platform::CurrentProcessId();
  // Each step, then what each client's write gives; reads always work.
  const struct {
    const char* step;
    std::function<HRESULT()> run;
    HRESULT result, a_writes, b_writes;
  } kSteps[] = {
      {"nobody holds it", [] { return S_OK; }, S_OK, S_OK, S_OK},
      {"a locks", [&] { return a.target->RequestProcessLock(); }, S_OK, S_OK, kNotOwner},
      {"b asks in vain", [&] { return b.target->RequestProcessLock(); },
       KXAPI_COMMS_ERR_TARGET_IN_USE, S_OK, kNotOwner},
      {"a asks again", [&] { return a.target->RequestProcessLock(); },
       KXAPI_ERR_ALREADY_PROCESS_OWNER, S_OK, kNotOwner},
      {"b cannot release a's lock", [&] { return b.target->ReleaseProcessLock(); }, kNotOwner, S_OK,
       kNotOwner},
      {"b reclaims nothing", [&] { return b.target->ReclaimProcessLock(); },
       KXAPI_ERR_PROCESS_OWNERSHIP_TRANSFER_NOT_IN_PROGRESS, S_OK, kNotOwner},
      {"a transfers to b", [&] { return a.target->TransferProcessLock(own_pid); }, S_OK, kNotOwner,
       S_OK},
      {"a reclaims", [&] { return a.target->ReclaimProcessLock(); }, S_OK, S_OK, kNotOwner},
      {"a releases", [&] { return a.target->ReleaseProcessLock(); }, S_OK, S_OK, S_OK},
      {"b locks", [&] { return b.target->RequestProcessLock(); }, S_OK, kNotOwner, S_OK},
  };
  for (const auto& step : kSteps) {
    EXPECT_EQ(step.run(), step.result) << step.step << ": " << TakeErrorText();
    EXPECT_EQ(a.Write(), step.a_writes) << step.step << ", a writes";
    EXPECT_EQ(b.Write(), step.b_writes) << step.step << ", b writes";
    EXPECT_OK(a.Read()) << step.step;
  }
  EXPECT_TRUE(servertest::WaitUntil([&] { return sink->asked.load() == 1; }))
      << "the holder hears of b's request";
  // b's lock goes with its connection.
  ASSERT_OK(second_root->Dispose());
  EXPECT_TRUE(servertest::WaitUntil([&] { return a.Write() == S_OK; }));
  EXPECT_EQ(Get(a.target.Get(), &ITarget34::get_IsProcessLocked), VARIANT_FALSE);
}

}  // namespace
}  // namespace qv::apitest
