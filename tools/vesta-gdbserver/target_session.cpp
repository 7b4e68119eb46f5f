#include "target_session.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <thread>

#include "vekxapi/event_sink.h"
#include "vekxapi/library.h"

namespace vesta_gdb {
namespace {

// The interface generation this tool is written against.
constexpr ULONG kInterfaceGeneration = 21;
// LOAD_PROCESS's flag: stop every thread at the entry point.
constexpr ULONG kStopAtEntry = 0x1;

TargetEvent EventOf(TargetEvent::Kind kind) {
  TargetEvent event;
  event.kind = kind;
  return event;
}

std::vector<vekx::ComPtr<ITarget>> TargetsIn(const vekx::Variant& list) {
  return Library::Objects<ITarget>(list.Get(), IID_ITarget);
}

}  // namespace

// Events of every process, tagged with their pid, behind a mutex; a pipe's read end is readable
// while any wait. The library's notification thread pushes, the bridge's thread takes.
class EventQueue {
 public:
  EventQueue() {
    if (pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0) fds_[0] = fds_[1] = -1;
  }
  ~EventQueue() {
    for (int fd : fds_)
      if (fd >= 0) close(fd);
  }
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  void Push(std::uint32_t pid, TargetEvent event) {
    std::lock_guard lock(mutex_);
    events_.emplace_back(pid, std::move(event));
    const char byte = 1;
    if (fds_[1] >= 0) (void)!write(fds_[1], &byte, 1);
    changed_.notify_all();
  }
  std::vector<TargetEvent> Take(std::uint32_t pid) {
    std::lock_guard lock(mutex_);
    char drain[64];
    while (fds_[0] >= 0 && read(fds_[0], drain, sizeof drain) > 0) {
    }
    std::vector<TargetEvent> taken;
    for (auto& [owner, event] : events_)
      if (owner == pid) taken.push_back(std::move(event));
    events_.clear();
    return taken;
  }
  // Waits up to `limit` for a stop of `pid` and removes it.
  bool TakeStop(std::uint32_t pid, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    bool found = false;
    changed_.wait_for(lock, limit, [&] {
      for (auto it = events_.begin(); it != events_.end(); ++it) {
        if (it->first == pid && it->second.kind == TargetEvent::Kind::kStop) {
          events_.erase(it);
          found = true;
          return true;
        }
      }
      return false;
    });
    return found;
  }
  int fd() const { return fds_[0]; }

 private:
  int fds_[2];
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::pair<std::uint32_t, TargetEvent>> events_;  // guarded by mutex_
};

// Runs on the library's notification thread: nothing may escape from there.
class TargetSession::Sink : public vekx::EventSink<IEventDebug, IEventConsoleOutput> {
 public:
  explicit Sink(std::shared_ptr<EventQueue> queue) : queue_(std::move(queue)) {}

  HRESULT STDMETHODCALLTYPE OnStopNotification(IStopNotificationEvent* event) override {
    return Guarded(event, [&] {
      const auto stop = Library::Read(*event, &IStopNotificationEvent::get_StopNotification);
      if (!stop) return;
      const auto process = Library::Read(*stop.Get(), &IStopNotification::get_ProcessInfo);
      if (!process) return;
      TargetEvent out = EventOf(TargetEvent::Kind::kStop);
      out.tid = Library::Read(*stop.Get(), &IStopNotification::get_ThreadId);
      if (const auto reason = Library::Read(*process.Get(), &IProcessInfo::get_StopReason))
        out.reason = Library::Read(*reason.Get(), &IStopReason::get_Code);
      // The thread's own reason, when the stop's list has it, is the more precise one.
      const vekx::Variant threads = Library::Read(*stop.Get(), &IStopNotification::get_Threads);
      for (const auto& thread : Library::Objects<IThreadInfo2>(threads.Get(), IID_IThreadInfo2)) {
        if (Library::Read(*thread.Get(), &IThreadInfo::get_Id) != out.tid) continue;
        out.rip = Library::Read(*thread.Get(), &IThreadInfo2::get_RIP);
        if (const auto reason = Library::Read(*thread.Get(), &IThreadInfo::get_StopReason)) {
          const std::uint32_t code = Library::Read(*reason.Get(), &IStopReason::get_Code);
          if (code != 0) out.reason = code;
        }
      }
      queue_->Push(Library::Read(*process.Get(), &IProcessInfo::get_Id), std::move(out));
    });
  }
  HRESULT STDMETHODCALLTYPE OnProcessExit(IProcessExitEvent* event) override {
    return Guarded(event, [&] {
      TargetEvent out = EventOf(TargetEvent::Kind::kExit);
      out.exit_code = Library::Read(*event, &IProcessExitEvent::get_ExitCode);
      queue_->Push(Library::Read(*event, &IProcessExitEvent::get_ProcessId), std::move(out));
    });
  }
  HRESULT STDMETHODCALLTYPE OnProcessKill(IProcessKillEvent* event) override {
    return Guarded(event, [&] {
      queue_->Push(Library::Read(*event, &IProcessKillEvent::get_ProcessId),
                   EventOf(TargetEvent::Kind::kKill));
    });
  }
  HRESULT STDMETHODCALLTYPE OnConsoleOutput(IConsoleOutputEvent* event) override {
    return Guarded(event, [&] {
      TargetEvent out = EventOf(TargetEvent::Kind::kOutput);
      out.text = Library::Read(*event, &IConsoleOutputEvent::get_Text);
      queue_->Push(Library::Read(*event, &IConsoleOutputEvent::get_ProcessId), std::move(out));
    });
  }

