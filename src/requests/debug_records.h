#pragma once
// Records of the debug model: processes, threads, modules, memory, breakpoints and
// synchronisation objects, as they travel in the debug operations and debug notifications.
//
// Enumerations and bit sets (eProcessAttr, eThreadState, eModuleTypes, ...) are carried as
// uint32_t: the client passes them through and never interprets them. Plain records are memory
// images whose padding is part of the wire; their padding members have empty labels.
//
// The field lists are tables, one field per line in stream order, so clang-format is kept off
// them.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "requests/wire_types.h"

namespace qv {

// clang-format off

// ---------------------------------------------------------------------------------------------
// Blocks shared by processes, threads and modules.

// Why a process or thread stopped: an eStopNotificationReason code and the target's stop id.
VEKX_PLAIN_RECORD(StopReasonRecord, 16,
    (uint32_t, Code, "Code:")
    (uint32_t, Padding, "")
    (uint64_t, StopId, "StopId:"));

// Where the exception handling frame of a process or module lies.
VEKX_PLAIN_RECORD(ExceptionFrameRecord, 32,
    (uint64_t, HeaderAddress, "HeaderAddress:")
    (uint32_t, HeaderSize, "HeaderSize:")
    (uint32_t, Padding1, "")
    (uint64_t, FrameAddress, "FrameAddress:")
    (uint32_t, FrameSize, "FrameSize:")
    (uint32_t, Padding2, ""));

// ---------------------------------------------------------------------------------------------
// Processes.

VEKX_RECORD(ProcessInfoRecord,
    (uint32_t, ProcessID, "ProcessID:")
    (uint32_t, Attributes, "Attributes:")  // eProcessAttr bits
    (NString, Name, "Name:")
    (uint64_t, Entry, "Entry:")
    (WString, Fingerprint, "Fingerprint:")
    (uint32_t, ParentPID, "ParentPID:")
    (uint32_t, MainThrId, "MainThrId:")
    (StopReasonRecord, Reason, "reason:")
    (WString, ProcessPathname, "ProcessPathname:")
    (ExceptionFrameRecord, ExceptionFrame, "ExceptionFrame:")
    (uint32_t, Affinity, "Affinity:")
    (int32_t, AppId, "AppId:")
    (uint64_t, ProcessTime, "ProcessTime:")
    (std::optional<uint64_t>, CurrentRTCSeconds, "CurrentRTCSeconds:")
    (std::optional<uint64_t>, CurrentRTCNanoseconds, "CurrentRTCNanoseconds:")
    (std::optional<uint64_t>, CurrentPTCMicroSeconds, "CurrentPTCMicroSeconds:"));
using ProcessInfoList = std::vector<ProcessInfoRecord>;

// ---------------------------------------------------------------------------------------------
// Modules.

VEKX_PLAIN_RECORD(SegmentInfoRecord, 24,
    (uint32_t, Attributes, "Attributes:")
    (uint32_t, Padding, "")
    (uint64_t, BaseAddress, "BaseAddress:")
    (uint64_t, Size, "Size:"));
using SegmentInfoList = std::vector<SegmentInfoRecord>;

VEKX_RECORD(ModuleInfoRecord,
    (uint32_t, SdkVersion, "SdkVersion:")
    (uint32_t, ModuleVersion, "ModuleVersion:")
    (uint32_t, Type, "Type:")  // eModuleTypes
    (uint64_t, StartEntryAddress, "StartEntryAddress:")
    (uint32_t, ReferenceCount, "ReferenceCount:")
    (uint64_t, StopEntryAddress, "StopEntryAddress:")
    (WString, ModuleName, "ModuleName:")
    (uint32_t, Status, "Status:")  // eModuleStatus
    (WString, Fingerprint, "Fingerprint:")
    (std::vector<SegmentInfoRecord>, SegmentInfoList, "SegmentInfoList:")
    (ExceptionFrameRecord, ExceptionFrame, "ExceptionFrame:")
    (uint32_t, Flags, "Flags:")  // eModuleFlags
    (U64List, RequiredModules, "RequiredModules:")
    (WString, OriginalFile, "OriginalFile:")
    (uint32_t, TlsIndex, "TlsIndex:")
    (WString, LoadPath, "LoadPath:"));
using ModuleInfoList = std::vector<ModuleInfoRecord>;

// ---------------------------------------------------------------------------------------------
// Synchronisation primitives. Every one starts with the kernel id (i32), the user id (u64) and
// a narrow name. Widths follow the target's records; where the target leaves the sign of a
// 32-bit field open we use i32 for counts and attributes that the target's own API declares as
// int, and u32 for thread and process ids, reference counts and sizes.

VEKX_RECORD(MutexRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (int32_t, Attributes, "Attributes:")
    (int32_t, Ceiling, "Ceiling:")
    (uint32_t, OwnerThreadID, "OwnerThreadID:")
    (int32_t, Count, "Count:")
    (U32List, WaitingThreads, "WaitingThreads:"));
using VestaMutexRecord = MutexRecord;
using PosixMutexRecord = MutexRecord;

VEKX_RECORD(SemaphoreRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (int32_t, Count, "Count:")
    (int32_t, Attributes, "Attributes:")
    (int32_t, InitialValue, "InitialValue:")
    (int32_t, MaxValue, "MaxValue:")
    (uint32_t, RefCount, "RefCount:")
    (uint32_t, CreationProcessID, "CreationProcessID:")
    (U32List, WaitingThreads, "WaitingThreads:"));
using VestaSemaphoreRecord = SemaphoreRecord;
using VestaKernelSemaphoreRecord = SemaphoreRecord;

VEKX_RECORD(EventFlagRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint64_t, CurrentValue, "CurrentValue:")
    (int32_t, Attributes, "Attributes:")
    (uint32_t, RefCount, "RefCount:")
    (uint32_t, CreationProcessID, "CreationProcessID:")
    (U32List, WaitingThreads, "WaitingThreads:"));
