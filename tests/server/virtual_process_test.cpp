// Processes of a virtual kit, from the program images of its scenario, through the server's
// request path: memory, breakpoints, registers, run state and what the Debug subscribers hear.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "dispatch_harness.h"
#include "server/core/packet_log.h"
#include "server/debug/reporting.h"
#include "server/debug/virtual/core_dump.h"
#include "server/debug/virtual/process_objects.h"
#include "server/debug/virtual/virtual_process.h"
#include "server/handlers/handlers.h"
#include "server/kits/scenario_document.h"
#include "support/test_environment.h"

namespace qv::server {
namespace {

constexpr char kScenario[] = R"(kits:
  - host: dk
    power: on
    timings: {boot_ms: 0, power_off_ms: 0, connect_ms: 0, step_ms: 1}
    images:
      - path: /app/walker.elf
        regions:
          - {base: 0x3000, size: 64}
        threads:
          - {name: main, path: [0x3004, 0x3008, 0x300c, {fault: 11}, 0x3010], exit_code: 7}
          - {name: idle}
      - path: /app/quick.elf
        threads:
          - {path: [0x10], exit_code: 3}
      - path: /app/game.elf
        running: true
        entry: 0x1000
        regions:
          - {base: 0x1000, hex: "55 48 89 e5 c3", size: 16}
          - {base: 0x2000, fill: "ab", size: 8}
        threads:
          - {name: main, registers: {rsp: 0x7000}}
          - {name: worker, registers: {ymm1: [1, 2, 3, 4]}}
      - path: /app/objects.elf
        regions:
          - {base: 0x5000, size: 0x100, protection: r-x, name: code}
          - {base: 0x9000, size: 16}
        threads:
          - {name: main, registers: {rip: 0x5010}}
          - name: waiter
            wait: lock
            asan: {error_type: use-after-free, address: 0x9008, access_size: 8, write: true}
        sync:
          - {kind: VestaMutex, Name: lock, OwnerThreadID: main, WaitingThreads: [waiter]}
          - {kind: PosixBarrier, KernelID: 7, Name: gate}
          - {kind: VestaSemaphore, Name: jobs}
        app_objects:
          fibers: [{Name: fiber, WorkerThreadId: waiter}]
          job_managers: [{JobManagerId: 5}]
        sockets: [{Name: sock, SocketId: 3}]
        files: [{handle: 4, path: /data/save.bin}]
        gpu_info: "0a 0b"
        modules: [{ModuleName: objects}, {ModuleName: libfoo.sprx, Type: 1}]
)";

constexpr uint32_t kRip = 0x10012;
constexpr auto kOk = static_cast<eErrorCode>(0);
constexpr uint32_t kYmm1 = 0x40001;
constexpr uint32_t kDr0 = 0x50000;

class VirtualProcessTest : public ::testing::Test {
 protected:
  VirtualProcessTest() : registry_(*ParseScenario(kScenario, "test.yaml").scenario) {
    RegisterHandlers(dispatcher_, registry_, packet_log_);
    registry_.AddClient({1, 100}, &sink_);
    registry_.Subscribe(1, EventGroup::Debug, 1);
  }

  // A request about process `pid`.
  template <class Request>
  static Request For(uint32_t pid) {
    Request request;
    request.ProcessID = pid;
    return request;
  }
  template <class Request>
  auto Ask(const Request& request) {
    return Dispatch(dispatcher_, request, 1);
  }

  uint32_t Load(uint32_t flags = 0, const char16_t* path = u"/app/game.elf") {
    CLoadProcessRequest load;
    load.Path = path;
    load.Flags = flags;
    const auto response = Ask(load);
    EXPECT_EQ(response.Result, 0u) << platform::Utf16ToUtf8(response.ResultText);
    return response.Pid;
  }

  CGetMemoryResponse Read(uint32_t pid, uint64_t address, uint32_t size) {
    auto read = For<CGetMemoryRequest>(pid);
    read.BaseAddress = address;
    read.Size = size;
    return Ask(read);
  }
  CSetMemoryResponse Write(uint32_t pid, uint64_t address, Bytes data) {
    auto write = For<CSetMemoryRequest>(pid);
    write.BaseAddress = address;
    write.WriteData = std::move(data);
    return Ask(write);
  }
  CSetSoftwareBreakPointResponse Break(uint32_t pid, uint64_t address) {
    auto set = For<CSetSoftwareBreakPointRequest>(pid);
    set.Address = address;
    return Ask(set);
  }

