// run TARGET PATH [-- ARGS...]: a program loaded and run as a remote shell runs it: its standard
// output and error on the tool's own, and the tool's exit code its exit code.
#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "debug_commands.h"
#include "debug_values.h"
#include "interruption.h"
#include "output.h"
#include "target_resolution.h"
#include "vekxapi/event_sink.h"

namespace vesta_ctrl {
namespace {

// The exit code of a program that was killed, as a shell gives SIGKILL's: 128 + 9.
constexpr int kKilledExitCode = 137;
// Ctrl+C's, as a shell gives SIGINT's.
constexpr int kInterruptedExitCode = 130;
// How long a process has to go after the tool killed it on Ctrl+C.
constexpr auto kKillWait = std::chrono::seconds(10);

// What happened to the process, as the Debug events tell it.
struct Outcome {
  enum Kind { kStop, kExit, kKill } kind = kStop;
  std::uint32_t exit_code = 0;
};

// Console output and Debug events of the process. Both come before the process's id is known (it
// may print at once), so everything is kept until Watch names the process; then its output is
// printed as it comes and its stops and end are queued for the command's thread, which alone
// calls the library (a call from the library's notification thread could wait on itself).
class RunSink : public vekx::EventSink<IEventDebug> {
 public:
  explicit RunSink(Context& context) : context_(context) {}

  class Output : public vekx::EventSink<IEventConsoleOutput> {
   public:
    explicit Output(RunSink& owner) : owner_(owner) {}
    HRESULT STDMETHODCALLTYPE OnConsoleOutput(IConsoleOutputEvent* event) override {
      return owner_.Guarded(event, [&] {
        Piece piece;
        piece.pid = Read(*event, &IConsoleOutputEvent::get_ProcessId);
        piece.port = Read(*event, &IConsoleOutputEvent::get_Port);
        piece.text = Read(*event, &IConsoleOutputEvent::get_Text);
        std::lock_guard lock(owner_.mutex_);
        if (owner_.pid_ == 0) {
          owner_.held_.push_back(std::move(piece));
        } else {
          owner_.Print(piece);
        }
      });
    }

   private:
    RunSink& owner_;
  };

  HRESULT STDMETHODCALLTYPE OnStopNotification(IStopNotificationEvent* event) override {
    return Guarded(event, [&] {
      const auto stop = Read(*event, &IStopNotificationEvent::get_StopNotification);
      if (!stop) return;
      const auto process = Read(*stop.Get(), &IStopNotification::get_ProcessInfo);
      if (process) Queue(Read(*process.Get(), &IProcessInfo::get_Id), {Outcome::kStop});
    });
  }
  HRESULT STDMETHODCALLTYPE OnProcessExit(IProcessExitEvent* event) override {
    return Guarded(event, [&] {
      Queue(Read(*event, &IProcessExitEvent::get_ProcessId),
            {Outcome::kExit, Read(*event, &IProcessExitEvent::get_ExitCode)});
    });
  }
  HRESULT STDMETHODCALLTYPE OnProcessKill(IProcessKillEvent* event) override {
    return Guarded(event, [&] {
      Queue(Read(*event, &IProcessKillEvent::get_ProcessId), {Outcome::kKill, kKilledExitCode});
    });
  }

  // From now on only process `pid` counts: what it printed so far goes out.
  void Watch(std::uint32_t pid) {
    std::lock_guard lock(mutex_);
    pid_ = pid;
    for (const Piece& piece : held_)
      Print(piece);
    held_.clear();
    std::erase_if(held_outcomes_, [&](const auto& each) { return each.first != pid; });
    for (const auto& each : held_outcomes_)
      outcomes_.push_back(each.second);
    held_outcomes_.clear();
  }
  std::optional<Outcome> Next() {
    std::lock_guard lock(mutex_);
    if (outcomes_.empty()) return std::nullopt;
    const Outcome next = outcomes_.front();
    outcomes_.pop_front();
    return next;
  }
  bool Pending() {
    std::lock_guard lock(mutex_);
    return !outcomes_.empty();
  }

 private:
  struct Piece {
    std::uint32_t pid = 0;
    std::uint32_t port = 0;
    std::string text;
  };