using VestaEventFlagRecord = EventFlagRecord;
using VestaKernelEventFlagRecord = EventFlagRecord;

// Events is the number of events pending in the queue (u32), the subscribed events the target's
// own table of them (bytes, passed through), the descriptor an i32 as file descriptors are.
VEKX_RECORD(VestaEventQueueRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint32_t, Events, "Events:")
    (Bytes, SubscribedEvents, "SubscribedEvents:")
    (int32_t, FileDescriptor, "FileDescriptor:"));

VEKX_RECORD(BarrierRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (int32_t, Count, "Count:")
    (U32List, WaitingThreads, "WaitingThreads:"));
using VestaBarrierRecord = BarrierRecord;
using PosixBarrierRecord = BarrierRecord;

VEKX_RECORD(ConditionVariableRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (U32List, WaitingThreads, "WaitingThreads:"));
using VestaConditionVariableRecord = ConditionVariableRecord;
using PosixConditionVariableRecord = ConditionVariableRecord;

VEKX_RECORD(RwlockRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (std::optional<int32_t>, Attribute, "Attribute:")
    (std::optional<uint32_t>, NumReaders, "NumReaders:")
    (uint32_t, OwnerThreadID, "OwnerThreadID:")
    (U32List, WaitingReadThreads, "WaitingReadThreads:")
    (U32List, WaitingWriteThreads, "WaitingWriteThreads:"));
using VestaRwlockRecord = RwlockRecord;
using PosixRwlockRecord = RwlockRecord;

// The user-level (Ult) family names owners and waiters by 64-bit ids that may denote a
// user-level or a kernel thread.

VEKX_RECORD(UltMutexRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint64_t, ResourcePoolID, "ResourcePoolID:")
    (uint64_t, OwnerId, "OwnerId:")
    (uint32_t, Attribute, "Attribute:")
    (uint32_t, Count, "Count:")
    (U64List, Waiters, "Waiters:"));

VEKX_RECORD(UltSemaphoreRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint64_t, ResourcePoolID, "ResourcePoolID:")
    (U64List, Waiters, "Waiters:")
    (U32List, Resources, "Resources:")
    (uint32_t, CurrentResources, "CurrentResources:"));

