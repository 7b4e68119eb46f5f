// The bridge's packet layer without a target: framing, decoding, and the stop-reason table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_framing.h"
#include "request.h"
#include "stop_signals.h"
#include "vekxapi/vekxapi.h"

namespace vesta_gdb {
namespace {

using Kind = FramingEvent::Kind;

std::vector<FramingEvent> FeedAll(const std::vector<std::string>& pieces, size_t limit = 64) {
  PacketReader reader(limit);
  std::vector<FramingEvent> events;
  for (const std::string& piece : pieces)
    reader.Feed(piece, events);
  return events;
}

TEST(PacketFramingTest, ReaderCases) {
  const struct {
    const char* what;
    std::vector<std::string> pieces;
    std::vector<Kind> kinds;
    std::string first_payload;
  } cases[] = {
      {"whole packet", {"$g#67"}, {Kind::kPacket}, "g"},
      {"split anywhere", {"$m1", "0,4", "#", "2", "e"}, {Kind::kPacket}, "m10,4"},
      {"upper-case checksum digits", {"$qC#B4"}, {Kind::kPacket}, "qC"},
      {"bad checksum", {"$g#00"}, {Kind::kBadPacket}, ""},
      {"checksum not hex", {"$g#zz"}, {Kind::kBadPacket}, ""},
      {"over the limit", {"$" + std::string(65, 'a') + "#00"}, {Kind::kBadPacket}, ""},
      {"restart inside a packet", {"$gar$g#67"}, {Kind::kBadPacket, Kind::kPacket}, ""},
      {"acks, interrupt, noise", {"+-x\x03"}, {Kind::kAck, Kind::kNack, Kind::kInterrupt}, ""},
      {"0x03 inside a packet is data", {"$\x03#03"}, {Kind::kPacket}, "\x03"},
  };
  for (const auto& c : cases) {
    const auto events = FeedAll(c.pieces);
    std::vector<Kind> kinds;
    for (const auto& event : events)
      kinds.push_back(event.kind);
    EXPECT_EQ(kinds, c.kinds) << c.what;
    if (!c.first_payload.empty() && !events.empty()) {
      EXPECT_EQ(events[0].payload, c.first_payload) << c.what;
    }
  }
}

TEST(PacketFramingTest, FrameAndEscapeRoundTrip) {
  const std::string binary = std::string("a#b$c}d*e\0f", 11);
  const std::string escaped = EscapeBinary(binary);
  EXPECT_EQ(escaped.find_first_of("#$*"), std::string::npos);
  std::string back;
  ASSERT_TRUE(UnescapeBinary(escaped, back));
  EXPECT_EQ(back, binary);
  EXPECT_FALSE(UnescapeBinary("ab}", back)) << "an escape cut off";
  // What the reader frames back is what was framed.
  const auto events = FeedAll({Frame(escaped)});
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].payload, escaped);
}

TEST(RequestTest, DecodeCases) {
  const struct {
    const char* payload;
    RequestKind kind;
    std::uint64_t address = 0;
    std::uint64_t length = 0;
    std::uint32_t number = 0;
    std::string data = "";
  } cases[] = {
      {"mffffffffffffffff,1", RequestKind::kReadMemory, ~0ull, 1},
      {"m10000000000000000,1", RequestKind::kMalformed},  // 17 digits
      {"m10", RequestKind::kMalformed},
      {"m10,", RequestKind::kMalformed},
      {"m10,4x", RequestKind::kMalformed},
      {"M10,2:abcd", RequestKind::kWriteMemory, 0x10, 2, 0, "\xab\xcd"},
      {"M10,3:abcd", RequestKind::kMalformed},  // length and data disagree
      {"M10,2:abc", RequestKind::kMalformed},
      {"X10,2:}\x03}\x04", RequestKind::kWriteMemory, 0x10, 2, 0, "#$"},
      {"X10,0:", RequestKind::kWriteMemory, 0x10, 0},
      {"X10,1:}", RequestKind::kMalformed},
      {"Z0,401000,1", RequestKind::kInsertPoint, 0x401000, 1, 0},
      {"z2,404040,4", RequestKind::kRemovePoint, 0x404040, 4, 2},
      {"Z0,401000,1;cmd", RequestKind::kInsertPoint, 0x401000, 1, 0},
      {"Z5,1,1", RequestKind::kMalformed},
      {"Z0,1", RequestKind::kMalformed},
      {"p10", RequestKind::kReadRegister, 0, 0, 0x10},
      {"p", RequestKind::kMalformed},
      {"P10=0010400000000000", RequestKind::kWriteRegister, 0, 0, 0x10,
       std::string("\x00\x10\x40\x00\x00\x00\x00\x00", 8)},
      {"P10=", RequestKind::kMalformed},
      {"G0g", RequestKind::kMalformed},
      {"gx", RequestKind::kMalformed},
      {"qRcmd,6", RequestKind::kMalformed},
      {"qXfer:features:read:target.xml:0,ffb", RequestKind::kXferRead, 0, 0xffb},
      {"qXfer:features:read:target.xml", RequestKind::kMalformed},
      {"qXfer:features:write:target.xml:0:ab", RequestKind::kUnknown},
      {"vKill;1f", RequestKind::kKill, 0, 0, 1},
      {"k", RequestKind::kKill, 0, 0, 0},
      {"vFile:open:6a", RequestKind::kUnknown},
      {"", RequestKind::kUnknown},
      {"Hgx", RequestKind::kMalformed},
      {"Hx1", RequestKind::kMalformed},
      {"C", RequestKind::kMalformed},
      {"c401000", RequestKind::kMalformed},  // resuming elsewhere is not offered
      {"vCont;", RequestKind::kMalformed},
      {"vCont;x", RequestKind::kMalformed},
      {"vCont;s:", RequestKind::kMalformed},
  };
  for (const auto& c : cases) {
    const Request request = Decode(c.payload);
    EXPECT_EQ(request.kind, c.kind) << c.payload;
    if (request.kind == RequestKind::kMalformed || c.kind == RequestKind::kMalformed) continue;
    EXPECT_EQ(request.address, c.address) << c.payload;
    EXPECT_EQ(request.length, c.length) << c.payload;
    EXPECT_EQ(request.number, c.number) << c.payload;
    EXPECT_EQ(request.data, c.data) << c.payload;
  }
}

