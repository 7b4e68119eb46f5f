// Processes of a virtual kit, from the program images of its scenario, through the server's
// request path: memory, breakpoints, registers, run state and what the Debug subscribers hear.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "server/core/packet_log.h"
#include "server/core/request_dispatcher.h"
#include "server/handlers/handlers.h"
#include "server/kits/scenario_document.h"
#include "server/targets/target_registry.h"
#include "serverlink/frame.h"
#include "serverlink/wire_fields.h"

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
)";

constexpr uint32_t kRip = 0x10012;
constexpr uint32_t kYmm1 = 0x40001;
constexpr uint32_t kDr0 = 0x50000;

// What the Debug subscriber hears, decoded; the kit's clock posts from a thread of its own.
class TypesSink : public ClientSink {
 public:
  void Post(std::shared_ptr<const std::vector<uint8_t>> body) override {
    MessageBuffer in(body->data(), body->size());
    uint32_t kind = 0;
    uint32_t type_number = 0;
    ReadField(in, kind);
    ReadField(in, type_number);
    auto notification = NotificationFactory().Create(type_number);
    if (notification == nullptr || !notification->Deserialize(in)) return;
    std::lock_guard lock(mutex_);
    received_.push_back(std::move(notification));
    arrived_.notify_all();
  }
  // The next notification after those already taken; null after `wait` without one.
  std::shared_ptr<CNotification> Next(std::chrono::milliseconds wait = std::chrono::seconds(5)) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, wait, [this] { return received_.size() > taken_; });
    return received_.size() > taken_ ? received_[taken_++] : nullptr;
  }
  // The names of the next `count` notifications, and of any that follow at once after them.
  std::vector<std::string> Names(size_t count) {
    std::vector<std::string> names;
    while (names.size() < count) {
      const auto notification = Next();
      if (notification == nullptr) break;
      names.push_back(platform::Utf16ToUtf8(notification->GetName()));
    }
    while (auto extra = Next(std::chrono::milliseconds(50)))
      names.push_back(platform::Utf16ToUtf8(extra->GetName()));
    return names;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::shared_ptr<CNotification>> received_;
  size_t taken_ = 0;
};

class VirtualProcessTest : public ::testing::Test {
 protected:
  VirtualProcessTest() : registry_(*ParseScenario(kScenario, "test.yaml").scenario) {
    RegisterHandlers(dispatcher_, registry_, packet_log_);
    registry_.AddClient({1, 100}, &sink_);
    registry_.Subscribe(1, EventGroup::Debug, 1);
  }

  template <class Response>
  Response Ask(const CRequest& request) {
    MessageBuffer body;
    EXPECT_TRUE(WriteRequestHeader(body, request.GetTypeNumber(), 1, 1) && request.Serialize(body));
    const auto answer = dispatcher_.Dispatch(1, 100, body.Data(), body.Size());
    MessageBuffer in(answer->data(), answer->size());
    uint32_t kind = 0;
    uint32_t type_number = 0;
    Response response;
    EXPECT_TRUE(ReadField(in, kind) && ReadField(in, type_number));
    EXPECT_TRUE(response.Deserialize(in));
    return response;
  }

  uint32_t Load(uint32_t flags = 0, const char16_t* path = u"/app/game.elf") {
    CLoadProcessRequest load;
    load.Path = path;
    load.Flags = flags;
    const auto response = Ask<CLoadProcessResponse>(load);
    EXPECT_EQ(response.Result, 0u) << platform::Utf16ToUtf8(response.ResultText);
    return response.Pid;
  }

  CGetMemoryResponse Read(uint32_t pid, uint64_t address, uint32_t size) {
    CGetMemoryRequest read;
    read.ProcessID = pid;
    read.BaseAddress = address;
    read.Size = size;
    return Ask<CGetMemoryResponse>(read);
  }

  TypesSink sink_;
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

  CGetScatteredMemoryRequest gather;
  gather.ProcessID = pid;
  for (const auto& r : reads)
    gather.Regions.push_back({r.address, r.size, 0});
  const auto gathered = Ask<CGetScatteredMemoryResponse>(gather).Data;
  ASSERT_EQ(gathered.size(), std::size(reads));
  for (size_t i = 0; i < gathered.size(); ++i) {
    EXPECT_EQ(gathered[i].BaseAddress, reads[i].address);
    EXPECT_EQ(gathered[i].Data, reads[i].data) << "a scattered read reads as GET_MEMORY does";
  }
  CSetScatteredMemoryRequest scatter;
  scatter.ProcessID = pid;
  scatter.Regions = {{0x2000, {1, 2}}, {0x2007, {3, 4}}, {0x1004, {0x90}}};
  EXPECT_EQ(Ask<CSetScatteredMemoryResponse>(scatter).Results, (U32List{2, 0, 1}));
  EXPECT_EQ(Read(pid, 0x2006, 2).ReadData, (Bytes{0xab, 0xab})) << "nothing of a refused region";
  EXPECT_EQ(Read(pid, 0x1004, 1).ReadData, Bytes{0x90});