VEKX_RECORD(UltConditionVariableRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint64_t, MutexID, "MutexID:")
    (U64List, Waiters, "Waiters:"));

VEKX_RECORD(UltRwlockRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint64_t, ResourcePoolID, "ResourcePoolID:")
    (uint32_t, LockStatus, "LockStatus:")
    (uint32_t, NumLockingReaders, "NumLockingReaders:")
    (uint64_t, OwnerId, "OwnerId:")
    (U64List, Waiters, "Waiters:")
    (U32List, Operations, "Operations:"));

VEKX_RECORD(UltQueueRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint64_t, ResourcePoolID, "ResourcePoolID:")
    (uint64_t, DataPoolID, "DataPoolID:")
    (uint64_t, DataSize, "DataSize:")
    (uint32_t, NumData, "NumData:")
    (U64List, Waiters, "Waiters:")
    (U32List, Operations, "Operations:")
    (U64List, Addresses, "Addresses:"));

VEKX_RECORD(UltQueueDataResourcePoolRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint64_t, ResourcePoolID, "ResourcePoolID:")
    (uint64_t, DataSize, "DataSize:")
    (uint32_t, NumData, "NumData:")
    (uint32_t, MaxNumData, "MaxNumData:")
    (uint32_t, NumQueueObjects, "NumQueueObjects:")
    (uint32_t, MaxNumQueueObjects, "MaxNumQueueObjects:"));

VEKX_RECORD(UltWaitingQueueResourcePoolRecord,
    (int32_t, KernelID, "KernelID:")
    (uint64_t, UserID, "UserID:")
    (NString, Name, "Name:")
    (uint32_t, NumResources, "NumResources:")
    (uint32_t, MaxNumResources, "MaxNumResources:")
    (uint32_t, NumSyncObjects, "NumSyncObjects:")
    (uint32_t, MaxNumSyncObjects, "MaxNumSyncObjects:"));

// The twenty kinds of synchronisation object, in the order of the lists of the
// GET_SYNC_PRIM_INFO_LIST response. The position in this table is the kind number that a
// SyncObjectRecord sends (0 to 19), so the table is append-only.
//   X(Kind, record type, list label)
#define VEKX_SYNC_OBJECT_KINDS(X)                                                  \
  X(UltDataQueue, UltQueueDataResourcePoolRecord, "UltDataQueueList:")             \
  X(UltWaitQueue, UltWaitingQueueResourcePoolRecord, "UltWaitQueueList:")          \
  X(UltQueue, UltQueueRecord, "UltQueueList:")                                     \
  X(UltRwLock, UltRwlockRecord, "UltRwLockList:")                                  \
  X(UltSema, UltSemaphoreRecord, "UltSemaList:")                                   \
  X(UltCond, UltConditionVariableRecord, "UltCondList:")                           \
  X(UltMutex, UltMutexRecord, "UltMutexList:")                                     \
  X(VestaSemaphore, VestaSemaphoreRecord, "VestaSemaphoreList:")                   \
  X(VestaKernelSemaphore, VestaKernelSemaphoreRecord, "VestaKernelSemaphoreList:") \
  X(VestaEventFlag, VestaEventFlagRecord, "VestaEventFlagList:")                   \
  X(VestaKernelEventFlag, VestaKernelEventFlagRecord, "VestaKernelEventFlagList:") \
  X(VestaMutex, VestaMutexRecord, "VestaMutexList:")                               \
  X(PosixMutex, PosixMutexRecord, "PosixMutexList:")                               \
  X(VestaBarrier, VestaBarrierRecord, "VestaBarrierList:")                         \
  X(PosixBarrier, PosixBarrierRecord, "PosixBarrierList:")                         \
  X(VestaRwlock, VestaRwlockRecord, "VestaRwlockList:")                            \
  X(PosixRwlock, PosixRwlockRecord, "PosixRwlockList:")                            \
  X(VestaConditionVariable, VestaConditionVariableRecord, "VestaConditionVariableList:") \
  X(PosixConditionVariable, PosixConditionVariableRecord, "PosixConditionVariableList:") \
  X(VestaEventQueue, VestaEventQueueRecord, "VestaEventQueueList:")

