#include "bridge.h"

#include <poll.h>

#include <cstdio>
#include <vector>

#include "stop_signals.h"
#include "xfer_documents.h"

namespace vesta_gdb {
namespace {

constexpr size_t kOutputChunk = 2048;
// How long the output of a process that ended must be quiet before the exit is reported.
constexpr int kOutputQuietMs = 300;

std::string Hex2(unsigned value) {
  char text[8];
  std::snprintf(text, sizeof text, "%02x", value & 0xFF);
  return text;
}

// The debug registers a stop on a hardware breakpoint is explained by.
constexpr std::uint32_t kDebugRegisterIds[] = {REG_ID_DR0, REG_ID_DR1, REG_ID_DR2,
                                               REG_ID_DR3, REG_ID_DR6, REG_ID_DR7};

const char* const kSupported =
    "PacketSize=40000;QStartNoAckMode+;swbreak+;hwbreak+;vContSupported+;"
    "qXfer:features:read+;qXfer:threads:read+;qXfer:libraries:read+;qXfer:exec-file:read+;"
    "qXfer:auxv:read+";

}  // namespace

Bridge::Bridge(TargetSession& session, Connection& connection)
    : session_(session), connection_(connection) {
  const auto threads = session_.Threads();
  stop_tid_ = threads.empty() ? session_.pid() : threads.front().tid;
  last_stop_ = "T05thread:" + HexNumber(stop_tid_) + ";";
}

int Bridge::Run() {
  std::vector<char> buffer(64 * 1024);
  while (!done_) {
    pollfd fds[2] = {{connection_.in_fd(), POLLIN, 0}, {session_.event_fd(), POLLIN, 0}};
    const int ready = poll(fds, 2, exit_pending_ ? kOutputQuietMs : -1);
    if (ready == 0 && exit_pending_) {
      exit_pending_ = false;
      running_ = false;
      Send(last_stop_);
      continue;
    }
    if (ready < 0) {
      if (TerminationRequested()) {
        EndProcess();
        break;
      }
      continue;
    }
    if (fds[1].revents & POLLIN) OnTargetEvents();
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      const size_t got = connection_.Read(buffer.data(), buffer.size());
      if (got == 0) {
        // The debugger went away without a word: what we started goes, what we found stays.
        EndProcess();
        break;
      }
      std::vector<FramingEvent> events;
      reader_.Feed(std::string_view(buffer.data(), got), events);
      for (FramingEvent& event : events) {
        if (done_) break;
        switch (event.kind) {
          case FramingEvent::Kind::kPacket:
            if (ack_mode_) connection_.Write("+");
            OnPacket(event.payload);
            break;
          case FramingEvent::Kind::kBadPacket:
            if (ack_mode_) connection_.Write("-");
            break;
          case FramingEvent::Kind::kInterrupt:
            OnInterrupt();
            break;
          case FramingEvent::Kind::kNack:
            if (ack_mode_ && !last_sent_.empty()) connection_.Write(last_sent_);
            break;
          case FramingEvent::Kind::kAck:
            break;
        }
      }
    }
  }
  return exit_status_;
}

void Bridge::EndProcess() {
  if (process_gone_) return;
  try {
    if (session_.attached()) {
      session_.Detach();
    } else {
      session_.Kill();
    }
  } catch (const LibraryError& error) {
    std::fprintf(stderr, "vesta-gdbserver: %s\n", error.what());
  }
  process_gone_ = true;
}

void Bridge::Send(const std::string& payload) {
  last_sent_ = Frame(payload);
  if (!connection_.Write(last_sent_)) done_ = true;
}

void Bridge::SendOutput(const std::string& text) {
  for (size_t at = 0; at < text.size(); at += kOutputChunk)
    Send("O" + HexEncode(std::string_view(text).substr(at, kOutputChunk)));
}

void Bridge::OnPacket(const std::string& payload) {
  const Request request = Decode(payload);
  std::optional<std::string> reply;
  try {
    reply = Answer(request);
  } catch (const LibraryError& error) {
    std::fprintf(stderr, "vesta-gdbserver: %s\n", error.what());
    reply = "E01";
  }
  if (reply) Send(*reply);
  if (request.kind == RequestKind::kStartNoAck) ack_mode_ = false;
}

