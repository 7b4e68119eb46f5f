// The local target's pure parts, on recorded values: signals by name in the target's numbering,
// the debug status register, the debug register encoding and its limits, /proc lines, and the
// modules that came and went between two stops. Then its core files on a made-up process: which
// mappings the writer saves, the breakpoints' bytes put back, a cancel or a file in the way; what
// the reader reads back (threads, registers, process, memory from the core, from a mapped file and
// missing), and, as a table, the damaged files it refuses. gdb reads real ones in
// tests/api/local_target_test.cpp.
#ifdef __linux__

#include <elf.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>

#include "platform/pipe.h"
#include "platform/wide_string.h"
#include "server/debug/core/core_records.h"
#include "server/debug/local/core_file.h"
#include "server/debug/local/hardware_slots.h"
#include "server/debug/local/page_block.h"
#include "server/debug/local/proc_files.h"
#include "server/debug/local/process_modules.h"
#include "server/debug/stop_reasons.h"
#include "server/kits/scenario.h"
#include "support/test_environment.h"

namespace qv::server {
namespace {

TEST(LocalStopReasons, SignalsByNameNotByNumberAndTheDebugStatus) {
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

  // DR6 as the CPU leaves it (reserved bits set): a slot bit is a hardware breakpoint, BS a step.
  const struct {
    uint64_t dr6;
    uint32_t code;
  } kStatuses[] = {
      {0xFFFF0FF1, kStopHardwareBreakpoint},
      {0xFFFF0FF8, kStopHardwareBreakpoint},
      {0xFFFF4FF0, kStopTrap},
      {0xFFFF4FF2, kStopHardwareBreakpoint},
      {0xFFFF0FF0, kStopTrap},
  };
  for (const auto& test : kStatuses)
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

// A mapping's fields, in hex, on one line; protection 1 read, 2 write, 4 execute.
std::string Fields(const Mapping& m) {
  std::ostringstream out;
  out << std::hex << m.start << "-" << m.end << " " << m.protection
      << (m.shared ? " shared " : " private ") << m.offset << " " << m.path << ";";
  return out.str();
}

TEST(LocalProcFiles, MappingAndStatLines) {
  const auto mapping =
      ParseMappingLine("7f12a000-7f12c000 r-xs 00003000 08:01 1234     /usr/lib/libx so.6");
  ASSERT_TRUE(mapping.has_value());
  EXPECT_EQ(Fields(*mapping), "7f12a000-7f12c000 5 shared 3000 /usr/lib/libx so.6;");
  EXPECT_FALSE(ParseMappingLine("garbage").has_value());

  // A whole maps text: every line, with or without the last line end; a bad line skipped.
  const std::string line_a = "1000-2000 r--p 00000000 00:00 0    /bin/a\n";
  const std::string line_b = "3000-4000 rw-p 00000000 00:00 0    [heap]";
  for (const std::string& text : {line_a + line_b, line_a + line_b + "\n",
                                  line_a + "garbage\n" + line_b, line_a + "\n" + line_b}) {
    std::string all;
    for (const Mapping& m : ParseMappings(text))
      all += Fields(m);
    EXPECT_EQ(all, "1000-2000 1 private 0 /bin/a;3000-4000 3 private 0 [heap];") << text;
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
  EXPECT_EQ(stat->name, "a) b) c");
  const std::string maps = line_a + line_b;
  for (const auto& [address, size] :
       {std::pair<uint64_t, uint64_t>{0x1fff, 0x1000}, {0x3000, 0x1000}, {0x2000, 0}, {0x4000, 0}})
    EXPECT_EQ(MappingSizeAt(maps, address), size) << std::hex << address;
  EXPECT_FALSE(ParseTaskStat("42 (short) R 1").has_value());
}

TEST(LocalModules, OneModulePerFileAndTheChangesBetweenStops) {
  const std::vector<Mapping> mappings = {
      {0x400000, 0x401000, kProtectRead, false, 0, "/bin/prog", 0},
      {0x401000, 0x402000, kProtectRead | kProtectExecute, false, 0x1000, "/bin/prog", 0},
      {0x500000, 0x501000, kProtectRead | kProtectWrite, false, 0, "[heap]", 0},
      {0x7f0000, 0x7f1000, kProtectRead, false, 0, "/lib/libc.so.6", 0},
      // A file that is readable and no ELF file (the loader's cache, say) is no module.
      {0x7f2000, 0x7f3000, kProtectRead, false, 0, "/proc/self/cmdline", 0},
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

std::vector<uint8_t> FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class CoreFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(directory_);
    // The program file a mini dump leaves to be read: page 1 holds 0xB0, 0xB1, ...
    std::vector<char> program(0x3000);
    for (size_t i = 0; i < program.size(); ++i)
      program[i] = static_cast<char>(0xA0 + (i >> 12) * 0x10 + (i & 0xF));
    std::ofstream(program_, std::ios::binary).write(program.data(), program.size());
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  // Two threads; a heap, the program from its file, a kernel page and a guard page; a breakpoint
  // in the heap and one in the program.
  CoreImage Image() const {
    CoreImage image;
    image.pid = 4242;
    image.parent = 1;
    image.uid = 1000;
    image.name = "prog";
    image.arguments = "prog --flag";
    for (uint64_t word : {9, 0x21004, 0, 0}) {  // AT_ENTRY, then the end
      for (int i = 0; i < 8; ++i)
        image.auxv.push_back(static_cast<uint8_t>(word >> (8 * i)));
    }
    image.mappings = {{0x10000, 0x12000, 1 | 2, false, 0, "[heap]"},
                      {0x21000, 0x23000, 1 | 4, false, 0x1000, program_},
                      {0x30000, 0x31000, 1, false, 0, "[vvar]"},
                      {0x40000, 0x41000, 0, false, 0, ""}};
    image.originals = {{0x10010, 0x55}, {0x21008, 0x90}};
    for (pid_t tid : {4242, 4243}) {
      CoreThread& thread = image.threads.emplace_back();
      thread.tid = tid;
      thread.signal = tid == 4242 ? 5 : 0;
      thread.regs.rip = 0x21004 + static_cast<uint64_t>(tid - 4242);
      thread.regs.rbx = 0x1122334455667788;
      thread.fpregs.mxcsr = 0x1f80;
      thread.fpregs.xmm_space[0] = 0xdeadbeef;
    }
    return image;
  }
  // Every byte its address's low byte; a breakpoint's int3 where the image has one.
  static void Memory(uint64_t address, uint32_t size, Bytes& data) {
    data.resize(size);
    for (uint32_t i = 0; i < size; ++i)
      data[i] = static_cast<uint8_t>(address + i);
    for (const uint64_t breakpoint : {0x10010, 0x21008}) {
      if (breakpoint >= address && breakpoint - address < size) data[breakpoint - address] = 0xCC;
    }
  }
  std::string Write(bool full) {
    const std::string path = (directory_ / (full ? "full.core" : "mini.core")).string();
    std::vector<uint32_t> percentages;
    const std::atomic<bool> cancel{false};
    EXPECT_TRUE(WriteCoreFile(path, Image(), full, Memory, cancel, [&](uint32_t percent) {
                  percentages.push_back(percent);
                }).ok());
    EXPECT_EQ(percentages.front(), 0u);
    EXPECT_EQ(percentages.back(), 100u);
    return path;
  }

  const std::filesystem::path directory_ =
      std::filesystem::path(::testing::TempDir()) / ("vekx_core_" + std::to_string(getpid()));
  const std::string program_ = (directory_ / "prog").string();
};

// A full core saves the program's pages as well as the heap; neither saves the kernel's page
// or what cannot be read, and both put back the bytes under the breakpoints. The reader records
// the process, its threads and its modules.
TEST_F(CoreFiles, TheReaderReadsWhatTheWriterSaved) {
  const struct {
    bool full;
    std::vector<uint64_t> loads;  // the PT_LOADs' addresses
  } kCores[] = {{true, {0x10000, 0x21000}}, {false, {0x10000}}};
  const struct {
    uint64_t address;
    std::vector<int> full, mini;  // the bytes read from each core; -1 where one is missing
  } kReads[] = {
      {0x11ffe, {0xfe, 0xff}, {0xfe, 0xff}},                          // the heap
      {0x1000e, {0x0e, 0x0f, 0x55, 0x11}, {0x0e, 0x0f, 0x55, 0x11}},  // its breakpoint
      {0x21ffe, {0xfe, 0xff, 0x00, 0x01}, {0xbe, 0xbf, 0xc0, 0xc1}},  // the program, 2 pages
      {0x21007, {0x07, 0x90}, {0xb7, 0xb8}},                          // its breakpoint
      {0x22ffe, {0xfe, 0xff, -1, -1}, {0xce, 0xcf, -1, -1}},          // past the mapping
      {0x0fffe, {-1, -1, 0x00, 0x01}, {-1, -1, 0x00, 0x01}},          // before the heap
      {0x30000, {-1, -1}, {-1, -1}},                                  // the kernel's page
      {0x40000, {-1}, {-1}},                                          // the guard page
  };
  for (const auto& test : kCores) {
    const std::string path = Write(test.full);
    const std::vector<uint8_t> bytes = FileBytes(path);
    Elf64_Ehdr header{};
    ASSERT_GE(bytes.size(), sizeof header);
    std::memcpy(&header, bytes.data(), sizeof header);
    std::vector<uint64_t> loads;
    for (int i = 0; i < header.e_phnum; ++i) {
      Elf64_Phdr segment{};
      std::memcpy(&segment, bytes.data() + header.e_phoff + i * sizeof segment, sizeof segment);
      if (segment.p_type != PT_LOAD) continue;
      loads.push_back(segment.p_vaddr);
      EXPECT_EQ(segment.p_offset % 4096, 0u);
      EXPECT_LE(segment.p_offset + segment.p_filesz, bytes.size());
    }
    EXPECT_EQ(loads, test.loads) << test.full;

    LoadedCore loaded;
    ASSERT_TRUE(OpenCoreFile(path, loaded.bytes).ok());
    ASSERT_TRUE(ParseElfCore(*loaded.bytes, loaded.core).ok());
    loaded.files = std::make_unique<MappedFiles>(true);
    Bytes heap, want_heap;
    uint32_t heap_bad = 99;
    Memory(0x10000, 0x2000, want_heap);
    want_heap[0x10] = 0x55;
    loaded.Read(0x10000, 0x2000, heap, heap_bad);
    EXPECT_EQ(heap, want_heap) << "every byte of the heap, as read";
    EXPECT_EQ(heap_bad, 0u);
    for (const auto& read : kReads) {
      const std::vector<int>& expected = test.full ? read.full : read.mini;
      Bytes want;
      for (const int byte : expected)
        want.push_back(static_cast<uint8_t>(std::max(byte, 0)));
      Bytes data;
      uint32_t bad = 99;
      loaded.Read(read.address, static_cast<uint32_t>(want.size()), data, bad);
      EXPECT_EQ(data, want) << test.full << std::hex << " " << read.address;
      EXPECT_EQ(bad, static_cast<uint32_t>(std::count(expected.begin(), expected.end(), -1)))
          << test.full << std::hex << " " << read.address;
    }
    if (test.full) continue;
    // The process, its threads and its modules, from the mini core.
    const ElfCore& core = loaded.core;
    EXPECT_EQ(core.pid, 4242u);
    EXPECT_EQ(core.name, "prog");
    EXPECT_EQ(core.arguments, "prog --flag");
    ASSERT_EQ(core.threads.size(), 2u);
    EXPECT_EQ(core.threads[1].tid, 4243u);

    const ProcessInfoRecord process = CoreProcessRecord(loaded);
    EXPECT_EQ(process.Entry, 0x21004u);
    EXPECT_EQ(process.ProcessPathname, platform::Utf8ToUtf16(program_));
    EXPECT_EQ(process.Reason.Code, 5u);  // SIGTRAP
    const ThreadInfoList threads = CoreThreadRecords(core);
    EXPECT_EQ(threads[1].Rip, 0x21005u);
    EXPECT_EQ(threads[1].Reason.Code, 128u);  // no signal

    U64List values;
    ASSERT_TRUE(
        ReadCoreRegisters(core.threads[0], {0x10003, 0x10012, 0x20007, 0x40000}, values).ok());
    EXPECT_EQ(values, (U64List{0x1122334455667788, 0, 0, 0, 0x21004, 0, 0, 0, 0x1f80, 0, 0, 0,
                               0xdeadbeef, 0, 0, 0}));
    EXPECT_EQ(ReadCoreRegisters(core.threads[0], {0x7FFFF}, values).code,
              static_cast<uint32_t>(KXAPI_COMMS_ERR_INVALID_REG_INDEX));
    const ModuleInfoList modules = CoreModules(loaded);
    ASSERT_EQ(modules.size(), 1u);
    EXPECT_EQ(modules[0].Type, 0u);  // the executable: AT_ENTRY is in it
    EXPECT_EQ(modules[0].ModuleName, u"prog");
  }
}

// Each row damages a good core in one way; the reader refuses it with the code that says how.
TEST_F(CoreFiles, TheReaderRefusesDamagedFiles) {
  const std::vector<uint8_t> good = FileBytes(Write(false));
  auto put = [](std::vector<uint8_t>& bytes, size_t at, uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
      bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
  };
  constexpr size_t kNotes = 64;  // the PT_NOTE's program header, first after the ELF header
  size_t note = 0;               // the first note: name size, description size, type
  for (int i = 7; i >= 0; --i)
    note = note << 8 | good[kNotes + 8 + i];
  const struct {
    const char* what;
    size_t at;  // where `value` goes, `width` bytes of it; or the size the file is cut to
    uint64_t value;
    int width;
    eErrorCode code;
  } kCases[] = {
      {"cut short", 40, 0, 0, KXAPI_UNKNOWN_IMAGE_FORMAT},
      {"32-bit", 4, 1, 1, KXAPI_UNKNOWN_IMAGE_FORMAT},
      {"not a core", 16, 2, 2, KXAPI_UNKNOWN_IMAGE_FORMAT},
      {"another machine", 18, 183, 2, KXAPI_UNKNOWN_IMAGE_FORMAT},
      {"odd header size", 54, 32, 2, KXAPI_ERR_INVALID_FORMAT},
      {"headers past the end", 56, 60000, 2, KXAPI_ERR_INVALID_FORMAT},
      {"notes past the end", kNotes + 32, good.size(), 8, KXAPI_ERR_INVALID_FORMAT},
      {"huge notes", kNotes + 32, uint64_t{1} << 40, 8, KXAPI_ERR_INVALID_FORMAT},
      {"no notes", kNotes, 0, 4, KXAPI_ERR_INVALID_FORMAT},
      {"note runs past", note + 4, 0xFFFFFFF0, 4, KXAPI_ERR_INVALID_FORMAT},
      {"short thread status", note + 4, 100, 4, KXAPI_ERR_INVALID_FORMAT},
  };
  for (const auto& test : kCases) {
    std::vector<uint8_t> bytes = good;
    if (test.width == 0) {
      bytes.resize(test.at);
    } else {
      put(bytes, test.at, test.value, test.width);
    }
    ElfCore core;
    const Status status = ParseElfCore(*CoreBytesInMemory(bytes), core);
    EXPECT_EQ(status.code, static_cast<uint32_t>(test.code)) << test.what;
    EXPECT_FALSE(status.text.empty()) << test.what;
  }
}

TEST_F(CoreFiles, TheWriterRefusesOrRemovesWhatItCannotFinish) {
  const std::string existing = (directory_ / "existing").string();
  std::ofstream(existing) << "keep me";
  const struct {
    std::string path;
    bool cancel_at_start;
    int32_t code;
    bool file_left;  // "keep me" still there
  } kCases[] = {
      {(directory_ / "cancelled").string(), true, KXAPI_COMMS_ERR_OPERATION_CANCELLED, false},
      {existing, false, KXAPI_COMMS_ERR_COREDUMP_CREATE, true},
      {(directory_ / "no" / "such" / "dir").string(), false, KXAPI_COMMS_ERR_COREDUMP_CREATE,
       false},
  };
  for (const auto& test : kCases) {
    std::atomic<bool> cancel{false};
    const Status status = WriteCoreFile(test.path, Image(), true, Memory, cancel, [&](uint32_t) {
      if (test.cancel_at_start) cancel = true;
    });
    EXPECT_EQ(status.code, test.code) << test.path;
    EXPECT_EQ(std::filesystem::exists(test.path), test.file_left) << test.path;
  }
  std::ifstream kept(existing);
  std::string text;
  std::getline(kept, text);
  EXPECT_EQ(text, "keep me");
}

// Pages lent to a socket are read by the peer from where they lie: a block let go before the
// peer has read them must not be handed out again, and a reclaimed one is.
TEST(LocalPageBlocks, ALentBlockIsReusedOnlyOnceReclaimed) {
  testing::TempDir runtime;
  testing::ScopedVariable runtime_dir("XDG_RUNTIME_DIR", runtime.runtime_dir());
  const std::u16string name = testing::UniqueUser("qv_page_block_");
  std::unique_ptr<platform::PipeListener> listener;
  std::unique_ptr<platform::Pipe> writer, reader;
  uint32_t error = 0;
  ASSERT_EQ(platform::PipeListener::Create(name, listener, error), platform::IoResult::kOk);
  platform::StopSignal stop;
  std::future<platform::IoResult> accepted =
      std::async(std::launch::async, [&] { return listener->Accept(reader, stop); });
  ASSERT_EQ(platform::Pipe::Connect(name, 30000, writer, error), platform::IoResult::kOk);
  ASSERT_EQ(accepted.get(), platform::IoResult::kOk);

  const size_t size = platform::Pipe::kLendFrom;
  std::shared_ptr<PageBlock> first = PageBlock::Take(size);
  ASSERT_NE(first, nullptr);
  std::memset(first->data(), 0xa1, size);
  const std::span<const uint8_t> part(first->data(), size);
  const uint8_t lendable = 1;
  ASSERT_EQ(writer->Write({&part, 1}, {&lendable, 1}, stop), platform::IoResult::kOk);
  first.reset();  // not reclaimed: the socket may still hold its pages
  std::shared_ptr<PageBlock> second = PageBlock::Take(size);
  ASSERT_NE(second, nullptr);
  std::memset(second->data(), 0xb2, size);

  std::vector<uint8_t> arrived(size);
  ASSERT_EQ(reader->ReadExact(arrived.data(), size, stop), platform::IoResult::kOk);
  EXPECT_EQ(std::count(arrived.begin(), arrived.end(), 0xa1), static_cast<ptrdiff_t>(size))
      << "the peer read pages written after they were lent";

  second->Reclaimed();
  const uint8_t* const second_data = second->data();
  second.reset();
  std::shared_ptr<PageBlock> third = PageBlock::Take(size);
  ASSERT_NE(third, nullptr);
  EXPECT_EQ(third->data(), second_data) << "a reclaimed block goes back to the pool";
}

}  // namespace
}  // namespace qv::server

#endif  // __linux__