// The response of GET_SYNC_PRIM_INFO_LIST: one list per kind, in kind order.
#define VEKX_SYNC_LIST_FIELD(Kind, Record, label) (std::vector<Record>, Kind##List, label)
VEKX_RECORD(SyncPrimInfoRecord, VEKX_SYNC_OBJECT_KINDS(VEKX_SYNC_LIST_FIELD));
#undef VEKX_SYNC_LIST_FIELD

namespace detail {
// std::variant of every type after the first; lets a macro table emit ", T" per row.
template <class Ignored, class... Types>
struct VariantOfRest {
  using type = std::variant<Types...>;
};
}  // namespace detail

// One synchronisation object of any kind. Several kinds share a record type, so the variant may
// hold the same type at two positions: always address it by index (the kind), never by type.
#define VEKX_SYNC_KIND_TYPE(Kind, Record, label) , Record
using SyncObjectVariant =
    detail::VariantOfRest<void VEKX_SYNC_OBJECT_KINDS(VEKX_SYNC_KIND_TYPE)>::type;
#undef VEKX_SYNC_KIND_TYPE

enum class SyncObjectKind : uint32_t {
#define VEKX_SYNC_KIND_ENUMERATOR(Kind, Record, label) k##Kind,
  VEKX_SYNC_OBJECT_KINDS(VEKX_SYNC_KIND_ENUMERATOR)
#undef VEKX_SYNC_KIND_ENUMERATOR
};

inline constexpr std::array kSyncObjectKindNames{
#define VEKX_SYNC_KIND_NAME(Kind, Record, label) std::string_view(#Kind),
    VEKX_SYNC_OBJECT_KINDS(VEKX_SYNC_KIND_NAME)
#undef VEKX_SYNC_KIND_NAME
};

// clang-format on

inline constexpr size_t kSyncObjectKindCount = kSyncObjectKindNames.size();
static_assert(std::variant_size_v<SyncObjectVariant> == kSyncObjectKindCount);

template <SyncObjectKind K>
using SyncObjectRecordOf = std::variant_alternative_t<static_cast<size_t>(K), SyncObjectVariant>;

// A synchronisation object tagged with its kind, as a thread's wait object travels: the kind
// (u32, SyncObjectKind) and then that kind's record.
struct SyncObjectRecord {
  SyncObjectVariant Object;

  template <SyncObjectKind K>
  static SyncObjectRecord Make(SyncObjectRecordOf<K> record) {
    return {SyncObjectVariant(std::in_place_index<static_cast<size_t>(K)>, std::move(record))};
  }

  SyncObjectKind Kind() const { return static_cast<SyncObjectKind>(Object.index()); }

  // The record when the object is of kind K, else null.
  template <SyncObjectKind K>
  const SyncObjectRecordOf<K>* Get() const {
    return std::get_if<static_cast<size_t>(K)>(&Object);
  }

  bool operator==(const SyncObjectRecord&) const = default;
};

template <>
struct WireCodec<SyncObjectRecord> {
  static constexpr size_t kMinSize = 4 + [] {
    size_t smallest = SIZE_MAX;
#define VEKX_SYNC_KIND_MIN_SIZE(Kind, Record, label) \
  smallest = std::min(smallest, MinWireSize<Record>());
    VEKX_SYNC_OBJECT_KINDS(VEKX_SYNC_KIND_MIN_SIZE)
#undef VEKX_SYNC_KIND_MIN_SIZE
    return smallest;
  }();

  static bool Write(MessageBuffer& buffer, const SyncObjectRecord& value) {
    if (value.Object.valueless_by_exception()) return false;
    return WriteField(buffer, static_cast<uint32_t>(value.Object.index())) &&
           std::visit([&](const auto& record) { return WriteField(buffer, record); }, value.Object);
  }