void Bridge::OnTargetEvents() {
  for (const TargetEvent& event : session_.TakeEvents()) {
    switch (event.kind) {
      case TargetEvent::Kind::kOutput:
        if (running_) {
          SendOutput(event.text);
        } else {
          pending_output_ += event.text;
        }
        break;
      case TargetEvent::Kind::kStop:
        // A stop we did not wait for (another tool's suspend) shows at the next resume's end.
        if (!running_) break;
        running_ = false;
        registers_.clear();
        try {
          last_stop_ = StopReply(event.tid, event.reason, event.rip);
        } catch (const LibraryError& error) {
          std::fprintf(stderr, "vesta-gdbserver: %s\n", error.what());
          last_stop_ = "T05thread:" + HexNumber(event.tid) + ";";
        }
        Send(last_stop_);
        break;
      case TargetEvent::Kind::kExit:
      case TargetEvent::Kind::kKill:
        process_gone_ = true;
        last_stop_ = event.kind == TargetEvent::Kind::kExit ? "W" + Hex2(event.exit_code)
                                                            : "X" + Hex2(kGdbSigKill);
        exit_status_ = 0;
        exit_pending_ = running_;
        break;
    }
  }
}

void Bridge::OnInterrupt() {
  if (!running_ || interrupt_sent_ || process_gone_) return;
  interrupt_sent_ = true;
  try {
    session_.Suspend();
  } catch (const LibraryError& error) {
    // It may have stopped or ended on its own meanwhile: that event answers the debugger.
    std::fprintf(stderr, "vesta-gdbserver: %s\n", error.what());
    return;
  }
  // A suspension is not announced; a stop or an end that raced it is, and tells more.
  OnTargetEvents();
  if (!running_ || exit_pending_) return;
  running_ = false;
  registers_.clear();
  try {
    last_stop_ = StopReply(stop_tid_, STOP_REASON_SIGSUSPEND_PROCESS, 0);
  } catch (const LibraryError& error) {
    std::fprintf(stderr, "vesta-gdbserver: %s\n", error.what());
    last_stop_ = "T" + Hex2(kGdbSigInt) + "thread:" + HexNumber(stop_tid_) + ";";
  }
  Send(last_stop_);
}

std::string Bridge::StopReply(std::uint32_t tid, std::uint32_t reason, std::uint64_t rip) {
  if (tid == 0) tid = stop_tid_;
  stop_tid_ = tid;
  stop_rip_ = rip;
  const StopMeaning meaning = MeaningOf(reason);
  std::string reply =
      "T" + Hex2(static_cast<unsigned>(meaning.gdb_signal)) + "thread:" + HexNumber(tid) + ";";
  // The program counter, which the debugger needs first: from the stop itself when it says, so
  // that a breakpoint the debugger only counts costs no call; the rest when the debugger asks.
  if (rip != 0) {
    std::string bytes(8, '\0');
    for (size_t i = 0; i < 8; ++i)
      bytes[i] = static_cast<char>(rip >> (8 * i));
    reply += Hex2(kGdbRip) + ":" + HexEncode(bytes) + ";";
  } else {
    const RegisterWords& words = Registers(tid);
    for (std::uint32_t number : {kGdbRbp, kGdbRsp, kGdbRip})
      reply += Hex2(number) + ":" + HexEncode(*RegisterBytes(words, number)) + ";";
  }
  if (meaning.kind == StopKind::kSoftware) reply += "swbreak:;";
  if (meaning.kind == StopKind::kHardware) {
    const std::vector<std::uint32_t> ids(std::begin(kDebugRegisterIds),
                                         std::end(kDebugRegisterIds));
    RegisterWords debug = session_.GetRegisters(tid, ids);
    const std::uint64_t dr6 = debug[REG_ID_DR6][0];
    std::string why = "hwbreak:;";
    for (std::uint32_t index = 0; index < 4; ++index) {
      if ((dr6 >> index & 1) == 0) continue;
      const std::uint64_t address = debug[REG_ID_DR0 + index][0];
      for (const auto& [key, id] : hardware_) {
        const auto [type, at, kind] = key;
        static const char* const kWatch[] = {"", "", "watch", "rwatch", "awatch"};
        if (at == address && type >= 2) why = std::string(kWatch[type]) + ":" + HexNumber(at) + ";";
      }
    }
    reply += why;
  }
  return reply;
}

