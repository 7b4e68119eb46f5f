#pragma once
// One debugger packet decoded into what it asks, with no target in sight: the bridge acts on a
// Request, and the fuzzer drives Decode with whatever bytes it likes. A packet that names a known
// command but does not parse is kMalformed (answered with an error); one we do not know is
// kUnknown (answered with the empty reply that means "unsupported").

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vesta_gdb {

// A thread as packets name it: "-1" all, "0" any, else an id ("p1.2" gives the thread part).
struct ThreadRef {
  enum class Kind { kAll, kAny, kId };
  Kind kind = Kind::kAny;
  std::uint32_t id = 0;
};

struct ResumeAction {
  char op = 'c';  // 'c' continue, 's' step, 't' stop
  int signal = 0;
  ThreadRef thread{ThreadRef::Kind::kAll, 0};
};

enum class RequestKind {
  kUnknown,
  kMalformed,
  kSupported,        // qSupported
  kStartNoAck,       // QStartNoAckMode
  kHaltReason,       // ?
  kReadRegisters,    // g
  kWriteRegisters,   // G data
  kReadRegister,     // p n
  kWriteRegister,    // P n=data
  kReadMemory,       // m addr,len
  kWriteMemory,      // M addr,len:hex and X addr,len:binary (data decoded)
  kInsertPoint,      // Z type,addr,kind
  kRemovePoint,      // z type,addr,kind
  kResume,           // c, s, C, S and vCont;...: actions
  kResumeQuery,      // vCont?
  kSetThread,        // H op thread
  kThreadAlive,      // T thread
  kThreadInfoFirst,  // qfThreadInfo
  kThreadInfoNext,   // qsThreadInfo
  kCurrentThread,    // qC
  kAttached,         // qAttached
  kDetach,           // D
  kKill,             // k and vKill
  kXferRead,         // qXfer:object:read:annex:offset,length
  kMonitor,          // qRcmd,hex (command decoded)
  kMustReplyEmpty,   // vMustReplyEmpty
};

struct Request {
  RequestKind kind = RequestKind::kUnknown;
  std::uint64_t address = 0;  // memory, points; xfer offset
  std::uint64_t length = 0;   // memory length, point kind; xfer length
  std::uint32_t number = 0;   // register number, point type; 1 for vKill
  char thread_op = 0;         // H: 'g' or 'c'
  ThreadRef thread;           // H, T
  std::string data;           // bytes to write; the monitor command
  std::string object;         // xfer object ("features", "threads", ...)
  std::string annex;          // xfer annex ("target.xml")
  std::vector<ResumeAction> actions;
  std::string problem;  // kMalformed: why
};

// `payload` as the framing delivered it (escapes still in). Never throws.
Request Decode(std::string_view payload);

}  // namespace vesta_gdb
