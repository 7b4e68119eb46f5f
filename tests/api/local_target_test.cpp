// The local target through the public objects against a real vesta-kx: a small program run and
// attached under ptrace, broken into, read, changed, stepped, and ended. Skipped where the
// kernel does not let this process trace its children.
#ifdef VEKX_DEBUGGEE

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <sstream>

#include "api/event_sink_recorder.h"
#include "api/live_api.h"
#include "debug/process_object.h"
#include "debug/thread_object.h"
#include "support/test_environment.h"
#include "vekxapi/event_sink.h"

namespace qv::apitest {
namespace {

// Whether a child of this process may be traced (Yama, seccomp and containers may forbid it).
bool PtraceAllowed() {
  const pid_t child = fork();
  if (child == 0) _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

uint64_t Symbol(const std::string& name) {
  std::ifstream list(std::string(VEKX_DEBUGGEE) + ".syms");
  for (std::string line; std::getline(list, line);) {
    std::istringstream fields(line);
    std::string symbol, type, address;
    if (fields >> symbol >> type >> address && symbol == name)
      return std::stoull(address, nullptr, 16);
  }
  return 0;
}

class LocalTargetTest : public LiveApiTest {
 protected:
  std::string Scenario() const override { return "local: true\n"; }

  void SetUp() override {
    if (!PtraceAllowed()) GTEST_SKIP() << "this process may not trace its children: not tested";
    LiveApiTest::SetUp();
    target_ = Target("localhost");
    ASSERT_TRUE(target_);
    ASSERT_OK(target_->Connect());
    ASSERT_OK(target_->AdviseDebugEvents(events_.Get()));
    ASSERT_OK(target_->AdviseDebugEvents(heard_.Get()));
  }
  void TearDown() override {
    if (target_) target_->UnadviseDebugEvents(events_.Get());
    if (target_) target_->UnadviseDebugEvents(heard_.Get());
    LiveApiTest::TearDown();
  }
  // How many calls of the Debug group's `method` were heard.
  size_t Heard(const char* method) const { return heard_->Values(method, "").size(); }

  vekx::ComPtr<IProcess10> Load(const std::string& args, bool stopped) {
    return LoadProcess(target_.Get(), DEVICE_HOST, VEKX_DEBUGGEE, stopped, args.c_str());
  }
  std::vector<uint64_t> Memory(IProcess10* process, uint64_t address, ULONG size) {
    vekx::Variant bytes;
    ULONG bad = 0;
    EXPECT_OK(process->GetMemory(address, size, &bad, bytes.Put()));
    EXPECT_EQ(bad, 0u);
    return Numbers(bytes);
  }
  // A process object for `pid` on `target` (target_ when null).
  vekx::ComPtr<IProcess10> Process(ULONG pid, ITarget* target = nullptr) {
    vekx::ComPtr<IProcess10> process;
    EXPECT_OK(CreateProcessObject(client_, HandleOf(target != nullptr ? target : target_.Get()),
                                  pid, IID_IProcess10, reinterpret_cast<void**>(process.Put())));
    return process;
  }
  vekx::ComPtr<IThread> Thread(ULONG tid) {
    vekx::ComPtr<IThread> thread;
    CreateThreadObject(client_, HandleOf(target_), pid_, tid, IID_IThread,
                       reinterpret_cast<void**>(thread.Put()));
    return thread;
  }
  std::vector<uint64_t> Registers(IThread* thread, const std::vector<uint64_t>& ids) {
    vekx::Variant values;
    EXPECT_OK(thread->GetRegisters(ArrayOf(VT_I4, ids).Get(), values.Put()));
    return Numbers(values);
  }
  // The program run with `args` in process_, stopped at its entry (after `stops` earlier stops),
  // its pid in pid_; with an `address`, a breakpoint there for every thread too (bp_, its
  // original code in opcode_).
  void LoadStopped(const std::string& args, uint64_t address = 0, int stops = 0) {
    process_ = Load(args, true);
    ASSERT_TRUE(process_) << args;
    ASSERT_OK(process_->get_Id(&pid_));
    ASSERT_EQ(events_->WaitStop(stops), STOP_REASON_DL_STOP_INIT) << args;
    if (address != 0) {
      ASSERT_OK(Break(process_.Get(), 0, address, opcode_, bp_));
    }
  }
  // The program is among the process's modules, its entry its _start, and with `libc` the C
  // library too; how many modules there are.
  size_t ExpectProgramAndLibc(IProcess10* process, bool libc = true) {
    const auto modules = ListOf<IModule>(process, &IProcess10::get_Modules, IID_IModule);
    std::map<std::string, uint64_t> entries;
    for (const auto& module : modules)
      entries[GetText(module.Get(), &IModule::get_Name)] =
          Get(module.Get(), &IModule::get_StartEntryAddress);
    EXPECT_EQ(entries["vekx_debuggee"], Symbol("_start"));
    EXPECT_TRUE(!libc || std::any_of(entries.begin(), entries.end(), [](const auto& entry) {
      return entry.first.find("libc") == 0;
    }));
    return modules.size();
  }

  vekx::ComPtr<ITarget47> target_;
  vekx::ComPtr<StopRecorder> events_ = vekx::MakeSink<StopRecorder>();
  vekx::ComPtr<RecordingSink> heard_ = vekx::MakeSink<RecordingSink>();
  vekx::ComPtr<IProcess10> process_;
  vekx::Variant opcode_;  // what the breakpoint bp_ replaced
  ULONG pid_ = 0, bp_ = 0;
};

// Loaded stopped at its entry, the program runs into a breakpoint, has its global read and
// changed, passes the breakpoint once resumed, steps, has its registers written and read back
// (the upper half of a YMM register too), and is killed. Its marker as it starts is read by
// vesta-ctrl's and the Python binding's tests.
TEST_F(LocalTargetTest, BreakReadWriteStepRegistersKill) {
  const uint64_t tick = Symbol("vekx_tick"), counter = Symbol("vekx_counter");
  ASSERT_NE(tick, 0u);
  ASSERT_NO_FATAL_FAILURE(LoadStopped("spin", tick));
  IProcess10* process = process_.Get();
  EXPECT_NE(Numbers(opcode_), std::vector<uint64_t>{0xCC});
  EXPECT_EQ(Memory(process, tick, 1), std::vector<uint64_t>{0xCC});
  ASSERT_OK(Resume(process));
  ULONG tid = 0;
  ASSERT_EQ(events_->WaitStop(1, &tid), STOP_REASON_SIGSWBRKPT);
  auto thread = Thread(tid);
  EXPECT_EQ(Registers(thread.Get(), {REG_ID_RIP})[0], tick);

  // Its modules, announced by the time of the stop.
  EXPECT_EQ(Heard("OnDynamicLibraryLoad"), ExpectProgramAndLibc(process));

  // A new counter, then one more pass through the breakpoint adds one to it.
  ULONG written = 0;
  ASSERT_OK(
      process->SetMemory(counter, ArrayOf(VT_UI1, {0xe8, 3, 0, 0, 0, 0, 0, 0}).Get(), &written));
  ASSERT_OK(Resume(process));
  ASSERT_EQ(events_->WaitStop(2), STOP_REASON_SIGSWBRKPT);
  EXPECT_EQ(Memory(process, counter, 2), (std::vector<uint64_t>{0xe9, 3}));

  // One step from the breakpoint leaves it, with the breakpoint still in place.
  ASSERT_OK(Resume(process, ArrayOf(VT_UI4, {tid})));
  ASSERT_EQ(events_->WaitStop(3), STOP_REASON_SIGTRAP);
  const uint64_t stepped = Registers(thread.Get(), {REG_ID_RIP})[0];
  EXPECT_TRUE(stepped > tick && stepped < tick + 16) << stepped;
  EXPECT_EQ(Memory(process, tick, 1), std::vector<uint64_t>{0xCC});

  const std::vector<uint64_t> ids = {REG_ID_RBX, REG_ID_R12, REG_ID_YMM3, REG_ID_EN_MXCSR,
                                     REG_ID_FP_ACC2};
  // Without AVX the upper half of a YMM register stays zero.
  const uint64_t upper = __builtin_cpu_supports("avx") ? 3 : 0;
  const std::vector<uint64_t> values = {
      0x1122334455667788, 0,      0, 0, 42, 0, 0, 0, 1, 2, upper, upper, 0x1f80 | 0x40, 0, 0, 0,
      0x8000000000000000, 0x3fff, 0, 0};
  ASSERT_OK(thread->SetRegisters(ArrayOf(VT_I4, ids).Get(), ArrayOf(VT_UI8, values).Get()));
  EXPECT_EQ(Registers(thread.Get(), ids), values);

  // A page mapped by the stopped program itself: written, read, and gone once released.
  ULONGLONG page = 0;
  ASSERT_OK(process->AllocateExecutablePage(100, &page));
  EXPECT_EQ(page % 4096, 0u);
  ASSERT_OK(process->SetMemory(page, ArrayOf(VT_UI1, {0xc3}).Get(), &written));
  EXPECT_EQ(Memory(process, page, 2), (std::vector<uint64_t>{0xc3, 0}));
  EXPECT_EQ(process->DeallocateDataPage(page), KXAPI_COMMS_ERR_INVALID_ADDRESS);
  ASSERT_OK(process->DeallocateExecutablePage(page));
  vekx::Variant unmapped;
  ULONG bad = 0;
  ASSERT_OK(process->GetMemory(page, 16, &bad, unmapped.Put()));
  EXPECT_EQ(bad, 16u);
  EXPECT_EQ(Registers(thread.Get(), ids), values);  // the thread as it was

  ASSERT_OK(process->Kill());
  EXPECT_TRUE(servertest::WaitUntil([&] { return Heard("OnProcessKill") == 1; }));
}

// How a run ends: the signal that stopped it (in the target's numbering) and then ended it (128
// plus the Linux number, as a shell says it). A child made while a breakpoint is set (by fork, or
// by vfork and so in the same memory) passes the breakpoint untraced and lives; the parent still
// stops there and ends with the child's code. Plain exit codes, and a signal numbered alike on
// both sides, are vesta-ctrl run's (tests/cli/local_commands_test.cpp).
TEST_F(LocalTargetTest, ExitCodesSignalsAndChildrenThroughTheParentsBreakpoints) {
  const struct {
    const char* args;
    bool breaks;    // loaded stopped, with a breakpoint at vekx_tick
    uint32_t stop;  // the stop before the end
    ULONG exit_code;
  } kCases[] = {
      {"raise 10", false, STOP_REASON_SIGUSR1, 128 + 10},  // SIGUSR1 is 10 on Linux, 30 here
      {"fork", true, STOP_REASON_SIGSWBRKPT, 3},
      {"vfork", true, STOP_REASON_SIGSWBRKPT, 3},
  };
  int stops = 0;
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.args);
    heard_->Clear();
    if (test.breaks) {
      ASSERT_NO_FATAL_FAILURE(LoadStopped(test.args, Symbol("vekx_tick"), stops++));
      ASSERT_OK(Resume(process_.Get()));
    } else {
      process_ = Load(test.args, false);
    }
    ASSERT_TRUE(process_);
    ULONG tid = 0;
    EXPECT_EQ(events_->WaitStop(stops++, &tid), test.stop);
    EXPECT_TRUE(!test.breaks || tid == pid_) << "the child stopped";
    EXPECT_OK(Resume(process_.Get()));
    EXPECT_TRUE(servertest::WaitUntil([&] {
      return heard_->Values("OnProcessExit", "ExitCode") ==
             std::vector<std::string>{std::to_string(test.exit_code)};
    })) << ::testing::PrintToString(heard_->Values("OnProcessExit", "ExitCode"));
  }
}

// A library the program opens and closes is announced as the dynamic linker loads and unloads it,
// before the stops that follow, though the stops themselves no longer read the mappings.
TEST_F(LocalTargetTest, LibrariesOpenedAndClosedAreAnnouncedByTheNextStop) {
  ASSERT_NO_FATAL_FAILURE(
      LoadStopped(std::string("dlopen ") + VEKX_DEBUGGEE_LIBRARY, Symbol("vekx_tick")));
  const auto has_library = [&] {
    const auto modules = ListOf<IModule>(process_.Get(), &IProcess10::get_Modules, IID_IModule);
    return std::any_of(modules.begin(), modules.end(), [](const auto& module) {
      return GetText(module.Get(), &IModule::get_Name) == "libvekx_debuggee_library.so";
    });
  };
  for (const size_t unloads : {0u, 1u}) {
    ASSERT_OK(Resume(process_.Get()));
    ASSERT_EQ(events_->WaitStop(static_cast<int>(unloads) + 1), STOP_REASON_SIGSWBRKPT);
    EXPECT_EQ(Heard("OnDynamicLibraryUnload"), unloads);
    EXPECT_EQ(has_library(), unloads == 0);
  }
  EXPECT_EQ(Heard("OnDynamicLibraryLoad"),
            ExpectProgramAndLibc(process_.Get()) + 1);  // and the library
}

// The program's console: what it is sent reaches its stdin, what it prints comes back. Resumed
// from a breakpoint on the system call of its read, it blocks in the step over the breakpoint:
// the resume and the tracer's other calls are answered meanwhile, not once the input comes.
TEST_F(LocalTargetTest, ConsoleInputAndOutput) {
  const auto console = vekx::MakeSink<RecordingSink>();
  ASSERT_OK(target_->AdviseConsoleOutputEvents(console.Get()));
  ASSERT_NO_FATAL_FAILURE(LoadStopped("echo", Symbol("vekx_read_syscall")));
  const auto process = process_;
  ASSERT_OK(Resume(process.Get()));
  ASSERT_EQ(events_->WaitStop(1), STOP_REASON_SIGSWBRKPT);
  auto resumed = std::async(std::launch::async, [&] { return Resume(process.Get()); });
  const bool answered = resumed.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  if (!answered) process->SendConsoleInput(STREAM_STDIO, B("late\n").Get());  // or it never ends
  ASSERT_TRUE(answered) << "the resume waited for the program's read";
  EXPECT_EQ(ListOf<IThreadInfo>(process.Get(), &IProcess10::get_ThreadInfoSnapshot, IID_IThreadInfo)
                .size(),
            1u);
  // Its standard streams are the server's pipes.
  const auto list = ListOf<IFile>(process.Get(), &IProcess10::get_Files, IID_IFile);
  ASSERT_GE(list.size(), 3u);
  for (ULONG fd = 0; fd < 3; ++fd) {
    EXPECT_EQ(Get(list[fd].Get(), &IFile::get_Handle), fd);
    EXPECT_EQ(GetText(list[fd].Get(), &IFile::get_Path).substr(0, 5), "pipe:");
  }
  ASSERT_OK(process->SendConsoleInput(STREAM_STDIO, B("ping\n").Get()));
  EXPECT_OK(resumed.get());
  EXPECT_TRUE(servertest::WaitUntil([&] {
    return console->Values("OnConsoleOutput", "Text") == std::vector<std::string>{"got ping\n"};
  }));
  EXPECT_OK(target_->UnadviseConsoleOutputEvents(console.Get()));
}

// Up to four hardware breakpoints land in the thread's debug registers as the CPU needs them;
// a fifth is refused, and clearing one frees its slot.
TEST_F(LocalTargetTest, HardwareBreakpointsProgramTheDebugRegisters) {
  ASSERT_NO_FATAL_FAILURE(LoadStopped("spin"));
  const uint64_t tick = Symbol("vekx_tick"), counter = Symbol("vekx_counter");
  const auto code = static_cast<eHardwareBreakPtFlags>(0);
  const struct {
    uint64_t address;
    eHardwareBreakPtFlags flags;
    ULONG size;
    HRESULT result;
  } kSlots[] = {
      {tick, code, 1, S_OK},
      {counter, HWBREAKPT_FLAG_BREAK_ON_WRITE, 8, S_OK},
      {Symbol("vekx_marker"), HWBREAKPT_FLAG_BREAK_ON_READ, 4, S_OK},
      {counter, HWBREAKPT_FLAG_BREAK_ON_WRITE, 2, S_OK},
      {tick, code, 1, KXAPI_COMMS_ERR_NO_FREE_HWBRKPT},  // a fifth
  };
  std::vector<ULONG> ids;
  for (const auto& row : kSlots) {
    ULONG id = 0;
    ASSERT_EQ(process_->SetHardwareBreakpoint(row.address, row.flags, row.size, &id), row.result);
    ids.push_back(id);
  }
  // All four in the debug registers is the gdb tests' HardwarePointsProgramTheDebugRegisters.
  ASSERT_OK(process_->ClearHardwareBreakpoint(ids[0]));
  // Enable bits 0, 2, 4; kinds and lengths: write/8, read-write/4, write/2.
  EXPECT_EQ(
      Registers(Thread(pid_).Get(), {REG_ID_DR0, REG_ID_DR7}),
      (std::vector<uint64_t>{counter, 0, 0, 0,
                             0x15 | (0x9ull << 16) | (0xFull << 20) | (0x5ull << 24), 0, 0, 0}));
  EXPECT_OK(process_->Kill());
}

// A running program of the user is attached, stopped by a breakpoint, and detached: it runs on
// without the breakpoint. The server refuses to attach to its own ancestors.
TEST_F(LocalTargetTest, AttachBreakDetach) {
  const std::string scope = servertest::ReadText("/proc/sys/kernel/yama/ptrace_scope");
  if (geteuid() != 0 && !scope.empty() && scope[0] != '0')
    GTEST_SKIP() << "Yama's ptrace_scope lets only descendants be traced: not tested";
  const pid_t child = fork();
  if (child == 0) {
    execl(VEKX_DEBUGGEE, VEKX_DEBUGGEE, "spin", nullptr);
    _exit(127);
  }
  ASSERT_GT(child, 0);
  pid_ = static_cast<ULONG>(child);
  const auto process = Process(pid_);
  ASSERT_TRUE(process);
  usleep(50000);  // past its exec
  ASSERT_OK(process->Attach(0));
  const uint64_t tick = Symbol("vekx_tick");
  ASSERT_OK(Break(process.Get(), 0, tick, opcode_, bp_));
  EXPECT_EQ(events_->WaitStop(0), STOP_REASON_SIGSWBRKPT);
  ASSERT_OK(process->Detach(0));
  EXPECT_EQ(process->Detach(0), KXAPI_COMMS_ERR_NOT_ATTACHED);
  // Untraced and running, with its own byte back at the breakpoint's address.
  std::ifstream memory("/proc/" + std::to_string(child) + "/mem", std::ios::binary);
  memory.seekg(static_cast<std::streamoff>(tick));
  EXPECT_EQ(static_cast<uint64_t>(memory.get()), Numbers(opcode_)[0]);
  usleep(20000);
  const std::string stat = servertest::ReadText("/proc/" + std::to_string(child) + "/stat");
  const char state = stat[stat.rfind(')') + 2];
  EXPECT_TRUE(state == 'S' || state == 'R') << stat;  // not stopped (T) nor traced (t)
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);