RegisterWords& Bridge::Registers(std::uint32_t tid) {
  const auto it = registers_.find(tid);
  if (it != registers_.end()) return it->second;
  return registers_[tid] = session_.GetRegisters(tid, LibraryRegisterIds());
}

std::uint32_t Bridge::RegisterThread() {
  return g_tid_ != 0 ? g_tid_ : stop_tid_;
}

std::optional<std::string> Bridge::Answer(const Request& request) {
  const bool alive = !process_gone_;
  switch (request.kind) {
    case RequestKind::kUnknown:
    case RequestKind::kMustReplyEmpty:
      return std::string();
    case RequestKind::kMalformed:
      return std::string("E01");
    case RequestKind::kSupported:
      return std::string(kSupported);
    case RequestKind::kStartNoAck:
      return std::string("OK");
    case RequestKind::kHaltReason:
      return last_stop_;
    case RequestKind::kResumeQuery:
      return std::string("vCont;c;C;s;S;t");
    case RequestKind::kAttached:
      return std::string(session_.attached() ? "1" : "0");
    case RequestKind::kCurrentThread:
      return "QC" + HexNumber(stop_tid_);
    case RequestKind::kXferRead:
      return Xfer(request);
    case RequestKind::kMonitor:
      return Monitor(request.data);
    default:
      break;
  }
  if (!alive) {
    if (request.kind == RequestKind::kKill || request.kind == RequestKind::kDetach) {
      done_ = true;
      if (request.kind == RequestKind::kKill && request.number == 0) return last_stop_;
      return std::string("OK");
    }
    if (request.kind == RequestKind::kResume) return last_stop_;
    return std::string("E01");
  }
  switch (request.kind) {
    case RequestKind::kReadRegisters:
      return HexEncode(AllRegisterBytes(Registers(RegisterThread())));
    case RequestKind::kReadRegister: {
      const auto bytes = RegisterBytes(Registers(RegisterThread()), request.number);
      return bytes ? HexEncode(*bytes) : std::string("E01");
    }
    case RequestKind::kWriteRegisters:
    case RequestKind::kWriteRegister: {
      const std::uint32_t tid = RegisterThread();
      RegisterWords words = Registers(tid);
      RegisterWords changed;
      std::optional<std::uint32_t> id;
      if (request.kind == RequestKind::kWriteRegister) {
        if (!StoreRegisterBytes(words, request.number, request.data, id)) return "E01";
        if (id) changed[*id] = words[*id];
      } else {
        size_t at = 0;
        for (std::uint32_t number = 0; number < GdbRegisters().size(); ++number) {
          const size_t size = GdbRegisters()[number].bits / 8;
          if (at + size > request.data.size()) break;  // a short G leaves the rest as it is
          if (!StoreRegisterBytes(words, number, std::string_view(request.data).substr(at, size),
                                  id)) {
            return "E01";
          }
          at += size;
          if (id && words[*id] != registers_[tid][*id]) changed[*id] = words[*id];
        }
      }
      registers_.erase(tid);
      if (tid == stop_tid_) stop_rip_ = 0;
      session_.SetRegisters(tid, changed);
      return "OK";
    }
    case RequestKind::kReadMemory:
      return ReadMemory(request.address, request.length);
    case RequestKind::kWriteMemory:
      if (!request.data.empty()) session_.WriteMemory(request.address, request.data);
      return "OK";
    case RequestKind::kInsertPoint:
    case RequestKind::kRemovePoint:
      return Point(request);
    case RequestKind::kResume:
      return ResumeProcess(request).empty() ? std::nullopt : std::optional<std::string>("E01");
    case RequestKind::kSetThread: {
      const std::uint32_t tid = request.thread.kind == ThreadRef::Kind::kId ? request.thread.id : 0;
      (request.thread_op == 'g' ? g_tid_ : c_tid_) = tid;
      return "OK";
    }
    case RequestKind::kThreadAlive:
      for (const ThreadEntry& thread : session_.Threads())
        if (request.thread.kind != ThreadRef::Kind::kId || thread.tid == request.thread.id)
          return "OK";
      return "E01";
    case RequestKind::kThreadInfoFirst: {
      std::string reply = "m";
      for (const ThreadEntry& thread : session_.Threads())
        reply += (reply.size() > 1 ? "," : "") + HexNumber(thread.tid);
      return reply.size() > 1 ? reply : "l";
    }
    case RequestKind::kThreadInfoNext:
      return "l";
    case RequestKind::kDetach:
      session_.Detach();
      process_gone_ = true;
      done_ = true;
      return "OK";
    case RequestKind::kKill:
      session_.Kill();
      process_gone_ = true;
      done_ = true;
      // gdb sends vKill and wants OK; lldb sends "k" and wants the exit.
      return request.number == 1 ? "OK" : "X" + Hex2(kGdbSigKill);
    default:
      return std::string();
  }
}