 private:
  template <class Event, class Body>
  static HRESULT Guarded(Event* event, Body body) noexcept {
    if (event == nullptr) return E_POINTER;
    try {
      body();
      return S_OK;
    } catch (...) {
      return E_FAIL;
    }
  }

  std::shared_ptr<EventQueue> queue_;
};

TargetSession::TargetSession(const std::string& spec) : queue_(std::make_shared<EventQueue>()) {
  Check(VekxCreateRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(api_.Put())));
  Check(api_->CheckCompatibility(kInterfaceGeneration));
  ULONG handle = 0;
  const char* end = spec.data() + spec.size();
  if (const auto [stop, error] = std::from_chars(spec.data(), end, handle);
      !spec.empty() && error == std::errc() && stop == end) {
    vekx::Variant list;
    Check(api_->get_Targets(list.Put()));
    for (auto& target : TargetsIn(list)) {
      ULONG each = 0;
      Check(target->get_Handle(&each));
      if (each == handle) target_ = std::move(target);
    }
  }
  const vekx::Bstr text = vekx::Bstr::FromUtf8(spec);
  for (auto lookup : {&IVEKXAPI12::GetTargetsByHost, &IVEKXAPI12::GetTargetsByName}) {
    if (target_) break;
    vekx::Variant list;
    Check((api_.Get()->*lookup)(text.Get(), list.Put()));
    auto targets = TargetsIn(list);
    if (targets.size() == 1) target_ = std::move(targets.front());
    if (targets.size() > 1)
      throw LibraryError(S_OK, "several targets are named '" + spec + "': name one by its handle");
  }
  // A kit the server does not know yet is added, as its host name.
  if (!target_) Check(api_->AddTarget(text.Get(), target_.Put()));
  Subscribe();
}

TargetSession::~TargetSession() {
  if (target_ && sink_) {
    target_->UnadviseDebugEvents(static_cast<IEventDebug*>(sink_.Get()));
    target_->UnadviseConsoleOutputEvents(static_cast<IEventConsoleOutput*>(sink_.Get()));
  }
  threads_.clear();
  process_.Reset();
  target_.Reset();
  if (api_) api_->Dispose();
}

void TargetSession::Subscribe() {
  sink_ = vekx::MakeSink<Sink>(queue_);
  Check(target_->AdviseDebugEvents(static_cast<IEventDebug*>(sink_.Get())));
  Check(target_->AdviseConsoleOutputEvents(static_cast<IEventConsoleOutput*>(sink_.Get())));
}

