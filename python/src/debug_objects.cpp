#include "debug_objects.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>

#include "debug/register_names.h"
#include "errors.h"
#include "values.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/result_codes.h"

namespace vekx_python {

namespace py = pybind11;

namespace {

// The id of a register name of the server's table (debug/register_names.h).
std::uint32_t RegisterId(const std::string& name) {
  if (std::optional<std::uint32_t> id = qv::RegisterIdByName(name)) return *id;
  Raise(Kind::kInvalidArgument, E_INVALIDARG, "no register '" + name + "'");
}

std::uint32_t CodeOf(IStopReason* reason) {
  eStopNotificationReason code{};
  if (reason == nullptr || FAILED(reason->get_Code(&code))) return 0;
  // Codes above 0x7FFFFFFF: the 32 bits as they are.
  std::uint32_t bits = 0;
  std::memcpy(&bits, &code, sizeof bits);
  return bits;
}

std::string Hex(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

}  // namespace

Stop ReadStop(IStopNotification& notification) {
  Stop stop{"stop"};
  ULONG tid = 0;
  if (SUCCEEDED(notification.get_ThreadId(&tid))) stop.tid = tid;
  vekx::ComPtr<IProcessInfo> process;
  if (SUCCEEDED(notification.get_ProcessInfo(process.Put())) && process) {
    ULONG pid = 0;
    if (SUCCEEDED(process->get_Id(&pid))) stop.pid = pid;
    vekx::ComPtr<IStopReason> reason;
    if (SUCCEEDED(process->get_StopReason(reason.Put())) && CodeOf(reason.Get()) != 0)
      stop.reason = CodeOf(reason.Get());
  }
  vekx::Variant threads;
  std::vector<vekx::Variant> elements;
  if (FAILED(notification.get_Threads(threads.Put())) ||
      FAILED(vekx::ArrayElements(threads.Get(), elements)))
    return stop;
  for (const vekx::Variant& element : elements) {
    vekx::ComPtr<IThreadInfo2> thread;
    if (element.Type() != VT_DISPATCH || element.Get().pdispVal == nullptr ||
        FAILED(element.Get().pdispVal->QueryInterface(IID_IThreadInfo2,
                                                      reinterpret_cast<void**>(thread.Put()))))
      continue;
    ULONG id = 0;
    if (FAILED(thread->get_Id(&id)) || id != tid) continue;
    ULONGLONG rip = 0;
    if (SUCCEEDED(thread->get_RIP(&rip))) stop.rip = rip;
    vekx::ComPtr<IStopReason> own;
    if (SUCCEEDED(thread->get_StopReason(own.Put())) && CodeOf(own.Get()) != 0)
      stop.reason = CodeOf(own.Get());
    break;
  }
  return stop;
}

py::int_ Thread::Register(const std::string& name) {
  const std::uint32_t id = RegisterId(name);
  const vekx::Variant ids = Library::Array(VT_I4, &id, 1);
  vekx::Variant values;
  Unlocked([&] { return thread_->GetRegisters(ids.Get(), values.Put()); });
  const std::vector<std::uint64_t> words = Library::Values<std::uint64_t>(values.Get());
  if (words.empty()) Raise(Kind::kError, E_UNEXPECTED, "the target answered no value for " + name);
  // Four words per register, lowest first: st and ymm registers use more than the first, and
  // come back as one integer.
  const size_t used = (qv::RegisterWidthBits(RegisterId(name)) + 63) / 64;
  py::int_ value(0);
  for (size_t i = std::min(used, words.size()); i-- > 0;)
    value = py::int_((value << py::int_(64)) | py::int_(words[i]));
  return value;
}

void Thread::SetRegister(const std::string& name, const py::int_& value) {
  const std::uint32_t id = RegisterId(name);
  const unsigned width = qv::RegisterWidthBits(id);
  if (value < py::int_(0) || value >= (py::int_(1) << py::int_(width))) {
    Raise(Kind::kInvalidArgument, E_INVALIDARG,
          name + " takes a value from 0 below 2**" + std::to_string(width));
  }
  std::vector<std::uint64_t> words;
  const py::int_ mask((py::int_(1) << py::int_(64)) - py::int_(1));
  for (unsigned i = 0; i < 4; ++i)
    words.push_back(py::int_((value >> py::int_(64 * i)) & mask).cast<std::uint64_t>());
  const vekx::Variant ids = Library::Array(VT_I4, &id, 1);
  const vekx::Variant array = Library::Array(VT_UI8, words.data(), words.size());
  Unlocked([&] { return thread_->SetRegisters(ids.Get(), array.Get()); });
}

std::vector<std::string> Thread::RegisterNames() {
  return qv::AllRegisterNames();
}

py::bytes Process::Read(std::uint64_t address, std::uint32_t count) {
  ULONG bad = 0;
  vekx::Variant buffer;
  Unlocked([&] { return process_->GetMemory(address, count, &bad, buffer.Put()); });
  if (bad != 0) {
    Raise(Kind::kTarget, KXAPI_SERVER_READ_FAILED,
          std::to_string(bad) + " of the " + std::to_string(count) + " bytes at " + Hex(address) +
              " of process " + std::to_string(pid_) + " could not be read");
  }
  const std::vector<std::uint8_t> bytes = Library::Values<std::uint8_t>(buffer.Get());
  return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::uint32_t Process::Write(std::uint64_t address, const std::string& data) {
  const vekx::Variant bytes =
      Library::Array(VT_UI1, reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
  ULONG written = 0;
  Unlocked([&] { return process_->SetMemory(address, bytes.Get(), &written); });
  return written;
}

std::uint32_t Process::BreakAt(std::uint64_t address, std::uint32_t tid) {
  ULONG id = 0;
  Unlocked([&] {
    vekx::Variant opcode;
    return process_->SetSoftwareBreakpoint(tid, address, static_cast<eSoftwareBreakPtAttr>(0), 0,
                                           vekx::Variant().Get(), opcode.Put(), &id);
  });
  return id;
}

void Process::ClearBreak(std::uint32_t id) {
  Unlocked([&] { return process_->ClearSoftwareBreakpoint(id); });
}

// Keeps the first stop, exit or kill of one process. Called on the library's thread; never
// touches Python.
class StopWatch : public vekx::EventSink<IEventDebug> {
 public:
  explicit StopWatch(std::uint32_t pid) : pid_(pid) {}

  HRESULT STDMETHODCALLTYPE OnStopNotification(IStopNotificationEvent* event) override {
    if (event == nullptr) return E_POINTER;
    vekx::ComPtr<IStopNotification> notification;
    if (FAILED(event->get_StopNotification(notification.Put())) || !notification) return S_OK;
    try {
      Keep(ReadStop(*notification.Get()));
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnProcessExit(IProcessExitEvent* event) override {
    if (event == nullptr) return E_POINTER;
    ULONG pid = 0;
    ULONG code = 0;
    if (FAILED(event->get_ProcessId(&pid)) || FAILED(event->get_ExitCode(&code))) return S_OK;
    Stop stop{"exit", pid};
    stop.exit_code = code;
    try {
      Keep(std::move(stop));
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnProcessKill(IProcessKillEvent* event) override {
    if (event == nullptr) return E_POINTER;
    ULONG pid = 0;
    if (FAILED(event->get_ProcessId(&pid))) return S_OK;
    try {
      Keep(Stop{"kill", pid});
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }

  // The outcome, waiting at most `seconds`.
  std::optional<Stop> Wait(double seconds) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                      [this] { return outcome_.has_value(); });
    return outcome_;
  }

 private:
  void Keep(Stop stop) {
    if (stop.pid != pid_) return;
    std::lock_guard lock(mutex_);
    if (!outcome_) outcome_ = std::move(stop);
    changed_.notify_all();
  }

  const std::uint32_t pid_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Stop> outcome_;  // guarded by mutex_
};

std::optional<Stop> Process::Resume(bool wait, double timeout) {
  if (wait && !(timeout > 0))
    Raise(Kind::kInvalidArgument, E_INVALIDARG, "the timeout must be a positive number of seconds");
  vekx::ComPtr<StopWatch> watch;
  IEventDebug* sink = nullptr;
  if (wait) {
    // Subscribed before resuming: the stop may follow at once.
    watch = vekx::MakeSink<StopWatch>(pid_);
    sink = static_cast<IEventDebug*>(watch.Get());
    Unlocked([&] { return target_->AdviseDebugEvents(sink); });
  }
  const HRESULT resumed = WithoutGil([&] {
    vekx::Variant failed;
    return process_->Resume(vekx::Variant().Get(), failed.Put());
  });
  std::optional<Stop> outcome;
  bool interrupted = false;
  if (SUCCEEDED(resumed) && watch) {
    // In slices, so that Ctrl+C is seen.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
    while (!outcome && std::chrono::steady_clock::now() < deadline) {
      const double left =
          std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
      outcome = WithoutGil([&] { return watch->Wait(std::min(0.2, left)); });
      if (!outcome && PyErr_CheckSignals() != 0) {
        interrupted = true;
        break;
      }
    }
  }
  // A failure no longer matters: the wait has ended.
  if (watch) WithoutGil([&] { return target_->UnadviseDebugEvents(sink); });
  if (interrupted) throw py::error_already_set();
  Check(resumed);
  if (wait && !outcome) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", timeout);
    Raise(
        Kind::kTimeout, KXAPI_TIMEOUT,
        "process " + std::to_string(pid_) + " neither stopped nor ended within " + seconds + " s");
  }
  return outcome;
}

void Process::Suspend() {
  Unlocked([&] {
    vekx::ComPtr<IProcessInfo> info;
    vekx::Variant threads;
    vekx::Variant failed;
    return process_->Suspend(info.Put(), threads.Put(), failed.Put());
  });
}

void Process::Kill() {
  Unlocked([&] { return process_->Kill(); });
}

std::vector<Thread> Process::Threads() {
  const vekx::Variant list = Get(*process_.Get(), &IProcess::get_ThreadInfoSnapshot);
  std::vector<Thread> threads;
  for (const auto& info : Library::Objects<IThreadInfo>(list.Get(), IID_IThreadInfo)) {
    const ULONG tid = Get(*info.Get(), &IThreadInfo::get_Id);
    threads.emplace_back(Get(*info.Get(), &IThreadInfo::get_ThreadInterface), tid);
  }
  return threads;
}

}  // namespace vekx_python