std::string Bridge::ReadBytes(std::uint64_t address, std::uint64_t length, std::uint32_t& bad) {
  std::string bytes = session_.ReadMemory(address, static_cast<std::uint32_t>(length), bad);
  for (auto it = software_.lower_bound(address);
       it != software_.end() && it->first - address < bytes.size(); ++it) {
    bytes[it->first - address] = static_cast<char>(it->second.original);
  }
  return bytes;
}

std::string Bridge::ReadMemory(std::uint64_t address, std::uint64_t length) {
  length = std::min<std::uint64_t>(length, (kPacketSize - 8) / 2);
  if (length == 0) return "";
  std::uint32_t bad = 0;
  std::string bytes = ReadBytes(address, length, bad);
  if (bad == 0) return HexEncode(bytes);
  // Some bytes could not be read, and the library does not say which: find the longest prefix
  // that reads whole, as a debugger expects a short answer to end where memory does.
  std::uint64_t good = 0;
  std::uint64_t tried = length;
  while (tried - good > 1) {
    const std::uint64_t middle = good + (tried - good) / 2;
    session_.ReadMemory(address, static_cast<std::uint32_t>(middle), bad);
    (bad == 0 ? good : tried) = middle;
  }
  if (good == 0) return "E01";
  bytes = ReadBytes(address, good, bad);
  return HexEncode(bytes);
}

std::string Bridge::Point(const Request& request) {
  const bool insert = request.kind == RequestKind::kInsertPoint;
  if (request.number == 0) {
    const auto it = software_.find(request.address);
    if (insert && it == software_.end()) {
      Software point{};
      point.id = session_.SetSoftwareBreakpoint(request.address, point.original);
      software_[request.address] = point;
    } else if (it != software_.end()) {
      // Removals wait for the next resume: a debugger takes a breakpoint out to step past it
      // and puts it back at once.
      it->second.removed = !insert;
    }
    return "OK";
  }
  // Z1 execute; Z2 write; Z3 read and Z4 access (the CPU watches reads with writes).
  static constexpr std::uint32_t kFlags[] = {0, HWBREAKPT_FLAG_BREAK_ON_EXECUTE,
                                             HWBREAKPT_FLAG_BREAK_ON_WRITE,
                                             HWBREAKPT_FLAG_BREAK_ON_READ, 3};
  const auto key = std::make_tuple(request.number, request.address, request.length);
  const auto it = hardware_.find(key);
  if (insert && it == hardware_.end()) {
    const auto size = static_cast<std::uint32_t>(request.number == 1 ? 1 : request.length);
    hardware_[key] = session_.SetHardwareBreakpoint(request.address, kFlags[request.number], size);
  } else if (!insert && it != hardware_.end()) {
    const std::uint32_t id = it->second;
    hardware_.erase(it);
    session_.ClearHardwareBreakpoint(id);
  }
  return "OK";
}