  // An unknown kind fails: its record's length cannot be known.
  static bool Read(MessageBuffer& buffer, SyncObjectRecord& value) {
    uint32_t kind = 0;
    if (!ReadField(buffer, kind)) return false;
    return ReadKind(buffer, kind, value.Object, std::make_index_sequence<kSyncObjectKindCount>{});
  }

  // "{ Kind:VestaMutex KernelID:... }"
  static void Render(std::string& out, const SyncObjectRecord& value) {
    out += "{ ";
    if (!value.Object.valueless_by_exception()) {
      out += "Kind:";
      out += kSyncObjectKindNames[value.Object.index()];
      out += ' ';
      std::visit(
          [&](const auto& record) {
            WireCodec<std::decay_t<decltype(record)>>::RenderRecordFields(out, record);
          },
          value.Object);
    }
    out += '}';
  }

 private:
  template <size_t I>
  static bool ReadAlternative(MessageBuffer& buffer, SyncObjectVariant& object) {
    return ReadField(buffer, object.template emplace<I>());
  }

  template <size_t... I>
  static bool ReadKind(MessageBuffer& buffer, uint32_t kind, SyncObjectVariant& object,
                       std::index_sequence<I...>) {
    using Reader = bool (*)(MessageBuffer&, SyncObjectVariant&);
    static constexpr Reader kReaders[] = {&ReadAlternative<I>...};
    return kind < sizeof...(I) && kReaders[kind](buffer, object);
  }
};

// clang-format off

// ---------------------------------------------------------------------------------------------
// Threads.

VEKX_PLAIN_RECORD(ThreadPriorityRecord, 16,
    (uint32_t, Class, "Class:")
    (uint32_t, Level, "Level:")
    (uint32_t, Native, "Native:")
    (uint32_t, User, "User:"));

VEKX_RECORD(ThreadInfoRecord,
    (uint32_t, Tid, "tid:")
    (NString, Name, "name:")
    (uint32_t, State, "state:")          // eThreadState
    (uint32_t, WaitState, "waitState:")  // eThreadWaitState, meaningful when TDS_INHIBITED
    (uint64_t, StackAddr, "stackAddr:")
    (uint64_t, StackSize, "stackSize:")
    (ThreadPriorityRecord, Priority, "priority:")
    (StopReasonRecord, Reason, "reason:")
    (uint64_t, ExitCode, "exitCode:")
    (uint32_t, Type, "type:")  // eThreadType
    (std::optional<uint64_t>, Rip, "rip:")
    (uint32_t, Affinity, "affinity:")
    (std::optional<uint32_t>, CpuId, "cpuId:")
    (std::optional<uint32_t>, Policy, "policy:")  // eThreadPolicy
    (std::optional<uint32_t>, Flags, "flags:")    // eThreadInfoFlags bits
    (std::optional<uint64_t>, BranchFrom, "branchFrom:")
    (std::optional<uint64_t>, BranchTo, "branchTo:")
    (U64List, ExtraReasonInfo, "extraReasonInfo:")
    (std::optional<uint32_t>, UserState, "userState:")  // eThreadUserState
    (std::optional<uint64_t>, CurrentPTCMicroseconds, "currentPTCMicroseconds:")
    (std::optional<uint64_t>, SyscallStartPTCMicroseconds, "syscallStartPTCMicroseconds:")
    (std::optional<SyncObjectRecord>, WaitObject, "waitObjectOption:"));
using ThreadInfoList = std::vector<ThreadInfoRecord>;

// Thread names: which thread (plain, 8 bytes) goes in one list, its narrow name at the same
// position in another.
VEKX_PLAIN_RECORD(PidTidRecord, 8,
    (uint32_t, ProcessId, "ProcessId:")
    (uint32_t, ThreadId, "ThreadId:"));
using PidTidList = std::vector<PidTidRecord>;
using NStringList = std::vector<NString>;

// ---------------------------------------------------------------------------------------------
// Breakpoints.

// Sent field by field; the id comes after the record's own fields.
VEKX_RECORD(SoftwareBreakpointRecord,
    (uint32_t, ThreadID, "ThreadID:")
    (uint64_t, Address, "Address:")
    (uint32_t, Attribute, "Attribute:")  // eSoftwareBreakPtAttr bits
    (uint32_t, HitCount, "HitCount:")
    (Bytes, DIFByteCode, "DIFByteCode:")
    (uint32_t, BreakPtId, "BreakPtId:"));