void TargetSession::Load(const std::string& path, const std::vector<std::string>& args,
                         const std::string& cwd) {
  vekx::ComPtr<ITarget12> loader;
  Check(target_.QueryInto(IID_ITarget12, loader));
  // A file of this machine is loaded from the host; any other path names one of the kit's.
  const bool on_host = access(path.c_str(), F_OK) == 0;
  SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(args.size()));
  if (array == nullptr) Check(E_OUTOFMEMORY);
  vekx::Variant arg_list;
  VARIANT* slot = arg_list.Put();
  slot->vt = VT_ARRAY | VT_BSTR;
  slot->parray = array;  // owned by arg_list from here
  for (LONG i = 0; i < static_cast<LONG>(args.size()); ++i) {
    const vekx::Bstr each = vekx::Bstr::FromUtf8(args[static_cast<size_t>(i)]);
    Check(SafeArrayPutElement(array, &i, each.Get()));
  }
  Check(loader->LoadProcessArgv(on_host ? DEVICE_HOST : DEVICE_APP,
                                vekx::Bstr::FromUtf8(path).Get(), kStopAtEntry, 0, arg_list.Get(),
                                vekx::Bstr::FromUtf8(cwd).Get(), process_.Put()));
  pid_ = Library::Read(*process_.Get(), &IProcess::get_Id);
  path_ = path;
  // The stop at the entry point is announced too; it is not news to the debugger.
  queue_->TakeStop(pid_, std::chrono::seconds(5));
}

void TargetSession::Attach(std::uint32_t pid) {
  vekx::Variant list;
  Check(target_->get_ProcessInfoSnapshot(list.Put()));
  for (const auto& info : Library::Objects<IProcessInfo>(list.Get(), IID_IProcessInfo)) {
    if (Library::Read(*info.Get(), &IProcessInfo::get_Id) != pid) continue;
    process_ = Library::Read(*info.Get(), &IProcessInfo::get_ProcessInterface);
    path_ = Library::Read(*info.Get(), &IProcessInfo::get_Path);
  }
  if (!process_) throw LibraryError(S_OK, "the target has no process " + std::to_string(pid));
  pid_ = pid;
  Check(process_->Attach(0));
  attached_ = true;
  Suspend();
}

std::string TargetSession::ExecutablePath() {
  return path_;
}

int TargetSession::event_fd() const {
  return queue_->fd();
}

std::vector<TargetEvent> TargetSession::TakeEvents() {
  return queue_->Take(pid_);
}

std::vector<ThreadEntry> TargetSession::Threads() {
  vekx::Variant list;
  Check(process_->get_ThreadInfoSnapshot(list.Put()));
  std::vector<ThreadEntry> threads;
  threads_.clear();
  for (const auto& info : Library::Objects<IThreadInfo>(list.Get(), IID_IThreadInfo)) {
    const std::uint32_t tid = Library::Read(*info.Get(), &IThreadInfo::get_Id);
    threads.push_back({tid, Library::Read(*info.Get(), &IThreadInfo::get_Name)});
    threads_[tid] = Library::Read(*info.Get(), &IThreadInfo::get_ThreadInterface);
  }
  return threads;
}

vekx::ComPtr<IThread> TargetSession::ThreadObject(std::uint32_t tid) {
  if (threads_.find(tid) == threads_.end()) Threads();
  const auto it = threads_.find(tid);
  if (it == threads_.end() || !it->second)
    throw LibraryError(S_OK,
                       "process " + std::to_string(pid_) + " has no thread " + std::to_string(tid));
  return it->second;
}

RegisterWords TargetSession::GetRegisters(std::uint32_t tid,
                                          const std::vector<std::uint32_t>& ids) {
  const auto thread = ThreadObject(tid);
  const vekx::Variant id_array = Library::Array(VT_I4, ids.data(), ids.size());
  vekx::Variant values;
  Check(thread->GetRegisters(id_array.Get(), values.Put()));
  const auto words = Library::Values<std::uint64_t>(values.Get());
  if (words.size() != ids.size() * 4)
    throw LibraryError(S_OK, "the target answered the wrong number of register words");
  RegisterWords result;
  for (size_t i = 0; i < ids.size(); ++i)
    result[ids[i]] = {words[4 * i], words[4 * i + 1], words[4 * i + 2], words[4 * i + 3]};
  return result;
}

void TargetSession::SetRegisters(std::uint32_t tid, const RegisterWords& words) {
  if (words.empty()) return;
  std::vector<std::uint32_t> ids;
  std::vector<std::uint64_t> values;
  for (const auto& [id, value] : words) {
    ids.push_back(id);
    values.insert(values.end(), value.begin(), value.end());
  }
  const vekx::Variant id_array = Library::Array(VT_I4, ids.data(), ids.size());
  const vekx::Variant value_array = Library::Array(VT_UI8, values.data(), values.size());
  Check(ThreadObject(tid)->SetRegisters(id_array.Get(), value_array.Get()));
}

