// core TARGET PID FILE: a stopped process's core file, written by the target at FILE, with a
// progress bar while it is written; Ctrl+C cancels it and the target removes the partial file.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "debug_commands.h"
#include "debug_values.h"
#include "interruption.h"
#include "output.h"
#include "process_resolution.h"
#include "vekxapi/event_sink.h"

namespace vesta_ctrl {
namespace {

// Draws the dump's progress on standard error as COREDUMP_IN_PROGRESS comes: one line redrawn
// on a terminal, a line per ten percent elsewhere.
class DumpProgress : public vekx::EventSink<IEventDebug> {
 public:
  DumpProgress(std::uint32_t pid, bool bar) : pid_(pid), bar_(bar) {}

  HRESULT STDMETHODCALLTYPE OnCoredumpCompleted(ICoredumpCompletedEvent* event) override {
    ULONG pid = 0;
    if (event == nullptr || FAILED(event->get_ProcessId(&pid)) || pid != pid_) return S_OK;
    {
      std::lock_guard lock(mutex_);
      completed_ = true;
    }
    completed_cv_.notify_all();
    return S_OK;
  }

  // The events come on the library's event thread, which may still be drawing progress that came
  // before the answer: the tool ends only once the completion has come, or after `limit`.
  void AwaitCompleted(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    completed_cv_.wait_for(lock, limit, [this] { return completed_; });
  }

  HRESULT STDMETHODCALLTYPE OnCoredumpInProgress(ICoredumpInProgressEvent* event) override {
    if (event == nullptr) return E_POINTER;
    ULONG pid = 0;
    ULONG percent = 0;
    if (FAILED(event->get_ProcessId(&pid)) || FAILED(event->get_Percentage(&percent)) ||
        pid != pid_) {
      return S_OK;
    }
    std::lock_guard lock(mutex_);
    Show(std::min<ULONG>(percent, 100));
    return S_OK;
  }

  // Ends the bar's line.
  void Close() {
    std::lock_guard lock(mutex_);
    if (bar_ && shown_ >= 0) std::fputs("\n", stderr);
  }

 private:
  void Show(unsigned percent) {
    if (!bar_) {
      if (static_cast<int>(percent / 10) > shown_ / 10 || shown_ < 0)
        std::fprintf(stderr, "dumping: %u%%\n", percent);
    } else {
      constexpr unsigned kWidth = 30;
      const std::string done(percent * kWidth / 100, '#');
      std::fprintf(stderr, "\r[%-*s] %3u%%", static_cast<int>(kWidth), done.c_str(), percent);
      std::fflush(stderr);
    }
    shown_ = static_cast<int>(percent);
  }

  const std::uint32_t pid_;
  const bool bar_;  // stderr is a terminal: redraw one line
  std::mutex mutex_;
  std::condition_variable completed_cv_;
  int shown_ = -1;          // guarded by mutex_
  bool completed_ = false;  // guarded by mutex_
};

struct CoreOptions {
  ProcessArgs process;
  std::string file;
  bool mini = false;
};

void Core(Context& context, const CoreOptions& options) {
  if (options.file.empty()) throw UsageError("FILE must not be empty");
  const std::uint32_t pid = Pid(options.process);
  // The target writes the file; its working directory is not the tool's.
  std::error_code error;
  const std::string file = std::filesystem::absolute(options.file, error).string();
  const Interruption interruption;
  const ProcessRef ref = ResolveProcess(context, options.process.spec, pid);
  vekx::ComPtr<IProcess2> dumper;
  Check(ref.process.QueryInto(IID_IProcess2, dumper));
  auto progress = vekx::MakeSink<DumpProgress>(pid, StandardErrorIsTerminal());
  IEventDebug* sink = static_cast<IEventDebug*>(progress.Get());
  Check(ref.target->AdviseDebugEvents(sink));
  // Ctrl+C while the target writes: the dump is cancelled and the call below fails.
  std::atomic<bool> finished{false};
  std::thread canceller([&] {
    interruption.Wait([&] { return finished.load(); });
    if (!finished) dumper->CancelCoredump();
  });
  const HRESULT result = dumper->TriggerCoredump(
      vekx::Bstr::FromUtf8(file).Get(), options.mini ? COREDUMP_TYPE_MINI : COREDUMP_TYPE_FULL);
  finished = true;
  canceller.join();
  if (SUCCEEDED(result)) progress->AwaitCompleted(std::chrono::seconds(5));
  progress->Close();
  ref.target->UnadviseDebugEvents(sink);
  Check(result);
  if (context.json) {
    PrintOrderedJson(context.out,
                     {{"pid", pid}, {"file", file}, {"type", options.mini ? "mini" : "full"}});
  } else {
    context.out << "Wrote the core of process " << pid << " to " << file << ".\n";
  }
}

}  // namespace

void AddCoreCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<CoreOptions>();
  CLI::App* command =
      app.add_subcommand("core", "Write a stopped process's core file to FILE (Ctrl+C cancels it)");
  AddProcessArgs(*command, options->process);
  command->add_option("FILE", options->file, "The file to write; it must not exist")->required();
  command->add_flag("--mini", options->mini,
                    "Only the memory a program's files do not hold (data, heap, stacks)");
  command->callback([&context, options] { Core(context, *options); });
}

}  // namespace vesta_ctrl