using SoftwareBreakpointList = std::vector<SoftwareBreakpointRecord>;

VEKX_PLAIN_RECORD(HardwareBreakpointRecord, 24,
    (uint64_t, Address, "Address:")
    (uint32_t, Flags, "Flags:")  // eHardwareBreakPtFlags bits
    (uint32_t, RegionSize, "RegionSize:")
    (uint32_t, BreakPtId, "BreakPtId:")
    (uint32_t, Padding, ""));
using HardwareBreakpointList = std::vector<HardwareBreakpointRecord>;

// ---------------------------------------------------------------------------------------------
// Memory.

VEKX_PLAIN_RECORD(MemoryRangeRecord, 16,
    (uint64_t, BaseAddress, "BaseAddress:")
    (uint64_t, Size, "Size:"));
using MemoryRangeList = std::vector<MemoryRangeRecord>;

VEKX_PLAIN_RECORD(ScatteredReadRegion, 16,
    (uint64_t, Address, "Address:")
    (uint32_t, Length, "Length:")
    (uint32_t, Padding, ""));
using ScatteredReadRegionList = std::vector<ScatteredReadRegion>;

// What a scattered read returns per region, and what a scattered write sends.
VEKX_RECORD(ScatteredDataElement,
    (uint64_t, BaseAddress, "BaseAddress:")
    (Bytes, Data, "Data:"));
using ScatteredDataList = std::vector<ScatteredDataElement>;

VEKX_RECORD(VirtualMemoryRecord,
    (WString, Name, "name:")
    (uint64_t, StartAddr, "startAddr:")
    (uint64_t, EndAddr, "endAddr:")
    (uint32_t, Protection, "protection:")
    (uint32_t, Flags, "flags:")
    (uint32_t, MemType, "memType:")
    (uint64_t, Offset, "offset:")
    (uint64_t, ResidentSize, "residentSize:"));
using VirtualMemoryList = std::vector<VirtualMemoryRecord>;

// ---------------------------------------------------------------------------------------------
// Sockets and files of a process.

// Our widths: ids, type, policy, priority, queue lengths, ports, state and flags u32; IPv4
// addresses u32 in network byte order as the target's socket layer keeps them; name a wide
// string; the bandwidth fields u64 (bytes per second, which can pass 4 GiB/s on a local link).
VEKX_RECORD(SocketInfoRecord,
    (WString, Name, "Name:")
    (uint32_t, ProcessId, "ProcessId:")
    (uint32_t, SocketId, "SocketId:")
    (uint32_t, SocketType, "SocketType:")
    (uint32_t, Policy, "Policy:")
    (uint32_t, Priority, "Priority:")
    (uint32_t, RecvQueueLength, "RecvQueueLength:")
    (uint32_t, SendQueueLength, "SendQueueLength:")
    (uint32_t, LocalAddr, "LocalAddr:")
    (uint32_t, RemoteAddr, "RemoteAddr:")
    (uint32_t, LocalPort, "LocalPort:")
    (uint32_t, RemotePort, "RemotePort:")
    (uint32_t, LocalVPort, "LocalVPort:")
    (uint32_t, RemoteVPort, "RemoteVPort:")
    (uint32_t, State, "State:")
    (uint32_t, Flags, "Flags:")
    (uint64_t, CurrentUploadSpeed, "CurrentUploadSpeed:")
    (uint64_t, CurrentDownloadSpeed, "CurrentDownloadSpeed:")
    (uint64_t, MaxUploadSpeed, "MaxUploadSpeed:")
    (uint64_t, MaxDownloadSpeed, "MaxDownloadSpeed:"));
using SocketInfoList = std::vector<SocketInfoRecord>;