  DecodingSink sink_;
  TargetRegistry registry_;
  PacketLog packet_log_;
  RequestDispatcher dispatcher_;
};

TEST_F(VirtualProcessTest, MemoryReadsWhatIsMappedAndBreakpointsPatchAndRestoreIt) {
  const uint32_t pid = Load();
  const struct {
    uint64_t address;
    uint32_t size;
    Bytes data;
    uint32_t bad;
  } reads[] = {
      {0x1000, 4, {0x55, 0x48, 0x89, 0xe5}, 0},
      {0x100e, 4, {0, 0, 0, 0}, 2},                 // runs off the end of the region
      {0x0ffe, 3, {0, 0, 0x55}, 2},                 // starts before it
      {0x1ffe, 4, {0, 0, 0xab, 0xab}, 2},           // the fill of the next region
      {0xffff'ffff'ffff'fffe, 4, {0, 0, 0, 0}, 4},  // past the top of memory
  };
  for (const auto& r : reads) {
    const auto response = Read(pid, r.address, r.size);
    EXPECT_EQ(response.ReadData, r.data) << std::hex << r.address;
    EXPECT_EQ(response.BadBytes, r.bad) << std::hex << r.address;
  }

  auto gather = For<CGetScatteredMemoryRequest>(pid);
  for (const auto& r : reads)
    gather.Regions.push_back({r.address, r.size, 0});
  const auto gathered = Ask(gather).Data;
  ASSERT_EQ(gathered.size(), std::size(reads));
  for (size_t i = 0; i < gathered.size(); ++i) {
    EXPECT_EQ(gathered[i].BaseAddress, reads[i].address);
    EXPECT_EQ(gathered[i].Data, reads[i].data) << "a scattered read reads as GET_MEMORY does";
  }
  auto scatter = For<CSetScatteredMemoryRequest>(pid);
  scatter.Regions = {{0x2000, {1, 2}}, {0x2007, {3, 4}}, {0x1004, {0x90}}};
  EXPECT_EQ(Ask(scatter).Results, (U32List{2, 0, 1}));
  EXPECT_EQ(Read(pid, 0x2006, 2).ReadData, (Bytes{0xab, 0xab})) << "nothing of a refused region";
  EXPECT_EQ(Read(pid, 0x1004, 1).ReadData, Bytes{0x90});

  EXPECT_EQ(Read(pid, 0x1000, 0xFFFFFFFF).Result, Code(KXAPI_COMMS_ERR_EXCEED_MAX_PACKET_SIZE))
      << "refused before 4 GiB is allocated";

  EXPECT_EQ(Write(pid, 0x100f, {1, 2}).Result, Code(KXAPI_COMMS_ERR_INVALID_ADDRESS));
  EXPECT_EQ(Read(pid, 0x100f, 1).ReadData, Bytes{0}) << "a refused write changes nothing";

  const auto breakpoint = Break(pid, 0x1001);
  ASSERT_EQ(breakpoint.Result, 0u);
  EXPECT_EQ(breakpoint.OriginalOpcode, Bytes{0x48});
  EXPECT_EQ(Read(pid, 0x1001, 1).ReadData, Bytes{0xcc});
  EXPECT_EQ(Break(pid, 0x1001).Result, Code(KXAPI_COMMS_ERR_DUPLICATE_ENTRY));
  EXPECT_EQ(Write(pid, 0x1001, {0x77}).BytesWritten, 1u);
  EXPECT_EQ(Read(pid, 0x1001, 1).ReadData, Bytes{0xcc}) << "the breakpoint stays";
  auto clear = For<CClearSoftwareBreakPointRequest>(pid);
  clear.BreakPtId = breakpoint.BreakPtId;
  EXPECT_EQ(Ask(clear).Result, 0u);
  EXPECT_EQ(Read(pid, 0x1001, 1).ReadData, Bytes{0x77}) << "what was written under it returns";
  EXPECT_EQ(Ask(clear).Result, Code(KXAPI_COMMS_ERR_INVALID_SWBRKPT_ID));
}

TEST_F(VirtualProcessTest, RegistersAndHardwareBreakpointsLandInTheThreads) {
  const uint32_t pid = Load();
  const auto threads = Ask(For<CGetThreadInfoSnapshotRequest>(pid)).ThreadInfoList;
  ASSERT_EQ(threads.size(), 2u);
  EXPECT_EQ(threads[0].Name, "main");
  EXPECT_EQ(threads[0].Rip, std::optional<uint64_t>(0x1000)) << "the main thread starts at entry";

  auto get = For<CGetRegistersRequest>(pid);
  get.ThreadID = threads[1].Tid;
  get.RegisterIndices = {kYmm1, kRip};
  EXPECT_EQ(Ask(get).RegisterValues, (U64List{1, 2, 3, 4, 0, 0, 0, 0}));

  auto hw = For<CSetHardwareBreakPointRequest>(pid);
  hw.RegionSize = 8;
  hw.Flags = 1;  // on write
  for (uint64_t slot = 0; slot < 4; ++slot) {
    hw.Address = 0x2000 + slot * 8;
    EXPECT_EQ(Ask(hw).Result, 0u);
  }
  EXPECT_EQ(Ask(hw).Result, Code(KXAPI_COMMS_ERR_RESOURCE_SHORTAGE));
  get.RegisterIndices = {kDr0 + 3, kDr0 + 7};
  // DR7: L0..L3, and for each slot write (01) of 8 bytes (10).
  EXPECT_EQ(Ask(get).RegisterValues, (U64List{0x2018, 0, 0, 0, 0x99990055, 0, 0, 0}));

  // An unknown process is refused by every operation alike (below).
  const struct {
    uint32_t tid, id;
    eErrorCode code;
    std::string named;  // the text names the value
  } refused[] = {
      {threads[0].Tid, 0x10010, KXAPI_COMMS_ERR_INVALID_REG_INDEX, "0x10010"},  // unassigned
      {9999, kRip, KXAPI_COMMS_ERR_INVALID_TID, "9999"},
  };
  for (const auto& r : refused) {
    get.ThreadID = r.tid;
    get.RegisterIndices = {r.id};
    const auto response = Ask(get);
    EXPECT_EQ(response.Result, Code(r.code));
    EXPECT_NE(platform::Utf16ToUtf8(response.ResultText).find(r.named), std::string::npos)
        << platform::Utf16ToUtf8(response.ResultText);
  }
}

TEST_F(VirtualProcessTest, RunningThreadsStopAtBreakpointsStepsAndFaultsAndExitAtTheirPathsEnd) {
  CGetProcessInfoSnapshotRequest snapshot;
  ASSERT_EQ(Ask(snapshot).ProcessInfoList.size(), 1u)
      << "the image marked running runs from the start";
  const uint32_t pid = Load(0x1, u"/app/walker.elf");
  std::shared_ptr<CNotification> first;
  while ((first = sink_.Next()) != nullptr &&
         first->GetTypeNumber() != CStopNotificationNotification::kTypeNumber) {
  }
  ASSERT_NE(first, nullptr);
  const auto& at_entry = static_cast<const CStopNotificationNotification&>(*first);
  EXPECT_EQ(at_entry.Process.Reason.Code, 132u);  // STOP_REASON_DL_STOP_INIT
  EXPECT_EQ(at_entry.ThreadId, at_entry.Process.MainThrId);
  EXPECT_EQ(at_entry.Threads[1].State, 1u);  // TDS_INHIBITED
  ASSERT_EQ(Break(pid, 0x3008).Result, 0u);
  auto hardware = For<CSetHardwareBreakPointRequest>(pid);  // execute, 1 byte
  hardware.Address = 0x3010;
  hardware.RegionSize = 1;
  ASSERT_EQ(Ask(hardware).Result, 0u);

  auto threads = For<CGetThreadInfoSnapshotRequest>(pid);
  const uint32_t main = Ask(threads).ThreadInfoList[0].Tid;
  auto resume = For<CResumeProcessRequest>(pid);
  CResumeProcessRequest step = resume;
  step.ThreadsToStep = {main, 9999};
  const struct {
    const CResumeProcessRequest& how;
    uint32_t reason;
    uint64_t rip;
  } stops[] = {
      {resume, 131, 0x3008},  // the software breakpoint
      {step, 5, 0x300c},      // one step on
      {resume, 11, 0x300c},   // the scripted fault, where the thread is
      {resume, 134, 0x3010},  // the hardware breakpoint
  };
  for (const auto& expected : stops) {
    const auto resumed = Ask(expected.how);
    EXPECT_EQ(resumed.FailedToStartThreadList, &expected.how == &step ? U32List{9999} : U32List{});
    const auto next = sink_.Next();
    ASSERT_NE(next, nullptr);
    ASSERT_EQ(next->GetTypeNumber(), CStopNotificationNotification::kTypeNumber);
    const auto& stop = static_cast<const CStopNotificationNotification&>(*next);
    EXPECT_EQ(stop.Process.Reason.Code, expected.reason);
    EXPECT_EQ(stop.ThreadId, main);
    EXPECT_EQ(stop.Threads[0].Rip, std::optional<uint64_t>(expected.rip));
    EXPECT_EQ(stop.Threads[1].State, 1u) << "the other thread stops too";
  }
  // The main thread's path ends; the idle thread has none and would wait for ever, so the
  // process ends only when it is killed.
  Ask(resume);
  const auto exited = sink_.Next();
  ASSERT_NE(exited, nullptr);
  ASSERT_EQ(exited->GetTypeNumber(), CThreadExitNotification::kTypeNumber);
  EXPECT_EQ(static_cast<const CThreadExitNotification&>(*exited).ExitCode, 7u);
  auto kill = For<CKillProcessRequest>(pid);
  EXPECT_EQ(Ask(kill).Result, 0u);
  EXPECT_EQ(Ask(kill).Result, Code(KXAPI_COMMS_ERR_INVALID_PID));
  EXPECT_EQ(sink_.NextNames(1), std::vector<std::string>{"PROCESS_KILL"});
  CLoadProcessRequest unknown;
  unknown.Path = u"/app/missing.elf";
  EXPECT_EQ(Ask(unknown).Result, Code(KXAPI_COMMS_ERR_FILE_DOES_NOT_EXIST));

  const uint32_t quick = Load(0, u"/app/quick.elf");
  EXPECT_EQ(sink_.NextNames(6),
            (std::vector<std::string>{"PROCESS_LOADING", "PROCESS_CREATE", "THREAD_CREATE",
                                      "DYNAMIC_LIBRARY_LOAD", "THREAD_EXIT", "PROCESS_EXIT"}));
  threads.ProcessID = quick;
  EXPECT_EQ(Ask(threads).Result, Code(KXAPI_COMMS_ERR_INVALID_PID)) << "an ended process is gone";
}

// A memory read of up to 1 MiB is answered on the reading thread; a larger one, and every other
// debug call, on a worker, so that it does not hold up the client's other calls.
TEST_F(VirtualProcessTest, OnlySmallMemoryReadsAreAnsweredOnTheReadingThread) {
  const auto may_wait = [this](const CRequest& request) {
    MessageBuffer body;
    EXPECT_TRUE(WriteRequestHeader(body, request.GetTypeNumber(), 1, 1) && request.Serialize(body));
    auto call = dispatcher_.Decode(1, 100, body);
    return call.has_value() && call->may_wait;
  };
  auto read = For<CGetMemoryRequest>(1);
  for (const auto& [size, waits] : {std::pair{1u << 20, false}, std::pair{(1u << 20) + 1, true}}) {
    read.Size = size;
    EXPECT_EQ(may_wait(read), waits) << size;
  }
  EXPECT_TRUE(may_wait(For<CResumeProcessRequest>(1)));
}

TEST_F(VirtualProcessTest, EveryDebugOperationIsAnsweredAndAnUnknownPidIsNamed){
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields)                 \
  {                                                                                          \
    C##Camel##Request request;                                                               \
    bool has_pid = false;                                                                    \
    C##Camel##Request::VisitOwnFields(request, [&](const char* label, auto& field) {         \
      if constexpr (std::is_same_v<std::decay_t<decltype(field)>, uint32_t>) {               \
        if (std::string_view(label) == "ProcessID:") field = 4242, has_pid = true;           \
      }                                                                                      \
    });                                                                                      \
    const auto response = Ask(request);                                                      \
    EXPECT_NE(response.Result, Code(KXAPI_COMMS_ERR_NOT_IMPLEMENTED)) << #WIRE;              \
    if (has_pid) {                                                                           \
      EXPECT_EQ(response.Result, Code(KXAPI_COMMS_ERR_INVALID_PID)) << #WIRE;                \
      EXPECT_NE(platform::Utf16ToUtf8(response.ResultText).find("4242"), std::string::npos); \
    }                                                                                        \
  }
