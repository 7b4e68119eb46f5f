// The core file reader on cores the local target's writer makes from a made-up process: what it
// reads back (threads, registers, process, memory from the core, from a mapped file and
// missing), and, as a table, the damaged files it refuses.
#ifdef __linux__

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/wide_string.h"
#include "server/debug/core/core_records.h"
#include "server/debug/local/core_file.h"

namespace qv::server {
namespace {

class CoreDumpReader : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(directory_);
    // The program file a mini dump leaves to be read: page 1 holds 0xA0, 0xA1, ...
    std::vector<char> program(0x3000);
    for (size_t i = 0; i < program.size(); ++i)
      program[i] = static_cast<char>(0xA0 + (i >> 12) * 0x10 + (i & 0xF));
    std::ofstream(program_, std::ios::binary).write(program.data(), program.size());
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  // A mini core of two threads, its heap saved and its program left to its file.
  std::string WriteCore() {
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
                      {0x21000, 0x23000, 1 | 4, false, 0x1000, program_}};
    for (pid_t tid : {4242, 4243}) {
      CoreThread& thread = image.threads.emplace_back();
      thread.tid = tid;
      thread.signal = tid == 4242 ? 5 : 0;
      thread.regs.rip = 0x21004 + static_cast<uint64_t>(tid - 4242);
      thread.regs.rbx = 0x1122334455667788;
      thread.fpregs.mxcsr = 0x1f80;
      thread.fpregs.xmm_space[0] = 0xdeadbeef;
    }
    const std::string path = (directory_ / "mini.core").string();
    const std::atomic<bool> cancel{false};
    auto heap = [](uint64_t address, uint32_t size, Bytes& data) {
      data.assign(size, 0);
      for (uint32_t i = 0; i < size; ++i)
        data[i] = static_cast<uint8_t>(address + i);
    };
    EXPECT_TRUE(WriteCoreFile(path, image, false, heap, cancel, [](uint32_t) {}).ok());
    return path;
  }

  const std::filesystem::path directory_ = std::filesystem::path(::testing::TempDir()) /
                                           ("vekx_core_reader_" + std::to_string(getpid()));
  const std::string program_ = (directory_ / "prog").string();
};

TEST_F(CoreDumpReader, ReadsWhatTheWriterSaved) {
  LoadedCore loaded;
  ASSERT_TRUE(OpenCoreFile(WriteCore(), loaded.bytes).ok());
  ASSERT_TRUE(ParseElfCore(*loaded.bytes, loaded.core).ok());
  loaded.files = std::make_unique<MappedFiles>(true);
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

  const struct {
    uint64_t address;
    uint32_t size;
    Bytes data;
    uint32_t bad;
  } kReads[] = {
      {0x11ffe, 2, {0xfe, 0xff}, 0},              // the heap, from the core
      {0x21ffe, 4, {0xbe, 0xbf, 0xc0, 0xc1}, 0},  // the program, from its file's pages 1 and 2
      {0x22ffe, 4, {0xce, 0xcf, 0, 0}, 2},        // past the mapping
      {0x0fffe, 4, {0, 0, 0x00, 0x01}, 2},        // before the heap
  };
  for (const auto& read : kReads) {
    Bytes data;
    uint32_t bad = 99;
    loaded.Read(read.address, read.size, data, bad);
    EXPECT_EQ(data, read.data) << std::hex << read.address;
    EXPECT_EQ(bad, read.bad) << std::hex << read.address;
  }
  const ModuleInfoList modules = CoreModules(loaded);
  ASSERT_EQ(modules.size(), 1u);
  EXPECT_EQ(modules[0].Type, 0u);  // the executable: AT_ENTRY is in it
  EXPECT_EQ(modules[0].ModuleName, u"prog");
}

// Each row damages a good core in one way; the reader refuses it with the code that says how.
TEST_F(CoreDumpReader, RefusesDamagedFiles) {
  std::ifstream in(WriteCore(), std::ios::binary);
  const std::vector<uint8_t> good{std::istreambuf_iterator<char>(in),
                                  std::istreambuf_iterator<char>()};
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

}  // namespace
}  // namespace qv::server

#endif  // __linux__
