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

class LogTest : public ::testing::Test {
 protected:
  LogTest() { std::remove(path_.c_str()); }
  ~LogTest() override { std::remove(path_.c_str()); }

  // Closes the file and returns what was written to it.
  std::string Finish() {
    log_.SetStandardError();
    std::ifstream in(path_, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // A file name of its own, so that parallel runs of the suite never share one.
  const std::string path_ =
      ::testing::TempDir() + "vekx_log_" + std::to_string(std::random_device{}()) + ".txt";
  Log log_;
};

TEST_F(LogTest, WritesPrefixedLinesAtOrBelowTheLevel) {
  ASSERT_TRUE(log_.SetFile(path_));
  // A file that cannot be opened leaves the sink alone.
  EXPECT_FALSE(log_.SetFile(::testing::TempDir() + "no/such/directory/log.txt"));
  log_.Write(Log::kErrors, "API", "silent by default");
  log_.SetLevel(Log::kFailures);
  log_.Write(Log::kErrors, "API", "Failed to start server");
  log_.Write(Log::kFailures, "API", "Failed to write IPC data 32");
  log_.Write(Log::kPackets, "API", "SENT: GET_TARGET_LIST");
  log_.SetLevel(99);  // clamped to the most detailed level
  EXPECT_EQ(log_.Level(), Log::kPackets);
  log_.Write(Log::kPackets, "API", "RECV: GET_TARGET_LIST");

  EXPECT_EQ(Finish(),
            "MSG\tAPI Failed to start server\n"
            "MSG\tAPI Failed to write IPC data 32\n"
            "MSG\tAPI RECV: GET_TARGET_LIST\n");
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveWithinALine) {
  log_.SetLevel(Log::kPackets);
  ASSERT_TRUE(log_.SetFile(path_));
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([this, t] {
      const std::string text(100, static_cast<char>('a' + t));
      for (int i = 0; i < 200; ++i)
        log_.Write(Log::kPackets, "API", text);
    });
  }
  for (auto& writer : writers)
    writer.join();

  std::istringstream lines(Finish());
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    ++count;
    ASSERT_EQ(line.size(), 108u);
    EXPECT_EQ(line.substr(0, 8), "MSG\tAPI ");
    EXPECT_EQ(line.find_first_not_of(line[8], 8), std::string::npos) << line;
  }
  EXPECT_EQ(count, 800);
}

}  // namespace
}  // namespace qv