#include "requests/debug_operations.def"
}

TEST_F(VirtualProcessTest, TheImagesObjectsCarryTheProcesssOwnIds) {
  const uint32_t pid = Load(0x1, u"/app/objects.elf");
  EXPECT_EQ(sink_.NextNames(7),
            (std::vector<std::string>{"PROCESS_LOADING", "PROCESS_CREATE", "THREAD_CREATE",
                                      "THREAD_CREATE", "DYNAMIC_LIBRARY_LOAD",
                                      "DYNAMIC_LIBRARY_LOAD", "STOP_NOTIFICATION"}));
  const auto threads = Ask(For<CGetThreadInfoSnapshotRequest>(pid)).ThreadInfoList;
  const uint32_t main = threads[0].Tid, waiter = threads[1].Tid;
  const MutexRecord* waited = threads[1].WaitObject->Get<SyncObjectKind::kVestaMutex>();
  ASSERT_NE(waited, nullptr);
  EXPECT_EQ(waited->OwnerThreadID, main);
  EXPECT_EQ(waited->WaitingThreads, U32List{waiter});

  const struct {
    U32List types, ids;
    std::vector<std::string> names;  // in kind order
  } filters[] = {
      {{}, {}, {"jobs", "lock", "gate"}},
      {{11}, {}, {"lock"}},  // VestaMutex
      {{}, {7, 3}, {"jobs", "gate"}},
      {{11}, {7}, {}},
  };
  auto sync = For<CGetSyncPrimInfoListRequest>(pid);
  for (const auto& f : filters) {
    sync.Types = f.types;
    sync.IDs = f.ids;
    const auto answer = Ask(sync).SyncPrimInfo;
    std::vector<std::string> names;
    for (const auto& o : answer.VestaSemaphoreList)
      names.push_back(o.Name + (o.CreationProcessID == pid ? "" : " of another process"));
    for (const auto& o : answer.VestaMutexList)
      names.push_back(o.Name);
    for (const auto& o : answer.PosixBarrierList)
      names.push_back(o.Name);
    EXPECT_EQ(names, f.names) << f.types.size() << " types, " << f.ids.size() << " ids";
  }
  sync.Types = {20};
  EXPECT_EQ(Ask(sync).Result, Code(KXAPI_COMMS_ERR_INVALID_ARG));

  auto objects = For<CGetAppObjectInfoRequest>(pid);
  for (const uint32_t flags : {0u, 1u, 4u}) {
    objects.Flags = flags;
    const auto answer = Ask(objects).AppObjectInfo;
    EXPECT_EQ(answer.Flags, flags == 0 ? 7u : flags);
    EXPECT_EQ(answer.FiberInfoList.size(), flags == 4 ? 0u : 1u) << flags;
    EXPECT_EQ(answer.JobManagerInfoList.size(), flags == 1 ? 0u : 1u) << flags;
    if (!answer.FiberInfoList.empty()) {
      EXPECT_EQ(answer.FiberInfoList[0].WorkerThreadId, waiter);
    }
  }
  EXPECT_EQ(Ask(For<CGetSocketInfoRequest>(pid)).SocketInfoList.at(0).ProcessId, pid);
  EXPECT_EQ(Ask(For<CReadGpuInfoRequest>(pid)).GpuInfo, (Bytes{0x0a, 0x0b}));

  const auto memory = Ask(For<CGetVmemInfoRequest>(pid)).VirtualMemoryList;
  ASSERT_EQ(memory.size(), 2u);
  EXPECT_EQ(memory[0].Name, u"code");
  EXPECT_EQ(memory[0].Protection, 5u);  // r-x
  EXPECT_EQ(memory[1].Name, u"/app/objects.elf");
  EXPECT_EQ(memory[1].Protection, 3u);  // rw-
  EXPECT_EQ(memory[1].EndAddr, 0x9010u);

  auto asan = For<CGetCoredumpUserDataRequest>(pid);
  asan.ThreadID = waiter;
  EXPECT_EQ(Ask(asan).ErrorType, "use-after-free");
  asan.ThreadID = main;
  EXPECT_EQ(Ask(asan).Result, Code(KXAPI_COMMS_ERR_NO_ENTRY));
}

