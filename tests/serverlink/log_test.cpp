#include "serverlink/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace qv {
namespace {

// A file name of its own, so that parallel runs of the suite never share one.
std::string TempPath(const char* tag) {
  return ::testing::TempDir() + "vekx_log_" + tag + "_" + std::to_string(std::random_device{}()) +
         ".txt";
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(LogTest, WritesPrefixedLinesAtOrBelowTheLevel) {
  const std::string path = TempPath("levels");
  std::remove(path.c_str());
  Log log;
  ASSERT_TRUE(log.SetFile(path));
  log.Write(Log::kErrors, "API", "silent by default");
  log.SetLevel(Log::kFailures);
  log.Write(Log::kErrors, "API", "Failed to start server");
  log.Write(Log::kFailures, "API", "Failed to write IPC data 32");
  log.Write(Log::kPackets, "API", "SENT: GET_TARGET_LIST");
  log.SetLevel(99);  // clamped to the most detailed level
  EXPECT_EQ(log.Level(), Log::kPackets);
  log.Write(Log::kPackets, "API", "RECV: GET_TARGET_LIST");
  log.SetStandardError();  // closes the file

  EXPECT_EQ(ReadAll(path),
            "MSG\tAPI Failed to start server\n"
            "MSG\tAPI Failed to write IPC data 32\n"
            "MSG\tAPI RECV: GET_TARGET_LIST\n");
  std::remove(path.c_str());
}

TEST(LogTest, AFileThatCannotBeOpenedLeavesTheSinkAlone) {
  const std::string path = TempPath("kept");
  std::remove(path.c_str());
  Log log;
  log.SetLevel(Log::kErrors);
  ASSERT_TRUE(log.SetFile(path));
  EXPECT_FALSE(log.SetFile(::testing::TempDir() + "no/such/directory/log.txt"));
  log.Write(Log::kErrors, "API", "still here");
  log.SetStandardError();
  EXPECT_EQ(ReadAll(path), "MSG\tAPI still here\n");
  std::remove(path.c_str());
}

TEST(LogTest, ConcurrentWritersNeverInterleaveWithinALine) {
  const std::string path = TempPath("threads");
  std::remove(path.c_str());
  Log log;
  log.SetLevel(Log::kPackets);
  ASSERT_TRUE(log.SetFile(path));
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&log, t] {
      const std::string text(100, static_cast<char>('a' + t));
      for (int i = 0; i < 200; ++i)
        log.Write(Log::kPackets, "API", text);
    });
  }
  for (auto& writer : writers)
    writer.join();
  log.SetStandardError();

  std::istringstream lines(ReadAll(path));
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    ++count;
    ASSERT_EQ(line.size(), 108u);
    EXPECT_EQ(line.substr(0, 8), "MSG\tAPI ");
    EXPECT_EQ(line.find_first_not_of(line[8], 8), std::string::npos) << line;
  }
  EXPECT_EQ(count, 800);
  std::remove(path.c_str());
}

}  // namespace
}  // namespace qv
