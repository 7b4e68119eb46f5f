// The local target's core file writer on a made-up process: which mappings it saves, the
// breakpoints' bytes put back, and a cancel or a file in the way (gdb reads real ones in
// tests/api/local_target_test.cpp).
#ifdef __linux__

#include <elf.h>
#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "server/debug/local/core_file.h"

namespace qv::server {
namespace {

CoreImage Image() {
  CoreImage image;
  image.pid = getpid();
  image.mappings = {
      {0x10000, 0x12000, 1 | 2, false, 0, "[heap]"},
      {0x20000, 0x21000, 1 | 4, false, 0, "/usr/bin/prog"},
      {0x30000, 0x31000, 1, false, 0, "[vvar]"},
      {0x40000, 0x41000, 0, false, 0, ""},  // a guard page
  };
  image.originals = {{0x10010, 0x55}, {0x20004, 0x90}};
  return image;
}

// Every byte its address's low byte; a breakpoint's int3 where the image has one.
void Memory(uint64_t address, uint32_t size, Bytes& data) {
  data.resize(size);
  for (uint32_t i = 0; i < size; ++i)
    data[i] = static_cast<uint8_t>(address + i);
  for (const uint64_t breakpoint : {0x10010, 0x20004}) {
    if (breakpoint >= address && breakpoint - address < size) data[breakpoint - address] = 0xCC;
  }
}

struct Load {
  uint64_t start, size, offset;
};

std::vector<Load> Loads(const std::string& file, std::string& bytes) {
  std::ifstream in(file, std::ios::binary);
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  std::vector<Load> loads;
  Elf64_Ehdr header{};
  if (bytes.size() < sizeof header) return loads;
  std::memcpy(&header, bytes.data(), sizeof header);
  for (int i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment{};
    std::memcpy(&segment, bytes.data() + header.e_phoff + i * sizeof segment, sizeof segment);
    if (segment.p_type == PT_LOAD)
      loads.push_back({segment.p_vaddr, segment.p_filesz, segment.p_offset});
  }
  return loads;
}

class LocalCoreFile : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(directory_); }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  const std::filesystem::path directory_ =
      std::filesystem::path(::testing::TempDir()) / ("vekx_core_file_" + std::to_string(getpid()));
};

TEST_F(LocalCoreFile, SavesWhatADebuggerNeedsWithTheOriginalBytes) {
  const struct {
    bool full;
    std::vector<uint64_t> starts;  // of the PT_LOADs
  } kCases[] = {
      {true, {0x10000, 0x20000}},  // no kernel page, nothing unreadable
      {false, {0x10000}},          // the code is in its file
  };
  for (const auto& test : kCases) {
    const std::string path = (directory_ / (test.full ? "full" : "mini")).string();
    std::vector<uint32_t> percentages;
    const std::atomic<bool> cancel{false};
    ASSERT_TRUE(WriteCoreFile(path, Image(), test.full, Memory, cancel, [&](uint32_t percent) {
                  percentages.push_back(percent);
                }).ok());
    EXPECT_EQ(percentages.front(), 0u);
    EXPECT_EQ(percentages.back(), 100u);
    std::string bytes;
    const std::vector<Load> loads = Loads(path, bytes);
    ASSERT_EQ(loads.size(), test.starts.size()) << test.full;
    for (size_t i = 0; i < loads.size(); ++i) {
      EXPECT_EQ(loads[i].start, test.starts[i]);
      EXPECT_EQ(loads[i].offset % 4096, 0u);
      ASSERT_LE(loads[i].offset + loads[i].size, bytes.size());
      // Memory as read, but where a breakpoint is, the byte it replaced.
      for (uint64_t at = 0; at < loads[i].size; ++at) {
        const uint64_t address = loads[i].start + at;
        const uint8_t expected = address == 0x10010   ? 0x55
                                 : address == 0x20004 ? 0x90
                                                      : static_cast<uint8_t>(address);
        ASSERT_EQ(static_cast<uint8_t>(bytes[loads[i].offset + at]), expected)
            << std::hex << address;
      }
    }
  }
}

TEST_F(LocalCoreFile, RefusesOrRemovesWhatItCannotFinish) {
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

}  // namespace
}  // namespace qv::server

#endif  // __linux__