// The program is its one module when the image lists none; the built-in sample's lock is held
// by its main thread and waited for by the worker.
TEST_F(VirtualProcessTest, DefaultModuleAndTheSamplesLock) {
  const auto list = Ask(For<CGetModuleInfoListRequest>(Load(0x1))).ModuleInfoList;
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].LoadPath, u"/app/game.elf");
  EXPECT_EQ(list[0].StartEntryAddress, 0x1000u);
  EXPECT_EQ(list[0].SegmentInfoList.size(), 2u);

  const ProgramImage sample = DefaultScenario().kits[0].images[0];
  const ProcessObjects objects(sample, 100, 1000);
  const auto* lock = objects.SyncObject(*sample.threads[1].wait).Get<SyncObjectKind::kVestaMutex>();
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(lock->OwnerThreadID, 1000u);
  EXPECT_EQ(lock->WaitingThreads, U32List{1001});
  EXPECT_EQ(objects.Modules().size(), 2u);
}

TEST_F(VirtualProcessTest, PagesAreAllocatedInFreeSpaceAndOnlyThoseAreFreed) {
  const uint32_t pid = Load(0x1, u"/app/objects.elf");
  const struct Allocation {
    bool executable;
    uint32_t size;
    uint64_t start, end;
    eErrorCode code;
    uint64_t address;
  } allocations[] = {
      {true, 1, 0, 0, kOk, 0xa000},             // above the image
      {false, 0x1001, 0, 0, kOk, 0xb000},       // two pages
      {false, 1, 0x5000, 0xc000, kOk, 0x6000},  // the first gap in the range
      {false, 1, 0x5000, 0x6000, KXAPI_COMMS_ERR_NO_VIRTUAL_MEM, 0},
      {false, 0, 0, 0, KXAPI_COMMS_ERR_INVALID_ARG, 0},
      {false, 1, 0x8000, 0x8000, KXAPI_COMMS_ERR_INVALID_ARG, 0},
      {false, 0xFFFFFFFF, 0, 0, KXAPI_COMMS_ERR_NO_VIRTUAL_MEM, 0},  // beyond the limit
  };
  const auto allocate = [&](auto request, const Allocation& a) {
    request.ProcessID = pid;
    request.PageSize = a.size;
    request.StartAddress = a.start;
    request.EndAddress = a.end;
    request.Name = u"jit";
    const auto response = Ask(request);
    EXPECT_EQ(response.Result, Code(a.code)) << a.size;
    if (a.code == kOk) {
      EXPECT_EQ(response.Address, a.address) << a.size;
    }
  };
  for (const auto& a : allocations)
    a.executable ? allocate(CAllocateExecutablePageRequest{}, a)
                 : allocate(CAllocateDataPageRequest{}, a);
  const auto memory = Ask(For<CGetVmemInfoRequest>(pid)).VirtualMemoryList;
  ASSERT_EQ(memory.size(), 5u);
  EXPECT_EQ(memory[3].Name, u"jit");
  EXPECT_EQ(memory[3].Protection, 7u) << "code can be written into an executable page";
  EXPECT_EQ(Read(pid, 0xb000, 0x2000).BadBytes, 0u);

  const uint32_t breakpoint = Break(pid, 0xb001).BreakPtId;
  const struct {
    bool executable;
    uint64_t address;
    eErrorCode code;
  } frees[] = {
      {true, 0xb000, KXAPI_COMMS_ERR_INVALID_ADDRESS},   // a data page
      {false, 0x9000, KXAPI_COMMS_ERR_INVALID_ADDRESS},  // the image's
      {false, 0xb001, KXAPI_COMMS_ERR_INVALID_ADDRESS},  // inside a page
      {false, 0xb000, kOk},
      {false, 0xb000, KXAPI_COMMS_ERR_INVALID_ADDRESS},  // twice
  };
  for (const auto& f : frees) {
    auto data = For<CDeallocateDataPageRequest>(pid);
    data.Address = f.address;
    auto code = For<CDeallocateExecutablePageRequest>(pid);
    code.Address = f.address;
    const CResponse answer = f.executable ? CResponse(Ask(code)) : CResponse(Ask(data));
    EXPECT_EQ(answer.Result, Code(f.code)) << std::hex << f.address;
    if (f.code != kOk) {
      EXPECT_NE(answer.ResultText.find(Hex(f.address)), std::u16string::npos);
    }
  }
  EXPECT_EQ(Read(pid, 0xb000, 4).BadBytes, 4u);
  auto clear = For<CClearSoftwareBreakPointRequest>(pid);
  clear.BreakPtId = breakpoint;
  EXPECT_EQ(Ask(clear).Result, Code(KXAPI_COMMS_ERR_INVALID_SWBRKPT_ID))
      << "the breakpoint went with its page";
  allocate(CAllocateDataPageRequest{}, {false, 0x2000, 0, 0, kOk, 0xb000});
}