// Our widths: handle, attributes, flags and mode u32; file pointer and size u64; path wide.
VEKX_RECORD(OpenFileRecord,
    (uint32_t, Handle, "handle:")
    (uint32_t, Attributes, "attributes:")
    (uint32_t, Flags, "flags:")
    (uint32_t, Mode, "mode:")
    (uint64_t, FilePointer, "filePointer:")
    (uint64_t, FileSize, "fileSize:")
    (WString, Path, "path:"));
using OpenFileList = std::vector<OpenFileRecord>;

// ---------------------------------------------------------------------------------------------
// Application objects: fibers, user-level thread runtimes and job managers.
//
// Our widths: addresses, sizes, ids of runtime objects and saved registers u64; kernel thread
// ids u32 as everywhere; counts, states, types, attributes and the FPU control and MXCSR words
// u32; names narrow, as the synchronisation primitives' are. Nested objects travel as nested
// records (a user-level thread carries its fiber, a runtime its threads, a job manager its
// sequences, a sequence its sections).

VEKX_RECORD(FiberRecord,
    (NString, Name, "Name:")
    (uint64_t, FiberId, "FiberId:")
    (uint32_t, State, "State:")
    (uint32_t, WorkerThreadId, "WorkerThreadId:")
    (uint64_t, UltId, "UltId:")
    (uint64_t, Entry, "Entry:")
    (uint64_t, EntryArg, "EntryArg:")
    (uint64_t, AddrContext, "AddrContext:")
    (uint64_t, SizeContext, "SizeContext:")
    (uint64_t, RegisterRsp, "RegisterRsp:")
    (uint64_t, RegisterRbp, "RegisterRbp:")
    (uint64_t, RegisterRbx, "RegisterRbx:")
    (uint64_t, RegisterR12, "RegisterR12:")
    (uint64_t, RegisterR13, "RegisterR13:")
    (uint64_t, RegisterR14, "RegisterR14:")
    (uint64_t, RegisterR15, "RegisterR15:")
    (uint32_t, FpuControlWord, "FpuControlWord:")
    (uint32_t, RegisterMxcsr, "RegsiterMxcsr:")  // the label is spelled so in every log
    (uint32_t, ExecutionOrder, "ExecutionOrder:"));
using FiberList = std::vector<FiberRecord>;

VEKX_RECORD(UserLevelThreadRecord,
    (NString, Name, "Name:")
    (uint64_t, OneShotThreadStackSize, "OneShotThreadStackSize:")
    (uint64_t, UltId, "UltId:")
    (uint32_t, Attribute, "Attribute:")
    (uint64_t, Entry, "Entry:")
    (uint64_t, EntryArg, "EntryArg:")
    (uint64_t, ExitStatus, "ExitStatus:")
    (FiberRecord, Fiber, "Fiber:")
    (uint32_t, State, "State:"));
using UserLevelThreadList = std::vector<UserLevelThreadRecord>;

VEKX_RECORD(UltRuntimeRecord,
    (NString, Name, "Name:")
    (uint32_t, MaxNumUlts, "MaxNumUlts:")
    (U32List, WorkerThreads, "WorkerThreads:")
    (UserLevelThreadList, UserLevelThreads, "UserLevelThreads:"));
using UltRuntimeList = std::vector<UltRuntimeRecord>;

VEKX_RECORD(JobManagerDispatchRecord,
    (NString, Name, "Name:")
    (uint32_t, DispatchType, "DispatchType:")
    (uint32_t, DispatchState, "DispatchState:")
    (uint32_t, JobCount, "JobCount:")
    (uint64_t, EntryFunction, "EntryFunction:")
    (uint64_t, Arg, "Arg:")
    (uint32_t, NumReadyJobs, "NumReadyJobs:")
    (uint32_t, NumRunningJobs, "NumRunningJobs:")
    (uint32_t, NumCompletedJobs, "NumCompletedJobs:")
    (uint64_t, DispatchId, "DispatchId:")
    (uint64_t, DispatchIndirectArgs, "DispatchIndirectArgs:")
    (uint32_t, ThreadGroupX, "ThreadGroupX:")
    (uint32_t, ThreadGroupY, "ThreadGroupY:")
    (uint32_t, ThreadGroupZ, "ThreadGroupZ:"));

