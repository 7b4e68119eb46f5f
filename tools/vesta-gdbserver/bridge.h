#pragma once
// The conversation with one debugger: packets in, replies out, while the process runs or stands.
// All-stop: a resume waits for the process's next stop or end (or the debugger's interrupt), and
// only then is the stop reply sent; the target's console output goes out as "O" packets while it
// runs.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "connection.h"
#include "packet_framing.h"
#include "request.h"
#include "target_session.h"

namespace vesta_gdb {

// The packet size we offer: a memory read moves up to half of it (hex) in one answer.
inline constexpr size_t kPacketSize = 0x40000;

class Bridge {
 public:
  Bridge(TargetSession& session, Connection& connection);
  // Serves until the debugger detaches, kills or goes away. Returns the exit status.
  int Run();

 private:
  void OnPacket(const std::string& payload);
  // The reply to `request`; nullopt for none.
  std::optional<std::string> Answer(const Request& request);
  void Send(const std::string& payload);
  void SendOutput(const std::string& text);
  void OnTargetEvents();
  void OnInterrupt();

  std::string ResumeProcess(const Request& request);
  // `rip`: where the thread stands, when the stop said (0: ask the target).
  std::string StopReply(std::uint32_t tid, std::uint32_t reason, std::uint64_t rip);
  // Clears the breakpoints the debugger removed, but one under a thread about to step: the
  // target steps past a breakpoint itself, and the debugger puts it back right after the step.
  void ApplyRemovals(const std::vector<std::uint32_t>& step);
  std::string ReadMemory(std::uint64_t address, std::uint64_t length);
  std::string ReadBytes(std::uint64_t address, std::uint64_t length, std::uint32_t& bad);
  std::string Point(const Request& request);
  std::string Xfer(const Request& request);
  std::string Monitor(const std::string& command);
  RegisterWords& Registers(std::uint32_t tid);
  std::uint32_t RegisterThread();
  void EndProcess();

  TargetSession& session_;
  Connection& connection_;
  PacketReader reader_{kPacketSize};
  bool ack_mode_ = true;
  bool done_ = false;
  bool running_ = false;
  bool interrupt_sent_ = false;
  bool process_gone_ = false;
  // The process ended while running: its last output may still be on the way, so the exit reply
  // waits until the output has been quiet a moment.
  bool exit_pending_ = false;
  std::string last_sent_;
  std::string last_stop_;                             // the reply "?" repeats
  std::string pending_output_;                        // console output while the process stands
  std::uint32_t stop_tid_ = 0;                        // the thread of the last stop
  std::uint64_t stop_rip_ = 0;                        // where it stood, when the stop said
  std::uint32_t g_tid_ = 0;                           // Hg; 0 means the stop's thread
  std::uint32_t c_tid_ = 0;                           // Hc
  std::map<std::uint32_t, RegisterWords> registers_;  // per thread, until the next resume
  struct Software {
    std::uint32_t id;
    std::uint8_t original;
    bool removed;  // by the debugger; cleared on the target at the next resume
  };
  // address -> breakpoint; memory reads show the original byte, as the debugger expects of
  // breakpoints it inserted.
  std::map<std::uint64_t, Software> software_;
  // (type, address, kind) -> hardware breakpoint id
  std::map<std::tuple<std::uint32_t, std::uint64_t, std::uint64_t>, std::uint32_t> hardware_;
  int exit_status_ = 0;
};

}  // namespace vesta_gdb