TEST_F(VirtualProcessTest, CallstackSignaturesFollowTheStoppedThreadsRipsInTidOrder) {
  auto signature = For<CGetCallstackSignatureRequest>(Load(0, u"/app/objects.elf"));
  EXPECT_EQ(Ask(signature).Result, Code(KXAPI_COMMS_ERR_NOT_STOPPED));
  Ask(For<CSuspendProcessRequest>(signature.ProcessID));
  const uint64_t first = Ask(signature).Hash;
  const struct {
    uint64_t main_rip, waiter_rip;
    bool same;
  } cases[] = {{0x5010, 0, true}, {0x5011, 0, false}, {0, 0x5010, false}};
  for (const auto& c : cases) {
    signature.ProcessID = Load(0x1, u"/app/objects.elf");
    const auto threads =
        Ask(For<CGetThreadInfoSnapshotRequest>(signature.ProcessID)).ThreadInfoList;
    auto set = For<CSetRegistersRequest>(signature.ProcessID);
    set.RegisterIndices = {kRip};
    set.ThreadID = threads[0].Tid;
    set.RegisterValues = {c.main_rip, 0, 0, 0};
    Ask(set);
    set.ThreadID = threads[1].Tid;
    set.RegisterValues = {c.waiter_rip, 0, 0, 0};
    Ask(set);
    EXPECT_EQ(Ask(signature).Hash == first, c.same)
        << std::hex << c.main_rip << " " << c.waiter_rip;
  }
}

