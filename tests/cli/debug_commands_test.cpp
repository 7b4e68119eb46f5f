// vesta-ctrl's debug commands against the built-in kit's /app/sample.elf: one session as a user
// would type it, a step per row, each checking the exit code, fields of the JSON document (by
// JSON pointer) and texts on standard output and error. Rows refer to the loaded process and its
// main thread as {pid} and {tid}.
#include <gtest/gtest.h>

#include <string>

#include "cli/ctrl_run.h"

namespace {

using qv::clitest::Named;

class DebugCommandsTest : public qv::clitest::BuiltInKitTest {};

TEST_F(DebugCommandsTest, SessionOnTheSampleProgram) {
  const std::string kit = "devkit-alpha";
  qv::clitest::RunSteps({
      // The sample runs from the server's start.
      {{"--json", "ps", kit},
       0,
       {{"/processes/0/name", "sample"}, {"/processes/0/path", "/app/sample.elf"}}},
      {{"ps", kit}, 0, {}, "PID  NAME    PARENT  MAIN THREAD"},
      {{"--json", "load", kit, "/app/sample.elf", "--stop-at-entry", "--", "-v", "two words"},
       0,
       {{"/pid", Named("pid")}}},
      {{"--json", "threads", kit, "{pid}"},
       0,
       {{"/threads/0/name", "main"},
        {"/threads/0/state", "TDS_INHIBITED"},
        {"/threads/0/wait_state", "TDI_SUSPENDED"},
        {"/threads/0/rip", "0x401000"},
        {"/threads/0/stop_reason/name", "STOP_REASON_DL_STOP_INIT"},
        {"/threads/1/name", "worker"},
        {"/threads/0/tid", Named("tid")}}},
      {{"--json", "mem", "read", kit, "{pid}", "0x404000", "17"},
       0,
       {{"/data", "48656c6c6f2066726f6d2073616d706c65"}, {"/bad", 0}}},
      {{"mem", "read", kit, "{pid}", "4210688", "5"}, 0, {}, "0000000000404000  48 65 6c 6c 6f"},
      {{"--json", "mem", "write", kit, "{pid}", "0x404000", "4a:45"}, 0, {{"/written", 2}}},
      {{"--json", "mem", "read", kit, "{pid}", "0x404000", "3"}, 0, {{"/data", "4a456c"}}},
      {{"--json", "regs", kit, "{pid}", "{tid}", "rip", "rsp"},
       0,
       {{"/rip", "0x401000"}, {"/rsp", "0x7ffff000"}}},
      {{"--json", "regs", kit, "{pid}", "{tid}", "--set", "rax=4660",
        "ymm1=0x4000000000000000300000000000000020000000000000001"},
       0,
       {{"/rax", "0x1234"}, {"/ymm1", "0x4000000000000000300000000000000020000000000000001"}}},
      {{"--json", "regs", kit, "{pid}", "{tid}"}, 0, {{"/rax", "0x1234"}, {"/rflags", "0x0"}}},
      // The loop's nop after push rbp; mov rbp, rsp.
      {{"--json", "break", kit, "{pid}", "0x401004"},
       0,
       {{"/original", "90"}, {"/id", Named("id")}}},
      {{"--json", "break", kit, "{pid}", "0x401008", "--hw", "--write", "--size", "4"}, 0, {}},
      {{"--json", "break", kit, "{pid}", "--list"},
       0,
       {{"/software/0/id", "{id}"},
        {"/software/0/address", "0x401004"},
        {"/hardware/0/kind", "write"},
        {"/hardware/0/size", 4}}},
      {{"--json", "resume", kit, "{pid}", "--wait", "--timeout", "10"},
       0,
       {{"/event", "stop"},
        {"/pid", "{pid}"},
        {"/tid", "{tid}"},
        {"/reason", 131},
        {"/reason_name", "STOP_REASON_SIGSWBRKPT"},
        {"/rip", "0x401004"}}},
      {{"--json", "break", kit, "{pid}", "--clear", "{id}"}, 0, {{"/cleared", "{id}"}}},
      // Without the breakpoint the loop never stops again.
      {{"resume", kit, "{pid}", "--wait", "--timeout", "0.3"},
       1,
       {},
       "",
       "vesta-ctrl: process {pid} neither stopped nor ended within 0.3 s\n"},
      {{"--json", "kill", kit, "{pid}"}, 0, {{"/killed", true}}},
      // Mistakes of the user's, refused before anything is sent.
      {{"regs", kit, "{pid}", "{tid}", "eax"}, 2, {}, "", "no register is named 'eax'"},
      {{"regs", kit, "{pid}", "{tid}", "--set", "rax=0x10000000000000000"},
       2,
       {},
       "",
       "rax must be"},
      {{"mem", "read", kit, "0x64", "0", "4"}, 2, {}, "", "PID must be a decimal number"},
      {{"mem", "write", kit, "100", "0x404000", "4"}, 2, {}, "", "HEX must be pairs"},
      {{"break", kit, "100"}, 2, {}, "", "give one of ADDR, --list and --clear ID"},
      {{"break", kit, "100", "0x401000", "--write"}, 2, {}, "", "--write requires --hw"},
      {{"resume", kit, "100", "--timeout", "1"}, 2, {}, "", "--timeout requires --wait"},
      // Failures the tool finds, and the server's own.
      {{"--json", "threads", kit, "{pid}"},
       1,
       {{"/error/code", nullptr}},
       "",
       "vesta-ctrl: no process {pid} on 'devkit-alpha' (see 'vesta-ctrl ps devkit-alpha')\n"},
      {{"load", kit, "/app/missing.elf"}, 1, {}, "", "the kit has no program \"/app/missing.elf\""},
      {{"--json", "break", kit, "100", "--clear", "77"}, 1, {{"/error/code", "0x80040236"}}},
  });
}

}  // namespace