// Empty when the process runs (the stop reply comes later); else what went wrong.
std::string Bridge::ResumeProcess(const Request& request) {
  std::vector<std::uint32_t> step;
  bool go = false;
  for (const ResumeAction& action : request.actions) {
    if (action.op == 't') continue;
    go = true;
    if (action.op != 's') continue;
    std::uint32_t tid = action.thread.kind == ThreadRef::Kind::kId ? action.thread.id : 0;
    if (tid == 0) tid = c_tid_ != 0 ? c_tid_ : stop_tid_;
    step.push_back(tid);
  }
  if (!go) return "nothing to resume";
  ApplyRemovals(step);
  // All-stop: stepping one thread leaves the others where they stand, as scheduler-locking does.
  registers_.clear();
  interrupt_sent_ = false;
  running_ = true;
  if (!pending_output_.empty()) {
    SendOutput(pending_output_);
    pending_output_.clear();
  }
  try {
    session_.Resume(step);
  } catch (...) {
    running_ = false;
    throw;
  }
  return "";
}

void Bridge::ApplyRemovals(const std::vector<std::uint32_t>& step) {
  // Where the stepping thread stands, when that is known without asking: the stop said, and no
  // register has been written since.
  std::optional<std::uint64_t> stepping_at;
  if (step.size() == 1 && step.front() == stop_tid_) {
    const auto cached = registers_.find(stop_tid_);
    if (cached != registers_.end()) {
      stepping_at = cached->second[REG_ID_RIP][0];
    } else if (stop_rip_ != 0) {
      stepping_at = stop_rip_;
    }
  }
  for (auto it = software_.begin(); it != software_.end();) {
    if (!it->second.removed || (stepping_at && *stepping_at == it->first)) {
      ++it;
      continue;
    }
    const std::uint32_t id = it->second.id;
    it = software_.erase(it);
    session_.ClearSoftwareBreakpoint(id);
  }
}

std::string Bridge::Xfer(const Request& request) {
  std::string document;
  if (request.object == "features") {
    if (request.annex != "target.xml") return "E00";
    document = TargetDescription();
  } else if (request.object == "threads") {
    if (process_gone_) return "E01";
    document = ThreadsDocument(session_.Threads());
  } else if (request.object == "libraries") {
    if (process_gone_) return "E01";
    document = LibrariesDocument(session_.Modules(), session_.ExecutablePath());
  } else if (request.object == "auxv") {
    // Only the entry point, from which a debugger learns where a position-independent program
    // was loaded; then the end of the vector.
    if (process_gone_) return "E01";
    const std::uint64_t vector[] = {9 /* AT_ENTRY */, session_.EntryAddress(), 0, 0};
    document.assign(reinterpret_cast<const char*>(vector), sizeof vector);
  } else if (request.object == "exec-file") {
    document = session_.ExecutablePath();
  } else {
    return "";
  }
  return XferSlice(document, request.address, request.length);
}

std::string Bridge::Monitor(const std::string& command) {
  if (command == "debug-registers") {
    if (process_gone_) return "E01";
    const std::vector<std::uint32_t> ids(std::begin(kDebugRegisterIds),
                                         std::end(kDebugRegisterIds));
    RegisterWords words = session_.GetRegisters(RegisterThread(), ids);
    static const char* const kNames[] = {"dr0", "dr1", "dr2", "dr3", "dr6", "dr7"};
    std::string text;
    for (size_t i = 0; i < ids.size(); ++i)
      text += std::string(kNames[i]) + " 0x" + HexNumber(words[ids[i]][0]) + "\n";
    return HexEncode(text);
  }
  return HexEncode(
      "vesta-gdbserver monitor commands:\n"
      "  debug-registers  the current thread's DR0-DR3, DR6 and DR7\n");
}

}  // namespace vesta_gdb