  const auto me = Process(static_cast<ULONG>(getpid()));
  ASSERT_TRUE(me);
  EXPECT_EQ(me->Attach(0), KXAPI_COMMS_ERR_INVALID_SELF);
}

// Threads are announced as they start; a breakpoint for one thread stops only that thread.
TEST_F(LocalTargetTest, ThreadsAndThreadSpecificBreakpoint) {
  auto process = Load("threads 3", false);
  ASSERT_TRUE(process);
  ASSERT_OK(process->get_Id(&pid_));
  ASSERT_TRUE(servertest::WaitUntil([&] { return Heard("OnThreadCreate") >= 4; }));
  const auto before =
      ListOf<IThreadInfo>(process.Get(), &IProcess10::get_ThreadInfoSnapshot, IID_IThreadInfo);
  ASSERT_EQ(before.size(), 4u);
  const ULONG chosen = Get(before[3].Get(), &IThreadInfo::get_Id);

  // Suspended on its own, the thread says why; the others run on.
  auto thread = Thread(chosen);
  eThreadState state{};
  ASSERT_OK(thread->Suspend(&state));
  EXPECT_EQ(state, TDS_INHIBITED);
  const auto after =
      ListOf<IThreadInfo>(process.Get(), &IProcess10::get_ThreadInfoSnapshot, IID_IThreadInfo);
  ASSERT_EQ(after.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    const auto& info = after[i];
    EXPECT_EQ(StopCode(info.Get()), i == 3 ? 130u : 0u) << i;  // SIGSUSPEND_THREAD
    // A stopped thread's stack is the mapping its stack pointer lies in.
    const ULONGLONG top = Get(info.Get(), &IThreadInfo::get_StackAddressTop);
    const ULONGLONG size = Get(info.Get(), &IThreadInfo::get_StackSize);
    EXPECT_TRUE(i != 3 || (top != 0 && size >= 4096 && size % 4096 == 0)) << top << " " << size;
  }
  ASSERT_OK(thread->Resume());
  ASSERT_OK(Break(process.Get(), chosen, Symbol("vekx_tick"), opcode_, bp_));
  ULONG stopped = 0;
  EXPECT_EQ(events_->WaitStop(0, &stopped), STOP_REASON_SIGSWBRKPT);
  EXPECT_EQ(stopped, chosen);
  EXPECT_OK(process->Kill());
}