TEST(RequestTest, ThreadsAndResumeActions) {
  const struct {
    const char* payload;
    std::vector<std::string> actions;  // op, signal, thread ("all", "any" or the id)
  } cases[] = {
      {"vCont;c", {"c0all"}},
      {"vCont;s:4d2;c", {"s01234", "c0all"}},
      {"vCont;C0b:p2a.4d2", {"c111234"}},
      {"vCont;t:-1", {"t0all"}},
      {"vCont;S05:p-1.-1", {"s5all"}},
      {"c", {"c0any"}},
      {"S0b", {"s11any"}},
  };
  for (const auto& c : cases) {
    const Request request = Decode(c.payload);
    ASSERT_EQ(request.kind, RequestKind::kResume) << c.payload << " " << request.problem;
    std::vector<std::string> actions;
    for (const ResumeAction& action : request.actions) {
      const std::string thread = action.thread.kind == ThreadRef::Kind::kAll ? "all"
                                 : action.thread.kind == ThreadRef::Kind::kAny
                                     ? "any"
                                     : std::to_string(action.thread.id);
      actions.push_back(std::string(1, action.op) + std::to_string(action.signal) + thread);
    }
    EXPECT_EQ(actions, c.actions) << c.payload;
  }
  const Request select = Decode("Hg4d2");
  EXPECT_EQ(select.thread_op, 'g');
  EXPECT_EQ(select.thread.id, 1234u);
  EXPECT_EQ(Decode("Hc-1").thread.kind, ThreadRef::Kind::kAll);
  EXPECT_EQ(Decode("Hg0").thread.kind, ThreadRef::Kind::kAny);
}

TEST(StopSignalsTest, TableRows) {
  const struct {
    std::int64_t reason;  // where an enum's type is int, the large constants are negative
    int signal;
    StopKind kind;
  } cases[] = {
      {STOP_REASON_SIGSEGV, 11, StopKind::kSignal},
      {STOP_REASON_SIGUSR1, 30, StopKind::kSignal},   // the target's 30 is GDB's 30 too
      {STOP_REASON_SIGINFO, 142, StopKind::kSignal},  // GDB's 29 is SIGLOST
      {STOP_REASON_SIGTHR, 37, StopKind::kSignal},
      {STOP_REASON_SIGSWBRKPT, kGdbSigTrap, StopKind::kSoftware},
      {STOP_REASON_SIGHWBRKPT, kGdbSigTrap, StopKind::kHardware},
      {STOP_REASON_SIGSUSPEND_PROCESS, kGdbSigInt, StopKind::kInterrupt},
      {STOP_REASON_SIGSUSPEND_THREAD, kGdbSigInt, StopKind::kInterrupt},
      {STOP_REASON_DL_STOP_INIT, kGdbSigTrap, StopKind::kSignal},
      {STOP_REASON_LIBC_ABORT, kGdbSigAbrt, StopKind::kSignal},
      {STOP_REASON_LIBC_EXIT_SUCCESS, kGdbSigTrap, StopKind::kSignal},
      {STOP_REASON_SYSTEM_USER_DEBUG_REQUEST_ASYNC, kGdbSigInt, StopKind::kInterrupt},
      {STOP_REASON_SYSTEM_STACK_CHECK_FAILURE, kGdbSigSegv, StopKind::kSignal},
      {STOP_REASON_GPU_FAULT_ASYNC, kGdbSigBus, StopKind::kSignal},
      {STOP_REASON_SLV_MUTEX_UNLOCK_NOT_OWNED, kGdbSigTrap, StopKind::kSignal},
      {0, kGdbSigUnknown, StopKind::kSignal},
      {0x1234, kGdbSigUnknown, StopKind::kSignal},
  };
  for (const auto& c : cases) {
    const std::uint32_t reason = static_cast<std::uint32_t>(c.reason);
    EXPECT_EQ(MeaningOf(reason).gdb_signal, c.signal) << std::hex << reason;
    EXPECT_EQ(MeaningOf(reason).kind, c.kind) << std::hex << reason;
  }
}

}  // namespace
}  // namespace vesta_gdb
