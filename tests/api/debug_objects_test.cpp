// The debug objects through their public interfaces: the order of each method's checks, the
// conversion of its arguments, the value objects made from records, and a breakpoint hit
// reaching a sink as a stop whose objects read back the process and thread.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "api/live_api.h"
#include "debug/process_object.h"
#include "debug/thread_object.h"
#include "debug/value_objects.h"
#include "vekxapi/event_sink.h"

namespace qv::apitest {
namespace {

constexpr char kDebugScenario[] = R"(kits:
  - host: kit-debug
    power: on
    timings: {connect_ms: 1, step_ms: 5}
    images:
      - path: /app/loop.elf
        entry: 0x401000
        regions: [{base: 0x401000, hex: "55 48 89 e5 90 90", size: 4096}]
        threads: [{name: main, path: [0x401000, 0x401004, 0x401005], loop: true}]
      - path: /app/big.elf
        entry: 0x10000000
        regions:
          - {base: 0x10000000, fill: "11 22 33", size: 2097152}
          - {base: 0x10200000, fill: "44 55 66 77 88", size: 2097152}
)";

// Each method checks its out-pointers, then the link, before anything is sent; register calls
// check their id array first. A process object without a link shows the order.
TEST(DebugObjectChecks, OutPointersThenLinkThenArguments) {
  vekx::ComPtr<IProcess10> p;  // process 7 of target 1
  ASSERT_OK(CreateProcessObject(nullptr, 1, 7, IID_IProcess10, reinterpret_cast<void**>(p.Put())));
  vekx::ComPtr<IThread2> t;  // its thread 8
  ASSERT_OK(CreateThreadObject(nullptr, 1, 7, 8, IID_IThread2, reinterpret_cast<void**>(t.Put())));
  VARIANT out;
  VariantInit(&out);
  ULONG pid = 0;
  const vekx::Variant i4 = ArrayOf(VT_I4, {0x10000}), u4 = ArrayOf(VT_UI4, {0x10000});  // ids
  const struct {
    HRESULT expected;
    std::function<HRESULT()> call;
    const char* what;
  } kCases[] = {
      {E_POINTER, [&] { return p->GetMemory(0, 1, &pid, nullptr); }, "GetMemory, null buffer"},
      {E_UNEXPECTED, [&] { return p->GetMemory(0, 1, nullptr, &out); }, "GetMemory, null count"},
      {E_UNEXPECTED, [&] { return p->Resume(u4.Get(), &out); }, "Resume, wrong ids"},
      {E_UNEXPECTED, [&] { return p->get_SyncPrimitives(nullptr); }, "SyncPrimitives"},
      {E_POINTER, [&] { return p->Suspend(nullptr, &out, &out); }, "Suspend, null list"},
      {S_OK, [&] { return p->get_Id(&pid); }, "get_Id, no link"},
      {E_INVALIDARG, [&] { return t->GetRegisters(u4.Get(), nullptr); }, "GetRegisters, VT_UI4"},
      {E_UNEXPECTED, [&] { return t->GetRegisters(i4.Get(), nullptr); }, "GetRegisters, no link"},
      {E_POINTER, [&] { return p->GetCompressedMemory(0, 1, 1, VARIANT_TRUE, nullptr); },
       "GetCompressedMemory"},
  };
  for (const auto& test : kCases)
    EXPECT_EQ(test.call(), test.expected) << test.what;
  EXPECT_EQ(pid, 7u);
}

// Optional fields left out read as zero; a stop code above 0x7FFFFFFF reads back negative.
TEST(DebugValueObjects, ThreadInfoWithoutOptionalFields) {
  ThreadInfoRecord record;
  record.Tid = 5;
  record.Reason.Code = 0xA0020001;
  vekx::Variant list;
  ASSERT_OK(OutThreadInfoArray({record}, {}, list.Put()));
  const auto infos = Objects<IThreadInfo6>(list, IID_IThreadInfo6);
  ASSERT_TRUE(infos.size() == 1 && infos[0]);
  const auto& info = infos[0];
  const auto zero = [&](auto... getters) {
    const auto check =
        [&]<class Base, class Value>(HRESULT (STDMETHODCALLTYPE Base::*get)(Value*)) {
          Value value = 1;
          EXPECT_OK((info.Get()->*get)(&value));
          EXPECT_EQ(value, 0u);
        };
    (check(getters), ...);
  };
  zero(&IThreadInfo6::get_RIP, &IThreadInfo6::get_BranchFrom, &IThreadInfo6::get_BranchTo,
       &IThreadInfo6::get_CurrentPTC, &IThreadInfo6::get_SyscallStartPTC, &IThreadInfo6::get_CpuId,
       &IThreadInfo6::get_Flags);
  EXPECT_TRUE(
      ListOf<IUnknown>(info.Get(), &IThreadInfo6::get_ExtraReasonInfo, IID_IUnknown).empty());
  EXPECT_TRUE(ListOf<IUnknown>(info.Get(), &IThreadInfo6::get_WaitObject, IID_IUnknown).empty());
  EXPECT_LT(static_cast<int32_t>(StopCode(info.Get())), 0);
}

// One record of each kind of synchronisation object comes back, in kind order, as an object of
// that kind's interface reading its record.
TEST(DebugValueObjects, EverySynchronisationKind) {
  SyncPrimInfoRecord lists;
  int32_t kernel_id = 0;
#define VEKX_ONE_OF_KIND(Kind, Record, label) \
  lists.Kind##List.emplace_back().KernelID = kernel_id++;
  VEKX_SYNC_OBJECT_KINDS(VEKX_ONE_OF_KIND)
#undef VEKX_ONE_OF_KIND
  const IID* const kInterfaces[] = {
      &IID_IUltQueueDataResourcePool, &IID_IUltWaitingQueueResourcePool, &IID_IUltQueue,
      &IID_IUltRwlock, &IID_IUltSemaphore, &IID_IUltConditionVariable, &IID_IUltMutex,
      // then the system's kinds, each beside its POSIX twin where it has one
      &IID_IVestaSemaphore, &IID_IVestaKernelSemaphore, &IID_IVestaEventFlag,
      &IID_IVestaKernelEventFlag, &IID_IVestaMutex, &IID_IPosixMutex, &IID_IVestaBarrier,
      &IID_IPosixBarrier, &IID_IVestaRwlock2, &IID_IPosixRwlock2, &IID_IVestaConditionVariable,
      &IID_IPosixConditionVariable, &IID_IVestaEventQueue2};
  vekx::Variant array;
  ASSERT_OK(OutSyncPrimitiveArray(lists, array.Put()));
  const auto elements = Objects<IDispatch>(array, IID_IDispatch);
  ASSERT_EQ(elements.size(), std::size(kInterfaces));
  for (size_t i = 0; i < elements.size(); ++i) {
    vekx::ComPtr<IDispatch> object;
    ASSERT_OK(elements[i].QueryInto(*kInterfaces[i], object)) << i;
    // Every kind's KernelId is its first property, the eighth slot after IDispatch's seven.
    using GetKernelId = HRESULT(STDMETHODCALLTYPE*)(IDispatch*, LONG*);
    LONG id = -1;
    EXPECT_OK(reinterpret_cast<GetKernelId>((*reinterpret_cast<void***>(object.Get()))[7])(
        object.Get(), &id));
    EXPECT_EQ(id, static_cast<LONG>(i));
  }
}

class DebugLiveTest : public LiveApiTest {
 protected:
  std::string Scenario() const override { return kDebugScenario; }
};

// Load stopped at the entry, read memory, set a breakpoint in the loop and run into it: the stop
// reaches the sink, and its objects read back the stopped thread. The breakpoint's original code,
// the stop's process, the thread's rip in its info and its registers read through the thread
// object are vesta-ctrl's (tests/cli/debug_commands_test.cpp, SessionOnTheSampleProgram).
TEST_F(DebugLiveTest, BreakpointHitReachesTheSink) {
  auto target = Target("kit-debug");
  ASSERT_TRUE(target);
  ASSERT_OK(target->Connect());
  const auto sink = vekx::MakeSink<StopRecorder>();
  ASSERT_OK(target->AdviseDebugEvents(sink.Get()));
  const auto process = LoadProcess(target.Get(), DEVICE_APP, "/app/loop.elf", true);
  ASSERT_TRUE(process);
  ASSERT_NE(sink->WaitStop(0), 0u);  // the stop at the entry point

  vekx::Variant bytes;
  ULONG bad = 99;
  ASSERT_OK(process->GetMemory(0x400FFE, 4, &bad, bytes.Put()));
  EXPECT_EQ(bad, 2u);  // the two bytes before the region
  vekx::Variant opcode;
  ULONG id = 0;
  ASSERT_OK(Break(process.Get(), 0, 0x401004, opcode, id));

  ASSERT_OK(Resume(process.Get()));
  vekx::ComPtr<IStopNotification> stop;
  ASSERT_EQ(sink->WaitStop(1, nullptr, &stop), STOP_REASON_SIGSWBRKPT);
  const ULONG tid = Get(stop.Get(), &IStopNotification::get_ThreadId);
  const auto infos =
      ListOf<IThreadInfo6>(stop.Get(), &IStopNotification::get_Threads, IID_IThreadInfo6);
  ASSERT_TRUE(!infos.empty() && infos[0]);
  const auto& thread_info = infos[0];
  EXPECT_EQ(StopCode(thread_info.Get()), STOP_REASON_SIGSWBRKPT);

  // The thread the stop names: a value count that is not four per id is refused unsent, twelve
  // for three ids are sent.
  vekx::ComPtr<IThread> thread;
  ASSERT_OK(thread_info->get_ThreadInterface(thread.Put()));
  EXPECT_EQ(Get(thread.Get(), &IThread::get_Id), tid);
  const auto ids = ArrayOf(VT_I4, {REG_ID_RAX, REG_ID_RBX, REG_ID_RCX});
  EXPECT_EQ(thread->SetRegisters(ids.Get(), ArrayOf(VT_UI8, std::vector<uint64_t>(11)).Get()),
            E_INVALIDARG);
  EXPECT_OK(thread->SetRegisters(ids.Get(), ArrayOf(VT_UI8, std::vector<uint64_t>(12)).Get()));

  // SyncPrimitives asks before it looks at its out-pointer: an unknown process's error wins.
  vekx::ComPtr<IProcess10> unknown;
  ASSERT_OK(CreateProcessObject(client_, HandleOf(target), 9999, IID_IProcess10,
                                reinterpret_cast<void**>(unknown.Put())));
  EXPECT_EQ(unknown->get_SyncPrimitives(nullptr), KXAPI_COMMS_ERR_INVALID_PID);
  EXPECT_EQ(process->get_SyncPrimitives(nullptr), E_POINTER);
  EXPECT_OK(process->Kill());
  EXPECT_OK(target->UnadviseDebugEvents(sink.Get()));
}

// Large reads on several threads at once, each landing in its own safe array: every caller gets
// its own bytes, whole, from where it asked (the fills' periods of 3 and 5 show any shift).
TEST_F(DebugLiveTest, LargeReadsOnManyThreadsEachGetTheirOwnBytes) {
  auto target = Target("kit-debug");
  ASSERT_TRUE(target);
  ASSERT_OK(target->Connect());
  const auto process = LoadProcess(target.Get(), DEVICE_APP, "/app/big.elf", true);
  ASSERT_TRUE(process);
  const struct Read {
    uint64_t address;
    ULONG size;
    ULONG bad;
  } reads[] = {
      {0x10000001, 1 << 20, 0},           // inside the first region
      {0x10200003, 1 << 20, 0},           // inside the second
      {0x101FFFF0, 64 << 10, 0},          // across both
      {0x103F0000, 128 << 10, 64 << 10},  // off the end of the second
      {0x10000000, 2000, 0},              // small
  };
  // The fills' bytes go up by 0x11: 11 22 33 in the first region, 44 to 88 in the second.
  auto expected = [](uint64_t address) -> uint8_t {
    if (address < 0x10200000) return 0x11 * (1 + (address - 0x10000000) % 3);
    return address < 0x10400000 ? 0x44 + 0x11 * ((address - 0x10200000) % 5) : 0;
  };
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int round = 0; round < 3; ++round) {
    for (const Read& read : reads) {
      threads.emplace_back([&, read] {
        vekx::Variant bytes;
        ULONG bad = 0;
        void* data = nullptr;
        bool right = process->GetMemory(read.address, read.size, &bad, bytes.Put()) == S_OK &&
                     bad == read.bad && bytes.Type() == (VT_ARRAY | VT_UI1) &&
                     bytes.Get().parray->rgsabound[0].cElements == read.size &&
                     SafeArrayAccessData(bytes.Get().parray, &data) == S_OK;
        for (size_t i = 0; right && i < read.size; ++i)
          right = static_cast<const uint8_t*>(data)[i] == expected(read.address + i);
        if (data != nullptr) SafeArrayUnaccessData(bytes.Get().parray);
        if (!right) ++wrong;
      });
    }
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace qv::apitest
