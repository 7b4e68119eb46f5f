// The local target's pure parts, on recorded values: signals by name in the target's numbering,
// the debug status register, the debug register encoding and its limits, /proc lines, and the
// modules that came and went between two stops.
#ifdef __linux__

#include <gtest/gtest.h>

#include <csignal>

#include "server/debug/local/hardware_slots.h"
#include "server/debug/local/proc_files.h"
#include "server/debug/local/process_modules.h"
#include "server/debug/stop_reasons.h"
#include "server/kits/scenario.h"

namespace qv::server {
namespace {

TEST(LocalStopReasons, SignalsByNameNotByNumber) {
  const struct {
    int signal;
    uint32_t code;
    bool stops;
  } kCases[] = {
      {SIGBUS, 10, true},  {SIGUSR1, 30, true},       {SIGUSR2, 31, true}, {SIGSTOP, 17, true},
      {SIGSEGV, 11, true}, {SIGCHLD, 20, false},      {SIGSYS, 12, true},  {SIGCONT, 19, false},
      {SIGPWR, 128, true}, {SIGRTMIN + 1, 128, true},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(StopReasonOfSignal(test.signal), test.code) << SignalName(test.signal);
    EXPECT_EQ(SignalStops(test.signal), test.stops) << SignalName(test.signal);
  }
  EXPECT_EQ(SignalName(SIGBUS), "SIGBUS");
}

// DR6 as the CPU leaves it (reserved bits set): a slot bit is a hardware breakpoint, BS a step.
TEST(LocalStopReasons, DebugStatusDecoding) {
  const struct {
    uint64_t dr6;
    uint32_t code;
  } kCases[] = {
      {0xFFFF0FF1, kStopHardwareBreakpoint},
      {0xFFFF0FF8, kStopHardwareBreakpoint},
      {0xFFFF4FF0, kStopTrap},
      {0xFFFF4FF2, kStopHardwareBreakpoint},
      {0xFFFF0FF0, kStopTrap},
  };
  for (const auto& test : kCases)
    EXPECT_EQ(StopReasonOfDr6(test.dr6), test.code) << std::hex << test.dr6;
}

TEST(LocalHardwareSlots, Dr7EncodingAndRefusals) {
  const struct {
    uint32_t flags;
    uint32_t size;
    uint64_t dr7;  // alone in slot 0
  } kEncodings[] = {
      {0, 1, 0x1},     {0, 8, 0x1},  // execute: length bits stay 00
      {1, 1, 0x10001}, {1, 2, 0x50001}, {1, 8, 0x90001}, {2, 4, 0xF0001}, {3, 4, 0xF0001},
  };
  for (const auto& test : kEncodings) {
    const DebugRegisterValues values = EncodeDebugRegisters({{0x1000, test.flags, test.size, 1}});
    EXPECT_EQ(values.dr7, test.dr7) << test.flags << "/" << test.size;
    EXPECT_EQ(values.address[0], 0x1000u);
  }
  EXPECT_EQ(EncodeDebugRegisters({{8, 0, 1, 1}, {16, 1, 4, 2}}).dr7, 0xD00005u);

  const struct {
    uint64_t address;
    uint32_t flags;
    uint32_t size;
    size_t in_use;
    int32_t code;
  } kChecks[] = {
      {0x1000, 1, 8, 3, 0},
      {0x1000, 1, 3, 0, KXAPI_COMMS_ERR_INVALID_PARAMETER_VALUE},
      {0x1004, 1, 8, 0, KXAPI_COMMS_ERR_INVALID_ALIGNMENT},
      {0x1003, 0, 8, 0, 0},  // code may start anywhere
      {0x1000, 0, 1, 4, KXAPI_COMMS_ERR_NO_FREE_HWBRKPT},
  };
  for (const auto& test : kChecks) {
    EXPECT_EQ(static_cast<int32_t>(
                  CheckHardwareBreakpoint(test.address, test.flags, test.size, test.in_use).code),
              test.code)
        << std::hex << test.address << " " << test.size << " " << test.in_use;
  }
}

TEST(LocalProcFiles, MappingAndStatLines) {
  const auto mapping =
      ParseMappingLine("7f12a000-7f12c000 r-xs 00003000 08:01 1234     /usr/lib/libx so.6");
  ASSERT_TRUE(mapping.has_value());
  EXPECT_EQ(mapping->start, 0x7f12a000u);
  EXPECT_EQ(mapping->end, 0x7f12c000u);
  EXPECT_EQ(mapping->protection, kProtectRead | kProtectExecute);
  EXPECT_TRUE(mapping->shared);
  EXPECT_EQ(mapping->offset, 0x3000u);
  EXPECT_EQ(mapping->path, "/usr/lib/libx so.6");
  EXPECT_FALSE(ParseMappingLine("garbage").has_value());

  // A whole maps text: every line, with or without the last line end; a bad line skipped.
  const std::string line_a = "1000-2000 r--p 00000000 00:00 0    /bin/a\n";
  const std::string line_b = "3000-4000 rw-p 00000000 00:00 0    [heap]";
  for (const std::string& text : {line_a + line_b, line_a + line_b + "\n",
                                  line_a + "garbage\n" + line_b, line_a + "\n" + line_b}) {
    const std::vector<Mapping> all = ParseMappings(text);
    ASSERT_EQ(all.size(), 2u) << text;
    EXPECT_EQ(all[0].path, "/bin/a");
    EXPECT_EQ(all[1].path, "[heap]");
    EXPECT_EQ(all[1].end, 0x4000u);
  }

  std::string fields = "42 (a) b) c) t 7";
  for (int field = 5; field <= 39; ++field)
    fields += " " + std::to_string(field == 14 ? 30 : field == 15 ? 12 : field == 39 ? 3 : 0);
  const auto stat = ParseTaskStat(fields);
  ASSERT_TRUE(stat.has_value());
  EXPECT_EQ(stat->state, 't');
  EXPECT_EQ(stat->parent, 7);
  EXPECT_EQ(stat->cpu_ticks, 42u);
  EXPECT_EQ(stat->processor, 3u);
  EXPECT_FALSE(ParseTaskStat("42 (short) R 1").has_value());
}

TEST(LocalModules, OneModulePerFileAndTheChangesBetweenStops) {
  const std::vector<Mapping> mappings = {
      {0x400000, 0x401000, kProtectRead, false, 0, "/bin/prog", 0},
      {0x401000, 0x402000, kProtectRead | kProtectExecute, false, 0x1000, "/bin/prog", 0},
      {0x500000, 0x501000, kProtectRead | kProtectWrite, false, 0, "[heap]", 0},
      {0x7f0000, 0x7f1000, kProtectRead, false, 0, "/lib/libc.so.6", 0},
  };
  const ModuleInfoList modules = ModulesOf(mappings, "/bin/prog");
  ASSERT_EQ(modules.size(), 2u);
  EXPECT_EQ(modules[0].ModuleName, u"prog");
  EXPECT_EQ(modules[0].Type, 0u);
  EXPECT_EQ(modules[0].SegmentInfoList.size(), 2u);
  EXPECT_EQ(modules[1].LoadPath, u"/lib/libc.so.6");
  EXPECT_EQ(modules[1].Type, 1u);

  const ModuleInfoList later = ModulesOf({mappings[0], mappings[1]}, "/bin/prog");
  ModuleInfoList loaded;
  U64List unloaded;
  ModuleChanges(modules, later, loaded, unloaded);
  EXPECT_TRUE(loaded.empty());
  EXPECT_EQ(unloaded, U64List{0x7f0000});
  ModuleChanges(later, modules, loaded, unloaded);
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].ModuleName, u"libc.so.6");
}

}  // namespace
}  // namespace qv::server

#endif  // __linux__