// A core file of a program stopped at a breakpoint, with three threads and a changed global. As
// Debian's gdb reads it back: the stopped thread's rip, the global's new value, the code byte
// under the breakpoint as the program has it (not the int3), and every thread; a mini dump leaves
// the code to the program's file but keeps the data; a second dump never replaces the first.
// Reopened through LoadCoreDump, the mini dump agrees with the live process: its one process,
// every thread, the stopped thread's registers (FP and YMM too), the global, the code byte (read
// from the program's file) and its modules. What would change or run it is refused, and the
// pseudo host finds it. Nothing is dumped while the program runs.
TEST_F(LocalTargetTest, CoreDumpsThatGdbReadsAndThatReopenAsReadOnlyTargets) {
  const bool gdb = std::filesystem::exists("/usr/bin/gdb");
  const uint64_t tick = Symbol("vekx_tick"), marker = Symbol("vekx_marker");
  ULONG tid = 0;
  ASSERT_NO_FATAL_FAILURE(LoadStopped("threads 2", tick));
  IProcess10* process = process_.Get();
  // Into the breakpoint until three threads have started (the main thread stops there meanwhile).
  for (int stops = 1; Heard("OnThreadCreate") < 3 && stops < 10; ++stops) {
    ASSERT_OK(Resume(process));
    ASSERT_EQ(events_->WaitStop(stops, &tid), STOP_REASON_SIGSWBRKPT);
  }
  ULONG written = 0;
  ASSERT_OK(process->SetMemory(marker, ArrayOf(VT_UI1, {0xcd, 0xab, 0x34, 0x12}).Get(), &written));
  const std::vector<uint64_t> ids = {REG_ID_RIP,    REG_ID_RSP,    REG_ID_RBX,   REG_ID_R12,
                                     REG_ID_RFLAGS, REG_ID_FSBASE, REG_ID_EN_CW, REG_ID_EN_MXCSR,
                                     REG_ID_YMM0,   REG_ID_FP_ACC0};
  const std::vector<uint64_t> live = Registers(Thread(tid).Get(), ids);
  ASSERT_EQ(live[0], tick);

  const qv::testing::TempDir directory;
  const struct {
    eCoreDumpType type;
    const char* name;
  } kDumps[] = {{COREDUMP_TYPE_FULL, "full.core"}, {COREDUMP_TYPE_MINI, "mini.core"}};
  for (const auto& dump : kDumps) {
    SCOPED_TRACE(dump.name);
    const std::string core = (directory.path() / dump.name).string();
    heard_->Clear();
    ASSERT_OK(process->TriggerCoredump(B(core).Get(), dump.type));
    ASSERT_TRUE(servertest::WaitUntil([&] { return Heard("OnCoredumpCompleted") == 1; }));
    EXPECT_EQ(heard_->Values("OnCoredumpCompleted", "Result"), std::vector<std::string>{"0"});
    std::vector<int> percents;
    for (const std::string& percent : heard_->Values("OnCoredumpInProgress", "Percentage"))
      percents.push_back(std::stoi(percent));
    EXPECT_TRUE(!percents.empty() && percents.front() == 0 && percents.back() == 100 &&
                std::is_sorted(percents.begin(), percents.end()))
        << ::testing::PrintToString(percents);
    if (gdb) {  // else not read back here
      std::string gdb_line = std::string("gdb -batch -nx '") + VEKX_DEBUGGEE + "' '" + core + "'";
      for (const char* command : {"print/d $rip", "print/x *(long *)&vekx_marker",
                                  "print/d *(unsigned char*)&vekx_tick", "info threads"})
        gdb_line += std::string(" -ex '") + command + "'";
      EXPECT_NE(std::system((gdb_line + " >'" + core + ".gdb' 2>&1").c_str()), -1);
      const std::string answer = servertest::ReadText(core + ".gdb");
      for (const std::string& part :
           {"$1 = " + std::to_string(tick) + "\n", std::string("$2 = 0x1234abcd\n"),
            "$3 = " + std::to_string(Numbers(opcode_)[0]) + "\n", std::string("\n  3 ")}) {
        EXPECT_NE(answer.find(part), std::string::npos) << part << " in " << answer;
      }
      EXPECT_EQ(answer.find("\n  4 "), std::string::npos) << answer;
    }
    EXPECT_EQ(process->TriggerCoredump(B(core).Get(), dump.type), KXAPI_COMMS_ERR_COREDUMP_CREATE);
    EXPECT_NE(TakeErrorText().find("already exists"), std::string::npos);
  }
  EXPECT_EQ(process->CancelCoredump(), KXAPI_COMMS_ERR_NO_ENTRY);  // nothing to cancel

  const std::string host = "core-" + std::to_string(pid_);
  const auto sink = vekx::MakeSink<vekx::EventSink<IEventTarget>>();
  vekx::ComPtr<ITarget> dump;
  ASSERT_OK(api_->LoadCoreDump(B((directory.path() / "mini.core").string()).Get(), sink.Get(),
                               B(host).Get(), dump.Put()));
  vekx::ComPtr<ITarget> found;
  ASSERT_OK(api_->GetCoreDumpTargetByHost(B(host).Get(), found.Put()));
  EXPECT_EQ(HandleOf(dump), HandleOf(found));

  const auto processes =
      ListOf<IProcessInfo>(dump.Get(), &ITarget::get_ProcessInfoSnapshot, IID_IProcessInfo);
  ASSERT_EQ(processes.size(), 1u);
  EXPECT_EQ(Get(processes[0].Get(), &IProcessInfo::get_Id), pid_);
  vekx::ComPtr<IProcess> opened;
  ASSERT_OK(processes[0]->get_ProcessInterface(opened.Put()));
  vekx::ComPtr<IProcess10> reopened;
  opened.QueryInto(IID_IProcess10, reopened);
  EXPECT_EQ(Memory(reopened.Get(), marker, 4), (std::vector<uint64_t>{0xcd, 0xab, 0x34, 0x12}));
  EXPECT_EQ(Memory(reopened.Get(), tick, 1), Numbers(opcode_));

  const auto threads =
      ListOf<IThreadInfo>(reopened.Get(), &IProcess10::get_ThreadInfoSnapshot, IID_IThreadInfo);
  EXPECT_EQ(threads.size(), 3u);
  vekx::ComPtr<IThread> stopped;
  for (const auto& thread : threads) {
    if (Get(thread.Get(), &IThreadInfo::get_Id) == tid) thread->get_ThreadInterface(stopped.Put());
  }
  ASSERT_TRUE(stopped);
  EXPECT_EQ(Registers(stopped.Get(), ids), live);
  ExpectProgramAndLibc(reopened.Get());

  // Each change refused with the target's kind named (a memory write is vesta-ctrl's test, in
  // tests/cli/local_commands_test.cpp).
  vekx::Variant scratch;
  ULONG scratch_id = 0;
  const vekx::Variant rax = ArrayOf(VT_I4, {REG_ID_RAX}), one = ArrayOf(VT_UI8, {1, 0, 0, 0});
  const std::pair<const char*, std::function<HRESULT()>> kRefused[] = {
      {"resume", [&] { return Resume(reopened.Get()); }},
      {"break", [&] { return Break(reopened.Get(), 0, tick, scratch, scratch_id); }},
      {"kill", [&] { return reopened->Kill(); }},
      {"registers", [&] { return stopped->SetRegisters(rax.Get(), one.Get()); }},
  };
  for (const auto& [what, call] : kRefused) {
    EXPECT_EQ(call(), KXAPI_ERR_NOT_SUPPORTED_BY_THIS_TARGET_TYPE) << what;
    EXPECT_NE(TakeErrorText().find("read-only core dump"), std::string::npos) << what;
  }
  EXPECT_OK(dump->UnadviseTargetEvents(sink.Get()));

  ASSERT_OK(process->ClearSoftwareBreakpoint(bp_));
  ASSERT_OK(Resume(process));
  const std::string running = (directory.path() / "running.core").string();
  EXPECT_EQ(process->TriggerCoredump(B(running).Get(), COREDUMP_TYPE_FULL),
            KXAPI_COMMS_ERR_NOT_STOPPED);
  EXPECT_FALSE(std::filesystem::exists(running));
  EXPECT_OK(process->Kill());
}