std::string TargetSession::ReadMemory(std::uint64_t address, std::uint32_t length,
                                      std::uint32_t& bad) {
  ULONG bad_count = 0;
  vekx::Variant buffer;
  Check(process_->GetMemory(address, length, &bad_count, buffer.Put()));
  bad = bad_count;
  const auto bytes = Library::Values<std::uint8_t>(buffer.Get());
  return std::string(bytes.begin(), bytes.end());
}

void TargetSession::WriteMemory(std::uint64_t address, const std::string& bytes) {
  const vekx::Variant buffer = Library::Array(VT_UI1, bytes.data(), bytes.size());
  ULONG written = 0;
  Check(process_->SetMemory(address, buffer.Get(), &written));
  if (written != bytes.size())
    throw LibraryError(S_OK, "the target wrote " + std::to_string(written) + " of " +
                                 std::to_string(bytes.size()) + " bytes");
}

std::uint32_t TargetSession::SetSoftwareBreakpoint(std::uint64_t address, std::uint8_t& original) {
  vekx::Variant no_script;
  vekx::Variant replaced;
  ULONG id = 0;
  Check(process_->SetSoftwareBreakpoint(0, address, static_cast<eSoftwareBreakPtAttr>(0), 0,
                                        no_script.Get(), replaced.Put(), &id));
  const auto bytes = Library::Values<std::uint8_t>(replaced.Get());
  original = bytes.empty() ? 0 : bytes.front();
  return id;
}

void TargetSession::ClearSoftwareBreakpoint(std::uint32_t id) {
  Check(process_->ClearSoftwareBreakpoint(id));
}

std::uint32_t TargetSession::SetHardwareBreakpoint(std::uint64_t address, std::uint32_t flags,
                                                   std::uint32_t size) {
  ULONG id = 0;
  Check(process_->SetHardwareBreakpoint(address, static_cast<eHardwareBreakPtFlags>(flags), size,
                                        &id));
  return id;
}

void TargetSession::ClearHardwareBreakpoint(std::uint32_t id) {
  Check(process_->ClearHardwareBreakpoint(id));
}

void TargetSession::Resume(const std::vector<std::uint32_t>& step) {
  vekx::Variant threads;
  if (!step.empty()) threads = Library::Array(VT_UI4, step.data(), step.size());
  vekx::Variant failed;
  Check(process_->Resume(threads.Get(), failed.Put()));
  if (!Library::Values<std::uint32_t>(failed.Get()).empty())
    throw LibraryError(S_OK, "the target could not start every thread");
}

void TargetSession::Suspend() {
  vekx::ComPtr<IProcessInfo> info;
  vekx::Variant threads;
  vekx::Variant failed;
  Check(process_->Suspend(info.Put(), threads.Put(), failed.Put()));
}

void TargetSession::Kill() {
  Check(process_->Kill());
}

void TargetSession::Detach() {
  Check(process_->Detach(0));
}

std::uint64_t TargetSession::EntryAddress() {
  vekx::Variant list;
  Check(target_->get_ProcessInfoSnapshot(list.Put()));
  for (const auto& info : Library::Objects<IProcessInfo>(list.Get(), IID_IProcessInfo)) {
    if (Library::Read(*info.Get(), &IProcessInfo::get_Id) == pid_)
      return Library::Read(*info.Get(), &IProcessInfo::get_Entry);
  }
  throw LibraryError(S_OK, "the target no longer lists process " + std::to_string(pid_));
}

std::vector<ModuleEntry> TargetSession::Modules() {
  vekx::Variant list;
  Check(process_->get_Modules(list.Put()));
  std::vector<ModuleEntry> modules;
  for (const auto& module : Library::Objects<IModule>(list.Get(), IID_IModule)) {
    ModuleEntry entry{Library::Read(*module.Get(), &IModule::get_LoadPath), 0};
    const vekx::Variant segments = Library::Read(*module.Get(), &IModule::get_Segments);
    bool first = true;
    for (const auto& segment : Library::Objects<ISegmentInfo>(segments.Get(), IID_ISegmentInfo)) {
      const std::uint64_t base = Library::Read(*segment.Get(), &ISegmentInfo::get_BaseAddress);
      if (first || base < entry.base) entry.base = base;
      first = false;
    }
    modules.push_back(std::move(entry));
  }
  return modules;
}

}  // namespace vesta_gdb