  template <class Event, class Body>
  HRESULT Guarded(Event* event, Body body) noexcept {
    if (event == nullptr) return E_POINTER;
    try {
      body();
      return S_OK;
    } catch (...) {
      // Called by the library: nothing may escape.
      return E_FAIL;
    }
  }
  void Queue(std::uint32_t pid, Outcome outcome) {
    std::lock_guard lock(mutex_);
    if (pid_ == 0) {
      held_outcomes_.emplace_back(pid, outcome);
    } else if (pid == pid_) {
      outcomes_.push_back(outcome);
    }
  }
  // Standard error (port 1) to the tool's standard error, the rest to its output; with --json a
  // line for each piece.
  void Print(const Piece& piece) {
    if (piece.pid != pid_) return;
    if (context_.json) {
      PrintJson(context_.out, {{"port", piece.port}, {"text", piece.text}});
      context_.out.flush();
      return;
    }
    std::ostream& stream = piece.port == 1 ? std::cerr : context_.out;
    stream << piece.text;
    stream.flush();
  }

  Context& context_;
  std::mutex mutex_;  // guards what follows: the library's thread against the command's
  std::uint32_t pid_ = 0;
  std::vector<Piece> held_;
  std::vector<std::pair<std::uint32_t, Outcome>> held_outcomes_;
  std::deque<Outcome> outcomes_;
};

struct RunOptions {
  std::string spec;
  std::string path;
  std::string cwd;
  std::vector<std::string> args;
};

// Waits for the process's end, resuming it whenever it stops (a signal it gets stops it under
// the debugger; resumed, it meets the signal as it would without one). Ctrl+C kills it.
int WaitForEnd(IProcess& process, RunSink& sink, const Interruption& interruption) {
  for (;;) {
    interruption.Wait([&] { return sink.Pending(); });
    const std::optional<Outcome> outcome = sink.Next();
    if (!outcome) {
      Check(process.Kill());
      const auto deadline = std::chrono::steady_clock::now() + kKillWait;
      while (!sink.Pending() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return kInterruptedExitCode;
    }
    if (outcome->kind != Outcome::kStop) return static_cast<int>(outcome->exit_code);
    vekx::Variant failed;
    Check(process.Resume(vekx::Variant().Get(), failed.Put()));
  }
}

void Run(Context& context, const RunOptions& options) {
  if (options.path.empty()) throw UsageError("PATH must not be empty");
  const Interruption interruption;
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), options.spec);
  vekx::ComPtr<ITarget12> loader;
  Check(target.QueryInto(IID_ITarget12, loader));
  const ProgramPath program = ProgramPathOf(options.path);
  auto sink = vekx::MakeSink<RunSink>(context);
  auto output = vekx::MakeSink<RunSink::Output>(*sink.Get());
  IEventDebug* debug_sink = static_cast<IEventDebug*>(sink.Get());
  // Subscribed before the load: a short program may print and end before the load answers.
  Check(target->AdviseDebugEvents(debug_sink));
  if (HRESULT hr = target->AdviseConsoleOutputEvents(output.Get()); FAILED(hr)) {
    target->UnadviseDebugEvents(debug_sink);
    Check(hr);
  }
  int exit_code = 0;
  try {
    const vekx::Variant args = BstrArray(options.args);
    vekx::ComPtr<IProcess> process;
    Check(loader->LoadProcessArgv(program.on_host ? DEVICE_HOST : DEVICE_APP,
                                  vekx::Bstr::FromUtf8(program.path).Get(), 0, 0, args.Get(),
                                  vekx::Bstr::FromUtf8(options.cwd).Get(), process.Put()));
    sink->Watch(Read(*process.Get(), &IProcess::get_Id));
    exit_code = WaitForEnd(*process.Get(), *sink.Get(), interruption);
  } catch (...) {
    target->UnadviseConsoleOutputEvents(output.Get());
    target->UnadviseDebugEvents(debug_sink);
    throw;
  }
  target->UnadviseConsoleOutputEvents(output.Get());
  target->UnadviseDebugEvents(debug_sink);
  if (context.json) PrintJson(context.out, {{"exit_code", exit_code}});
  context.exit_code = exit_code;
}

}  // namespace

void AddRunCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<RunOptions>();
  CLI::App* command = app.add_subcommand(
      "run",
      "Run a program, its output on this console, and exit with its exit code; ARGS after '--'");
  command->add_option("TARGET", options->spec, "Handle, host name or name")->required();
  command->add_option("PATH", options->path, "The program, as for 'load'")->required();
  command->add_option("ARGS", options->args, "The program's arguments");
  command->add_option("--cwd", options->cwd, "The process's working directory");
  command->callback([&context, options] { Run(context, *options); });
}

}  // namespace vesta_ctrl