VEKX_RECORD(JobManagerBarrierRecord,
    (NString, Name, "Name:")
    (uint32_t, NumDispatches, "NumDispatches:")
    (uint32_t, BarrierType, "BarrierType:"));

VEKX_RECORD(JobManagerWaitRecord,
    (uint32_t, CallerThreadId, "CallerThreadId:"));

// One section of a sequence: a dispatch, a barrier or a wait; the target sets exactly one.
VEKX_RECORD(JobManagerSectionRecord,
    (std::optional<JobManagerDispatchRecord>, DispatchOption, "DispatchOption:")
    (std::optional<JobManagerBarrierRecord>, BarrierOption, "BarrierOption:")
    (std::optional<JobManagerWaitRecord>, WaitOption, "WaitOption:"));
using JobManagerSectionList = std::vector<JobManagerSectionRecord>;

// The sections of a sequence follow its own fields ("SectionInfoList:" is ours).
VEKX_RECORD(JobManagerSequenceRecord,
    (uint64_t, SequenceId, "SequenceId:")
    (uint32_t, SequenceIndex, "SequenceIndex:")
    (NString, Name, "Name:")
    (uint32_t, Priority, "Priority:")
    (uint32_t, JobCount, "JobCount:")
    (uint32_t, DispatchCount, "DispatchCount:")
    (uint32_t, BarrierCount, "BarrierCount:")
    (uint32_t, WaitCount, "WaitCount:")
    (uint32_t, InFlightJobCount, "InFlightJobCount:")
    (uint32_t, InFlightDispatchCount, "InFlightDispatchCount:")
    (uint32_t, InFlightBarrierCount, "InFlightBarrierCount:")
    (uint32_t, InFlightWaitCount, "InFlightWaitCount:")
    (uint64_t, SemaphoreId, "SemaphoreId:")
    (uint32_t, State, "State:")
    (uint32_t, Type, "Type:")
    (uint32_t, ComputePipeId, "ComputePipeId:")
    (uint32_t, ComputeQueueId, "ComputeQueueId:")
    (uint32_t, VQueueId, "VQueueId:")
    (JobManagerSectionList, SectionInfoList, "SectionInfoList:"));
using JobManagerSequenceList = std::vector<JobManagerSequenceRecord>;

// JobManagerDetails is a u32 of flags saying which details the target could collect; the
// sequence list is empty when it collected none.
VEKX_RECORD(JobManagerInfoRecord,
    (uint64_t, JobManagerId, "JobManagerId:")
    (uint64_t, MemoryBlockAddress, "MemoryBlockAddress:")
    (uint64_t, MemoryBlockSize, "MemoryBlockSize:")
    (uint32_t, PersistentThreadCount, "PersistentThreadCount:")
    (uint32_t, WorkerThreadCount, "WorkerThreadCount:")
    (uint32_t, ThreadSuspendTimeout, "ThreadSuspendTimeout:")
    (uint32_t, MaxSequenceCount, "MaxSequenceCount:")
    (uint32_t, SequenceCount, "SequenceCount:")
    (uint32_t, MaxUnifiedSequenceCount, "MaxUnifiedSequenceCount:")
    (uint32_t, UnifiedSequenceCount, "UnifiedSequenceCount:")
    (uint64_t, ComputeQueueMask, "ComputeQueueMask:")
    (uint32_t, JobManagerDetails, "JobManagerDetails:")
    (JobManagerSequenceList, SequenceInfoList, "SequenceInfoList:"));
using JobManagerInfoList = std::vector<JobManagerInfoRecord>;

// The response of GET_APP_OBJECT_INFO. Flags are the eAppObjectType bits the target answered
// for.
VEKX_RECORD(AppObjectInfoRecord,
    (FiberList, FiberInfoList, "FiberInfoList:")
    (UltRuntimeList, UltRuntimeInfoList, "UltRuntimeInfoList:")
    (std::vector<JobManagerInfoRecord>, JobManagerInfoList, "JobManagerInfoList:")
    (uint32_t, Flags, "Flags:"));

// clang-format on

}  // namespace qv