  EXPECT_EQ(Read(pid, 0x1000, 0xFFFFFFFF).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_EXCEED_MAX_PACKET_SIZE))
      << "refused before 4 GiB is allocated";

  CSetMemoryRequest outside;
  outside.ProcessID = pid;
  outside.BaseAddress = 0x100f;
  outside.WriteData = {1, 2};
  EXPECT_EQ(Ask<CSetMemoryResponse>(outside).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_INVALID_ADDRESS));
  EXPECT_EQ(Read(pid, 0x100f, 1).ReadData, Bytes{0}) << "a refused write changes nothing";

  CSetSoftwareBreakPointRequest set;
  set.ProcessID = pid;
  set.Address = 0x1001;
  const auto breakpoint = Ask<CSetSoftwareBreakPointResponse>(set);
  ASSERT_EQ(breakpoint.Result, 0u);
  EXPECT_EQ(breakpoint.OriginalOpcode, Bytes{0x48});
  EXPECT_EQ(Read(pid, 0x1001, 1).ReadData, Bytes{0xcc});
  EXPECT_EQ(Ask<CSetSoftwareBreakPointResponse>(set).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_DUPLICATE_ENTRY));
  CSetMemoryRequest under;
  under.ProcessID = pid;
  under.BaseAddress = 0x1001;
  under.WriteData = {0x77};
  EXPECT_EQ(Ask<CSetMemoryResponse>(under).BytesWritten, 1u);
  EXPECT_EQ(Read(pid, 0x1001, 1).ReadData, Bytes{0xcc}) << "the breakpoint stays";
  CClearSoftwareBreakPointRequest clear;
  clear.ProcessID = pid;
  clear.BreakPtId = breakpoint.BreakPtId;
  EXPECT_EQ(Ask<CClearSoftwareBreakPointResponse>(clear).Result, 0u);
  EXPECT_EQ(Read(pid, 0x1001, 1).ReadData, Bytes{0x77}) << "what was written under it returns";
  EXPECT_EQ(Ask<CClearSoftwareBreakPointResponse>(clear).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_INVALID_SWBRKPT_ID));
}

TEST_F(VirtualProcessTest, RegistersAndHardwareBreakpointsLandInTheThreads) {
  const uint32_t pid = Load();
  CGetThreadInfoSnapshotRequest snapshot;
  snapshot.ProcessID = pid;
  const auto threads = Ask<CGetThreadInfoSnapshotResponse>(snapshot).ThreadInfoList;
  ASSERT_EQ(threads.size(), 2u);
  EXPECT_EQ(threads[0].Name, "main");
  EXPECT_EQ(threads[0].Rip, std::optional<uint64_t>(0x1000)) << "the main thread starts at entry";

  CGetRegistersRequest get;
  get.ProcessID = pid;
  get.ThreadID = threads[1].Tid;
  get.RegisterIndices = {kYmm1, kRip};
  EXPECT_EQ(Ask<CGetRegistersResponse>(get).RegisterValues, (U64List{1, 2, 3, 4, 0, 0, 0, 0}));

  CSetHardwareBreakPointRequest hw;
  hw.ProcessID = pid;
  hw.RegionSize = 8;
  hw.Flags = 1;  // on write
  for (uint64_t slot = 0; slot < 4; ++slot) {
    hw.Address = 0x2000 + slot * 8;
    EXPECT_EQ(Ask<CSetHardwareBreakPointResponse>(hw).Result, 0u);
  }
  EXPECT_EQ(Ask<CSetHardwareBreakPointResponse>(hw).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_RESOURCE_SHORTAGE));
  get.RegisterIndices = {kDr0 + 3, kDr0 + 7};
  // DR7: L0..L3, and for each slot write (01) of 8 bytes (10).
  EXPECT_EQ(Ask<CGetRegistersResponse>(get).RegisterValues,
            (U64List{0x2018, 0, 0, 0, 0x99990055, 0, 0, 0}));

  const struct {
    uint32_t pid, tid, id;
    eErrorCode code;
    std::string named;  // the text names the value
  } refused[] = {
      {pid, threads[0].Tid, 0x10010, KXAPI_COMMS_ERR_INVALID_REG_INDEX, "0x10010"},  // unassigned
      {pid, 9999, kRip, KXAPI_COMMS_ERR_INVALID_TID, "9999"},
      {pid + 1, threads[0].Tid, kRip, KXAPI_COMMS_ERR_INVALID_PID, std::to_string(pid + 1)},
  };
  for (const auto& r : refused) {
    get.ProcessID = r.pid;
    get.ThreadID = r.tid;
    get.RegisterIndices = {r.id};
    const auto response = Ask<CGetRegistersResponse>(get);
    EXPECT_EQ(response.Result, static_cast<uint32_t>(r.code));
    EXPECT_NE(platform::Utf16ToUtf8(response.ResultText).find(r.named), std::string::npos)
        << platform::Utf16ToUtf8(response.ResultText);
  }
}

