#include "requests/debug_records.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "requests/catalogue.h"
#include "support/wire_bytes.h"

namespace qv {
namespace {

using testing::ByteVector;
using testing::DecodeAll;
using testing::Encode;
using testing::HandBytes;

ProcessInfoRecord FullProcess() {
  ProcessInfoRecord p;
  p.ProcessID = 0x51;
  p.Attributes = 0x8001;
  p.Name = "eboot.bin";
  p.Entry = 0x400000;
  p.Fingerprint = u"0f1e2d3c";
  p.ParentPID = 1;
  p.MainThrId = 0x1001;
  p.Reason = {0xA0020007, 0, 0x77};
  p.ProcessPathname = u"/app0/eboot.bin";
  p.ExceptionFrame = {0x500000, 0x40, 0, 0x500040, 0x1000, 0};
  p.Affinity = 0x7F;
  p.AppId = -2;
  p.ProcessTime = 123456789;
  p.CurrentRTCSeconds = 1700000000;
  p.CurrentRTCNanoseconds = 999;
  p.CurrentPTCMicroSeconds = 42;
  return p;
}

ThreadInfoRecord FullThread(std::optional<SyncObjectRecord> wait_object) {
  ThreadInfoRecord t;
  t.Tid = 0x1001;
  t.Name = "main";
  t.State = 1;
  t.WaitState = 0x80000;
  t.StackAddr = 0x7fff0000;
  t.StackSize = 0x100000;
  t.Priority = {1, 2, 3, 4};
  t.Reason = {131, 0, 9};
  t.ExitCode = 0xFFFFFFFFFFFFFFFF;
  t.Type = 1;
  t.Rip = 0x401234;
  t.Affinity = 3;
  t.CpuId = 2;
  t.Policy = 3;
  t.Flags = 4 | 32;
  t.BranchFrom = 0x401000;
  t.BranchTo = 0x402000;
  t.ExtraReasonInfo = {1, 2, 3};
  t.UserState = 4;
  t.CurrentPTCMicroseconds = 1000;
  t.SyscallStartPTCMicroseconds = 900;
  t.WaitObject = std::move(wait_object);
  return t;
}

SyncObjectRecord WaitOnPosixMutex() {
  return SyncObjectRecord::Make<SyncObjectKind::kPosixMutex>(
      {-7, 0xDEAD, "lock", 1, 5, 0x1002, 2, {0x1001, 0x1003}});
}

SyncObjectRecord WaitOnUltQueue() {
  return SyncObjectRecord::Make<SyncObjectKind::kUltQueue>(
      {3, 4, "jobs", 5, 6, 64, 7, {0x100000001}, {1, 2}, {0x9000, 0x9040}});
}

ModuleInfoRecord FullModule() {
  ModuleInfoRecord m;
  m.SdkVersion = 0x05000000;
  m.ModuleVersion = 0x0102;
  m.Type = 2;
  m.StartEntryAddress = 0x800000;
  m.ReferenceCount = 1;
  m.StopEntryAddress = 0x800100;
  m.ModuleName = u"libc.prx";
  m.Status = 1;
  m.Fingerprint = u"abcd";
  m.SegmentInfoList = {{5, 0, 0x800000, 0x4000}, {6, 0, 0x804000, 0x1000}};
  m.ExceptionFrame = {0x803000, 0x20, 0, 0x803020, 0x200, 0};
  m.Flags = 8;
  m.RequiredModules = {11, 12};
  m.OriginalFile = u"/system/libc.prx";
  m.TlsIndex = 3;
  m.LoadPath = u"/app0/sce_module";
  return m;
}

SyncPrimInfoRecord SomePrimitives() {
  SyncPrimInfoRecord info;
  info.UltWaitQueueList = {{1, 2, "pool", 3, 4, 5, 6}};
  info.VestaRwlockList = {{8, 9, "rw", std::nullopt, 2u, 0x1001, {0x1002}, {}}};
  info.VestaEventQueueList = {{10, 11, "eq", 2, {0xFF, 0x01}, 17}};
  return info;
}

AppObjectInfoRecord SomeAppObjects() {
  AppObjectInfoRecord info;
  FiberRecord fiber;
  fiber.Name = "fiber0";
  fiber.FiberId = 77;
  fiber.RegisterMxcsr = 0x1F80;
  info.FiberInfoList = {fiber};
  UserLevelThreadRecord ult;
  ult.Name = "ult0";
  ult.UltId = 5;
  ult.Fiber = fiber;
  info.UltRuntimeInfoList = {{"runtime", 16, {0x1001, 0x1002}, {ult}}};
  JobManagerSequenceRecord sequence;
  sequence.Name = "seq";
  JobManagerSectionRecord dispatch;
  dispatch.DispatchOption = JobManagerDispatchRecord{};
  dispatch.DispatchOption->Name = "d";
  JobManagerSectionRecord wait;
  wait.WaitOption = JobManagerWaitRecord{0x1003};
  sequence.SectionInfoList = {dispatch, wait};
  JobManagerInfoRecord manager;
  manager.JobManagerId = 1;
  manager.SequenceInfoList = {sequence};
  info.JobManagerInfoList = {manager};
  info.Flags = 7;
  return info;
}

// A value's encoding, and two ways to decode bytes into a fresh value: whether that gives back the
// original using every byte, and whether it succeeds at all.
struct Sample {
  const char* name;
  ByteVector bytes;
  std::function<bool(const ByteVector&)> decodes_to_original;
  std::function<bool(const ByteVector&)> decodes;
};

template <class T>
Sample MakeSample(const char* name, T value) {
  return {name, Encode(value),
          [value](const ByteVector& bytes) {
            T decoded{};
            return DecodeAll(bytes, decoded) && decoded == value;
          },
          [](const ByteVector& bytes) {
            MessageBuffer buffer(bytes.data(), bytes.size());
            T decoded{};
            return ReadField(buffer, decoded);
          }};
}

std::vector<Sample> Samples() {
  ThreadInfoRecord bare_thread;
  bare_thread.Tid = 9;
  bare_thread.Name = "idle";
  return {
      MakeSample("process", FullProcess()),
      MakeSample("thread waiting on a posix mutex", FullThread(WaitOnPosixMutex())),
      MakeSample("thread waiting on a user-level queue", FullThread(WaitOnUltQueue())),
      MakeSample("thread without optional fields", bare_thread),
      MakeSample("module", FullModule()),
      MakeSample("synchronisation primitives", SomePrimitives()),
      MakeSample("application objects", SomeAppObjects()),
      MakeSample("scattered data", ScatteredDataList{{0x1000, {1, 2, 3}}, {0x2000, {}}}),
  };
}

// Each sample decodes back to itself using every byte, and no proper prefix of it decodes.
TEST(DebugRecordsTest, FullyPopulatedRecordsRoundTripAndPrefixesFail) {
  for (const Sample& sample : Samples()) {
    SCOPED_TRACE(sample.name);
    EXPECT_TRUE(sample.decodes_to_original(sample.bytes));
    for (size_t length = 0; length < sample.bytes.size(); ++length) {
      const ByteVector prefix(sample.bytes.begin(),
                              sample.bytes.begin() + static_cast<ptrdiff_t>(length));
      EXPECT_FALSE(sample.decodes(prefix)) << "prefix of " << length << " bytes";
    }
  }
}

TEST(DebugRecordsTest, ExactBytesOfHandComputedEncodings) {
  HardwareBreakpointRecord hardware;
  hardware.Address = 0x1000;
  hardware.Flags = 1;
  hardware.RegionSize = 8;
  hardware.BreakPtId = 5;
  StopReasonRecord reason;
  reason.Code = 0xA0020001;
  reason.StopId = 0x0102030405060708;
  RwlockRecord lock;
  lock.KernelID = 1;
  lock.Name = "";
  lock.NumReaders = 3;
  const struct {
    const char* name;
    ByteVector actual;
    ByteVector expected;
  } kCases[] = {
      // ThreadID, Address, Attribute, HitCount, DIFByteCode, and BreakPtId last.
      {"software breakpoint",
       Encode(SoftwareBreakpointRecord{7, 0x1122334455667788, 3, 2, {0xAB, 0xCD}, 9}),
       HandBytes().U32(7).U64(0x1122334455667788).U32(3, 2, 2).Byte(0xAB, 0xCD).U32(9).bytes()},
      // Address, Flags, RegionSize, BreakPtId and a padding word.
      {"hardware breakpoint", Encode(hardware), HandBytes().U64(0x1000).U32(1, 8, 5, 0).bytes()},
      {"stop reason", Encode(reason),
       HandBytes().U32(0xA0020001, 0).U64(0x0102030405060708).bytes()},
      // A present wait object is its kind (the position of its list in the primitive info
      // response, here PosixConditionVariableList, the nineteenth) and then the record.
      {"wait object",
       Encode(std::optional<SyncObjectRecord>(
           SyncObjectRecord::Make<SyncObjectKind::kPosixConditionVariable>({-1, 2, "cv", {5}}))),
       HandBytes().U32(1, 18, 0xFFFFFFFF).U64(2).NText("cv").U32(1, 5).bytes()},
      // Absent optionals of a read-write lock are a zero flag alone: Attribute absent,
      // NumReaders present, OwnerThreadID, no read and no write waiters.
      {"read-write lock", Encode(lock),
       HandBytes().U32(1).U64(0).NText("").U32(0, 1, 3, 0, 0, 0).bytes()},
      // A list of segments goes as the count and the 24-byte images in one piece.
      {"segment list", Encode(SegmentInfoList{{5, 0, 0x800000, 0x4000}}),
       HandBytes().U32(1, 5, 0).U64(0x800000, 0x4000).bytes()},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.actual, c.expected);
  }
}

TEST(DebugRecordsTest, UnknownWaitObjectKindFailsToDecode) {
  ByteVector bytes = HandBytes().U32(static_cast<uint32_t>(kSyncObjectKindCount)).bytes();
  bytes.resize(bytes.size() + 64);  // plenty of bytes for any record
  SyncObjectRecord decoded;
  EXPECT_FALSE(DecodeAll(bytes, decoded));
}

TEST(DebugRecordsTest, RendersLabelsAndAbsentOptionals) {
  CGetMemoryRequest request;
  request.ProcessID = 81;
  request.BaseAddress = 4096;
  request.Size = 16;
  EXPECT_EQ(request.ToString(), "{ ProcessID:81 BaseAddress:4096 Size:16 }");

  CGetThreadInfoSnapshotResponse response;
  response.Sequence = 4;
  ThreadInfoRecord thread;
  thread.Tid = 9;
  thread.Name = "idle";
  thread.Priority = {1, 2, 3, 4};
  response.ThreadInfoList = {thread};
  EXPECT_EQ(response.ToString(),
            "{ Result:0x00000000 ResultText: Sequence:4 ThreadInfoList:1{ { tid:9 name:idle "
            "state:0 waitState:0 stackAddr:0 stackSize:0 "
            "priority:{ Class:1 Level:2 Native:3 User:4 } reason:{ Code:0 StopId:0 } "
            "exitCode:0 type:0 rip:<none> affinity:0 cpuId:<none> policy:<none> flags:<none> "
            "branchFrom:<none> branchTo:<none> extraReasonInfo:0{ } userState:<none> "
            "currentPTCMicroseconds:<none> syscallStartPTCMicroseconds:<none> "
            "waitObjectOption:<none> } } }");

  std::string rendered;
  RenderField(rendered, WaitOnPosixMutex());
  EXPECT_EQ(rendered,
            "{ Kind:PosixMutex KernelID:-7 UserID:57005 Name:lock Attributes:1 Ceiling:5 "
            "OwnerThreadID:4098 Count:2 WaitingThreads:2{ 4097 4099 } }");
}

}  // namespace
}  // namespace qv