TEST_F(VirtualProcessTest, CoreDumpsGoToNewFilesOnlyAndAreHeardWhileWritten) {
  const uint32_t pid = Load(0x1, u"/app/objects.elf");
  sink_.NextNames(7);  // the load
  Write(pid, 0x5000, {0x55});
  Break(pid, 0x5000);

  const testing::TempDir temp;
  const std::filesystem::path& dir = temp.path();
  const struct {
    std::string path;
    uint32_t type;
    eErrorCode code;
  } dumps[] = {
      {(dir / "full.core").string(), 1, kOk},
      {(dir / "full.core").string(), 1, KXAPI_COMMS_ERR_COREDUMP_CREATE},  // never replaced
      {(dir / "no/such.core").string(), 1, KXAPI_COMMS_ERR_COREDUMP_CREATE},
      {"relative.core", 1, KXAPI_COMMS_ERR_INVALID_ARG},
      {(dir / "mini.core").string(), 7, KXAPI_COMMS_ERR_INVALID_ARG},
      {(dir / "mini.core").string(), 0, kOk},
  };
  auto trigger = For<CTriggerCoredumpRequest>(pid);
  for (const auto& d : dumps) {
    trigger.OutputPath = platform::Utf8ToUtf16(d.path);
    trigger.DumpType = d.type;
    const auto answer = Ask(trigger);
    EXPECT_EQ(answer.Result, Code(d.code)) << d.path;
  }
  // Only the two that were written are heard: 0 %, then after each region.
  EXPECT_EQ(sink_.NextNames(6),
            (std::vector<std::string>{"COREDUMP_IN_PROGRESS", "COREDUMP_IN_PROGRESS",
                                      "COREDUMP_IN_PROGRESS", "COREDUMP_COMPLETED",
                                      "COREDUMP_IN_PROGRESS", "COREDUMP_COMPLETED"}));
  for (const char* name : {"full.core", "mini.core"}) {
    std::ifstream file(dir / name, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    ASSERT_GT(bytes.size(), 12u);
    EXPECT_EQ(bytes.substr(0, 8), "VKXCORE1");
    MessageBuffer in(bytes.data() + 8, bytes.size() - 8);
    uint32_t length = 0;
    CoreDumpHeader header;
    ASSERT_TRUE(ReadField(in, length) && ReadField(in, header));
    EXPECT_EQ(header.Threads.size(), 2u);
    ASSERT_EQ(header.Regions.size(), 2u);
    const bool full = header.Regions[0].Saved == 1;
    EXPECT_EQ(full, std::string(name) == "full.core");
    EXPECT_EQ(bytes.size(), 12 + length + (full ? 0x110u : 0u));
    if (full) {
      EXPECT_EQ(bytes[12 + length], 0x55) << "the byte under the breakpoint";
    }
  }

  EXPECT_EQ(Ask(For<CCancelCoredumpRequest>(pid)).Result, Code(KXAPI_COMMS_ERR_NO_ENTRY));
  VirtualProcess process(1, 1, ProgramImage{}, true);
  EXPECT_TRUE(process.BeginDump());
  EXPECT_FALSE(process.BeginDump()) << "one dump at a time";
  EXPECT_TRUE(process.CancelDump().ok());
  const std::string cancelled = (std::filesystem::temp_directory_path() / "vkx-cancelled").string();
  EXPECT_EQ(
      WriteCoreDump(cancelled, process.Snapshot(1), process.DumpCancelled(), [](uint32_t) {}).code,
      Code(KXAPI_COMMS_ERR_OPERATION_CANCELLED));
  EXPECT_FALSE(std::filesystem::exists(cancelled)) << "a cancelled dump leaves no file";
}

TEST_F(VirtualProcessTest, NetworkEmulationKeepsEveryPortsSettings) {
  const uint32_t pid = Load(0x1, u"/app/objects.elf");
  const struct {
    uint32_t port;
    U32List params;
    eErrorCode code;
    U32List after;
  } sets[] = {
      {0xFFFFFFFF, {10, 100, 200, 5}, kOk, {10, 100, 200, 5}},
      {80, {1, 2, 3, 4}, kOk, {10, 100, 200, 5}},
      {0xFFFFFFFF, {1, 2, 3}, KXAPI_COMMS_ERR_INVALID_ARG, {10, 100, 200, 5}},
      {0xFFFFFFFF, {}, kOk, {0, 0, 0, 0}},  // the defaults
  };
  for (const auto& c : sets) {
    auto set = For<CSetNetworkEmulationSettingsRequest>(pid);
    set.Port = c.port;
    set.Params = c.params;
    EXPECT_EQ(Ask(set).Result, Code(c.code));
    EXPECT_EQ(Ask(For<CGetNetworkEmulationSettingsRequest>(pid)).Params, c.after);
  }
}

// An answer shares the bytes of the region it read from; a write to the region afterwards leaves
// the answer as it was read and shows in the next read.
TEST(VirtualProcessMemoryTest, AnAnswerKeepsWhatItReadWhileTheRegionChanges) {
  ProgramImage image;
  image.threads.emplace_back();
  image.regions.push_back({0x1000, Bytes(64 << 10, 0x90)});
  VirtualProcess process(1, 1, image, true);
  BulkBytes answer;
  uint32_t bad = 1;
  process.Read(0x1000, 64 << 10, answer, bad);
  ASSERT_EQ(answer.size(), size_t{64 << 10});
  ASSERT_TRUE(process.Write(0x1010, {0x11}).ok());
  EXPECT_EQ(answer.data()[0x10], 0x90);
  BulkBytes after;
  process.Read(0x1010, 1, after, bad);
  EXPECT_EQ(after, Bytes{0x11});
}

}  // namespace
}  // namespace qv::server