TEST_F(VirtualProcessTest, LoadingStoppedAtEntryAndKillingAreHeardInOrder) {
  CLoadProcessRequest unknown;
  unknown.Path = u"/app/missing.elf";
  EXPECT_EQ(Ask<CLoadProcessResponse>(unknown).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_FILE_DOES_NOT_EXIST));
  const uint32_t pid = Load(0x1);
  CKillProcessRequest kill;
  kill.ProcessID = pid;
  EXPECT_EQ(Ask<CKillProcessResponse>(kill).Result, 0u);
  EXPECT_EQ(Ask<CKillProcessResponse>(kill).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_INVALID_PID));

  EXPECT_EQ(sink_.Names(6),
            (std::vector<std::string>{"PROCESS_LOADING", "PROCESS_CREATE", "THREAD_CREATE",
                                      "THREAD_CREATE", "STOP_NOTIFICATION", "PROCESS_KILL"}));
}

TEST_F(VirtualProcessTest, RunningThreadsStopAtBreakpointsStepsAndFaultsAndExitAtTheirPathsEnd) {
  CGetProcessInfoSnapshotRequest snapshot;
  ASSERT_EQ(Ask<CGetProcessInfoSnapshotResponse>(snapshot).ProcessInfoList.size(), 1u)
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
  CSetSoftwareBreakPointRequest software;
  software.ProcessID = pid;
  software.Address = 0x3008;
  ASSERT_EQ(Ask<CSetSoftwareBreakPointResponse>(software).Result, 0u);
  CSetHardwareBreakPointRequest hardware;  // execute, 1 byte
  hardware.ProcessID = pid;
  hardware.Address = 0x3010;
  hardware.RegionSize = 1;
  ASSERT_EQ(Ask<CSetHardwareBreakPointResponse>(hardware).Result, 0u);

  CGetThreadInfoSnapshotRequest threads;
  threads.ProcessID = pid;
  const uint32_t main = Ask<CGetThreadInfoSnapshotResponse>(threads).ThreadInfoList[0].Tid;
  CResumeProcessRequest resume;
  resume.ProcessID = pid;
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
    const auto resumed = Ask<CResumeProcessResponse>(expected.how);
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
  Ask<CResumeProcessResponse>(resume);
  const auto exited = sink_.Next();
  ASSERT_NE(exited, nullptr);
  ASSERT_EQ(exited->GetTypeNumber(), CThreadExitNotification::kTypeNumber);
  EXPECT_EQ(static_cast<const CThreadExitNotification&>(*exited).ExitCode, 7u);
  CKillProcessRequest kill;
  kill.ProcessID = pid;
  EXPECT_EQ(Ask<CKillProcessResponse>(kill).Result, 0u);
  EXPECT_EQ(sink_.Names(1), std::vector<std::string>{"PROCESS_KILL"});

  const uint32_t quick = Load(0, u"/app/quick.elf");
  EXPECT_EQ(sink_.Names(5),
            (std::vector<std::string>{"PROCESS_LOADING", "PROCESS_CREATE", "THREAD_CREATE",
                                      "THREAD_EXIT", "PROCESS_EXIT"}));
  threads.ProcessID = quick;
  EXPECT_EQ(Ask<CGetThreadInfoSnapshotResponse>(threads).Result,
            static_cast<uint32_t>(KXAPI_COMMS_ERR_INVALID_PID))
      << "an ended process is gone";
}

TEST(ProgramImageScenarioTest, MistakesAreRefusedWithTheirLineByBothReaders) {
  const struct {
    const char* image;
    const char* error;
  } cases[] = {
      {"{path: /a, threads: [{registers: {rxx: 1}}]}", "'rxx' is not a register"},
      {"{path: /a, regions: [{base: 0, size: 4}, {base: 2, size: 4}]}", "overlaps an earlier one"},
      {"{path: /a, regions: [{base: 0, fill: \"90\"}]}", "needs a 'size'"},
      {"{path: /a, regions: [{base: 0, hex: \"9\"}]}", "whole pairs of hex digits"},
      {"{path: /a, entry: 0x1g}", "must be a number"},
  };
  for (const auto& c : cases) {
    const std::string text =
        std::string("kits:\n  - host: dk\n    images:\n      - ") + c.image + "\n";
    std::vector<DocumentReader> readers{&ReadYamlSubset};
#ifdef VEKX_SERVER_HAVE_YAML
    readers.push_back(&ReadYamlWithYamlCpp);
#endif
    for (const DocumentReader reader : readers) {
      const ScenarioResult result = ParseScenarioWith(reader, text, "s.yaml");
      EXPECT_FALSE(result.scenario.has_value()) << c.image;
      EXPECT_NE(result.error.find(c.error), std::string::npos) << result.error;
      EXPECT_EQ(result.error.rfind("s.yaml:4: ", 0), 0u) << result.error;
    }
  }
}

}  // namespace
}  // namespace qv::server
