#pragma once
// The core dump of a virtual process, as TRIGGER_COREDUMP writes it to a file on the host
// (docs/debugging.md, "Core dumps"):
//
//   "VKXCORE1"            8 bytes
//   header length         u32, little-endian
//   CoreDumpHeader        the wire encoding of the record below (as the debug records travel)
//   region contents       the bytes of every region whose Saved is 1, in the header's order
//
// The header holds the process, its threads with every register, its modules and its regions
// (name, base, size, protection). A full dump (COREDUMP_TYPE_FULL) saves every region's bytes; a
// mini dump (COREDUMP_TYPE_MINI) none.

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "requests/catalogue.h"
#include "server/core/status.h"

namespace qv {

// clang-format off
VEKX_RECORD(CoreDumpRegister,
    (uint32_t, Id, "Id:")         // eRegisters
    (U64List, Words, "Words:"));  // four, lowest first

VEKX_RECORD(CoreDumpThread,
    (ThreadInfoRecord, Info, "Info:")
    (std::vector<CoreDumpRegister>, Registers, "Registers:"));

VEKX_RECORD(CoreDumpRegion,
    (WString, Name, "Name:")
    (uint64_t, BaseAddress, "BaseAddress:")
    (uint64_t, Size, "Size:")
    (uint32_t, Protection, "Protection:")  // read 1, write 2, execute 4
    (uint32_t, Saved, "Saved:"));          // 1: its bytes follow the header

VEKX_RECORD(CoreDumpHeader,
    (uint32_t, DumpType, "DumpType:")  // eCoreDumpType
    (ProcessInfoRecord, Process, "Process:")
    (std::vector<CoreDumpThread>, Threads, "Threads:")
    (ModuleInfoList, Modules, "Modules:")
    (std::vector<CoreDumpRegion>, Regions, "Regions:"));
// clang-format on

}  // namespace qv

namespace qv::server {

inline constexpr char kCoreDumpMagic[8] = {'V', 'K', 'X', 'C', 'O', 'R', 'E', '1'};
inline constexpr uint32_t kCoreDumpMini = 0;
inline constexpr uint32_t kCoreDumpFull = 1;

// A process as its dump holds it: the header, and the contents of the saved regions in order.
struct CoreDump {
  CoreDumpHeader header;
  std::vector<Bytes> contents;
};

// True for "/..." and, on a Windows host, "C:\...", "C:/..." and "\\server\...": the
// server's working directory is not the caller's, so a relative path would mean nothing to it.
bool IsAbsoluteHostPath(const std::string& path);

// Writes `dump` to the host file `path` (UTF-8), which must not exist yet. Reports 0 percent once
// the file is created, then the share written after each saved region, and stops, removing the
// file, once `cancel` is set. Failures name the path: KXAPI_COMMS_ERR_COREDUMP_CREATE (cannot be
// created), KXAPI_COMMS_ERR_WRITING_FILE, KXAPI_COMMS_ERR_OPERATION_CANCELLED.
Status WriteCoreDump(const std::string& path, const CoreDump& dump, const std::atomic<bool>& cancel,
                     const std::function<void(uint32_t percent)>& progress);

}  // namespace qv::server
