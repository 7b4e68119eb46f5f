#include "requests/debug_records.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "requests/catalogue.h"
#include "support/field_filler.h"
#include "support/wire_bytes.h"

namespace qv {
namespace {

using testing::ByteVector;
using testing::DecodeAll;
using testing::Encode;
using testing::Filled;
using testing::HandBytes;

SyncObjectRecord WaitOnPosixMutex() {
  return SyncObjectRecord::Make<SyncObjectKind::kPosixMutex>(
      {-7, 0xDEAD, "lock", 1, 5, 0x1002, 2, {0x1001, 0x1003}});
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

// Every field of the records set (FieldFiller), a thread with a wait object, and one
// without its optional fields.
std::vector<Sample> Samples() {
  ThreadInfoRecord bare_thread;
  bare_thread.Tid = 9;
  bare_thread.Name = "idle";
  ThreadInfoRecord on_mutex = Filled<ThreadInfoRecord>();
  on_mutex.WaitObject = WaitOnPosixMutex();
  return {
      MakeSample("process", Filled<ProcessInfoRecord>()),
      MakeSample("thread waiting on a posix mutex", on_mutex),
      MakeSample("thread without optional fields", bare_thread),
      MakeSample("module", Filled<ModuleInfoRecord>()),
      MakeSample("synchronisation primitives", Filled<SyncPrimInfoRecord>()),
      MakeSample("application objects", Filled<AppObjectInfoRecord>()),
      MakeSample("scattered data", Filled<ScatteredDataList>()),
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
