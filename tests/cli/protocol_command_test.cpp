// vesta-ctrl proto against the built-in scenario's endpoints: 1 echoes, 2 is a source, 3 a sink.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "cli/ctrl_run.h"

namespace {

using qv::clitest::Ctrl;
using qv::clitest::CtrlRun;
using qv::clitest::Whole;
using qv::servertest::TestRoot;

class ProtocolCommandTest : public qv::clitest::BuiltInKitTest {};

TEST_F(ProtocolCommandTest, ListsStatusesAndRefusesJsonWhileCopying) {
  qv::clitest::RunSteps({
      {{"--json", "proto", "devkit-alpha", "--list"}, 0, {{"/protocols", nlohmann::json::parse(R"([
           {"protocol": 1, "endpoint": "echo", "available": true, "open_channels": 0},
           {"protocol": 2, "endpoint": "source", "available": true, "open_channels": 0},
           {"protocol": 3, "endpoint": "sink", "available": true, "open_channels": 0}])")}}},
      {{"proto", "devkit-alpha", "1", "--status"}, 0, {}, Whole("protocol 1: available\n")},
      {{"proto", "devkit-alpha", "9", "--status"},
       0,
       {},
       Whole("protocol 9: not available (Target error - The protocol is not available. "
             "'devkit-alpha' has no protocol 9)\n")},
      {{"--json", "proto", "devkit-alpha", "1"}, 2, {}, Whole("")},
      {{"proto", "devkit-alpha"}, 2, {}, Whole("")},
      {{"proto", "devkit-alpha", "9"}, 1, {}, Whole("")},
  });
}

#ifndef _WIN32
TEST_F(ProtocolCommandTest, PipesAFileThroughTheEchoByteForByte) {
  std::string file(300000, '\0');
  for (size_t i = 0; i < file.size(); ++i)
    file[i] = static_cast<char>(i % 253);  // zeros and every piece boundary in between
  const auto input = TestRoot() / "proto.in";
  std::ofstream(input, std::ios::binary) << file;
  const CtrlRun run = Ctrl({"proto", "devkit-alpha", "1", "--linger", "0.5"}, input.string());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(run.out == file) << "got " << run.out.size() << " of " << file.size() << " bytes";

  // A source's bytes end with the endpoint, whatever the linger.
  const CtrlRun source = Ctrl({"proto", "devkit-alpha", "2", "--linger", "60"});
  EXPECT_EQ(source.exit_code, 0) << source.err;
  EXPECT_EQ(source.out.size(), 1u << 20);
}
#endif

}  // namespace