// A core the kernel wrote (the program raised SIGABRT with core dumps allowed) opens too: the
// signal, the global, and the program's entry point read from the one page of its file the
// kernel saves. Skipped where the kernel sends cores elsewhere (a pipe, another directory).
TEST_F(LocalTargetTest, CoreDumpTheKernelWroteOpens) {
  const std::string pattern = servertest::ReadText("/proc/sys/kernel/core_pattern");
  if (pattern.empty() || pattern[0] == '|' || pattern.find('/') != std::string::npos)
    GTEST_SKIP() << "the kernel does not write cores beside the program here: not tested";
  const qv::testing::TempDir directory;
  const pid_t child = fork();
  if (child == 0) {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (chdir(directory.path().c_str()) != 0 || setrlimit(RLIMIT_CORE, &unlimited) != 0) _exit(1);
    execl(VEKX_DEBUGGEE, VEKX_DEBUGGEE, "raise", "6", nullptr);
    _exit(127);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  std::string core;
  for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
    core = entry.path().string();
  if (!WIFSIGNALED(status) || !WCOREDUMP(status) || core.empty())
    GTEST_SKIP() << "the kernel wrote no core here: not tested";
  const auto sink = vekx::MakeSink<vekx::EventSink<IEventTarget>>();
  vekx::ComPtr<ITarget> dump;
  ASSERT_OK(api_->LoadCoreDump(B(core).Get(), sink.Get(), B("kernel-core").Get(), dump.Put()));
  const auto process = Process(static_cast<ULONG>(child), dump.Get());
  ASSERT_TRUE(process);
  EXPECT_EQ(Memory(process.Get(), Symbol("vekx_marker"), 2), (std::vector<uint64_t>{0xed, 0x5e}));
  ExpectProgramAndLibc(process.Get(), false);
  const auto processes =
      ListOf<IProcessInfo>(dump.Get(), &ITarget::get_ProcessInfoSnapshot, IID_IProcessInfo);
  ASSERT_EQ(processes.size(), 1u);
  EXPECT_EQ(StopCode(processes[0].Get()), STOP_REASON_SIGABRT);
  EXPECT_OK(dump->UnadviseTargetEvents(sink.Get()));
}

}  // namespace
}  // namespace qv::apitest

#endif  // VEKX_DEBUGGEE
