#include "request.h"

#include <optional>

#include "packet_framing.h"

namespace vesta_gdb {
namespace {

// A hexadecimal number of at most 16 digits taken off the front of `text`.
std::optional<std::uint64_t> TakeHex(std::string_view& text) {
  std::uint64_t value = 0;
  size_t digits = 0;
  while (digits < text.size() && HexDigitValue(text[digits]) >= 0) {
    if (digits == 16) return std::nullopt;
    value = value << 4 | static_cast<std::uint64_t>(HexDigitValue(text[digits]));
    ++digits;
  }
  if (digits == 0) return std::nullopt;
  text.remove_prefix(digits);
  return value;
}

bool TakeChar(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

std::optional<ThreadRef> TakeThread(std::string_view& text) {
  // The multiprocess form "p<pid>.<tid>": only the thread matters to a one-process bridge.
  if (TakeChar(text, 'p')) {
    if (TakeChar(text, '-')) {
      if (!TakeChar(text, '1')) return std::nullopt;
    } else if (!TakeHex(text)) {
      return std::nullopt;
    }
    if (!TakeChar(text, '.')) return ThreadRef{ThreadRef::Kind::kAll, 0};
  }
  if (TakeChar(text, '-')) {
    if (!TakeChar(text, '1')) return std::nullopt;
    return ThreadRef{ThreadRef::Kind::kAll, 0};
  }
  const auto id = TakeHex(text);
  if (!id || *id > UINT32_MAX) return std::nullopt;
  if (*id == 0) return ThreadRef{ThreadRef::Kind::kAny, 0};
  return ThreadRef{ThreadRef::Kind::kId, static_cast<std::uint32_t>(*id)};
}

Request Malformed(const char* problem) {
  Request request;
  request.kind = RequestKind::kMalformed;
  request.problem = problem;
  return request;
}

Request Simple(RequestKind kind) {
  Request request;
  request.kind = kind;
  return request;
}

// "addr,len" and the rest after it.
bool TakeRange(std::string_view& text, Request& request) {
  const auto address = TakeHex(text);
  if (!address || !TakeChar(text, ',')) return false;
  const auto length = TakeHex(text);
  if (!length) return false;
  request.address = *address;
  request.length = *length;
  return true;
}

Request DecodeMemoryWrite(std::string_view text, bool binary) {
  Request request;
  request.kind = RequestKind::kWriteMemory;
  if (!TakeRange(text, request) || !TakeChar(text, ':'))
    return Malformed("a memory write is addr,length:data");
  const bool decoded = binary ? UnescapeBinary(text, request.data) : HexDecode(text, request.data);
  if (!decoded || request.data.size() != request.length)
    return Malformed("the data of a memory write does not match its length");
  return request;
}

Request DecodePoint(std::string_view text, RequestKind kind) {
  Request request;
  request.kind = kind;
  const auto type = TakeHex(text);
  if (!type || *type > 4 || !TakeChar(text, ',') || !TakeRange(text, request))
    return Malformed("a breakpoint packet is type,addr,kind");
  // Conditions and commands after ';' are the target's to evaluate; we do not offer them.
  if (!text.empty() && text.front() != ';') return Malformed("junk after a breakpoint packet");
  request.number = static_cast<std::uint32_t>(*type);
  return request;
}

// c [addr], s [addr], C sig[;addr], S sig[;addr]: resuming at another address is not offered.
Request DecodeOldResume(char op, std::string_view text) {
  Request request;
  request.kind = RequestKind::kResume;
  ResumeAction action;
  action.op = static_cast<char>(op | 0x20);
  action.thread.kind = ThreadRef::Kind::kAny;  // the thread Hc chose
  if (op == 'C' || op == 'S') {
    const auto signal = TakeHex(text);
    if (!signal || *signal > 255) return Malformed("a signal is two hex digits");
    action.signal = static_cast<int>(*signal);
    if (!text.empty() && !TakeChar(text, ';')) return Malformed("junk after the signal");
  }
  if (!text.empty()) return Malformed("resuming at another address is not supported");
  request.actions.push_back(action);
  return request;
}

Request DecodeVCont(std::string_view text) {
  Request request;
  request.kind = RequestKind::kResume;
  while (!text.empty()) {
    if (!TakeChar(text, ';')) return Malformed("vCont actions are separated by ';'");
    if (text.empty()) return Malformed("an empty vCont action");
    ResumeAction action;
    const char op = text.front();
    text.remove_prefix(1);
    if (op == 'c' || op == 's' || op == 't') {
      action.op = op;
    } else if (op == 'C' || op == 'S') {
      action.op = static_cast<char>(op | 0x20);
      const auto signal = TakeHex(text);
      if (!signal || *signal > 255) return Malformed("a vCont signal is two hex digits");
      action.signal = static_cast<int>(*signal);
    } else {
      return Malformed("vCont offers c, C, s, S and t");
    }
    if (TakeChar(text, ':')) {
      const auto thread = TakeThread(text);
      if (!thread) return Malformed("a vCont thread is a hex id or -1");
      action.thread = *thread;
    }
    request.actions.push_back(action);
  }
  if (request.actions.empty()) return Malformed("vCont without actions");
  return request;
}

// qXfer:object:read:annex:offset,length
Request DecodeXfer(std::string_view text) {
  Request request;
  request.kind = RequestKind::kXferRead;
  const size_t object_end = text.find(':');
  if (object_end == std::string_view::npos) return Malformed("qXfer needs an object");
  request.object = std::string(text.substr(0, object_end));
  text.remove_prefix(object_end + 1);
  if (!text.starts_with("read:")) return Simple(RequestKind::kUnknown);  // writes: not offered
  text.remove_prefix(5);
  const size_t annex_end = text.find(':');
  if (annex_end == std::string_view::npos) return Malformed("qXfer needs an annex");
  request.annex = std::string(text.substr(0, annex_end));
  text.remove_prefix(annex_end + 1);
  if (!TakeRange(text, request) || !text.empty()) return Malformed("qXfer needs offset,length");
  return request;
}

Request DecodeQuery(std::string_view payload) {
  if (payload.starts_with("qSupported")) return Simple(RequestKind::kSupported);
  if (payload == "qfThreadInfo") return Simple(RequestKind::kThreadInfoFirst);
  if (payload == "qsThreadInfo") return Simple(RequestKind::kThreadInfoNext);
  if (payload == "qC") return Simple(RequestKind::kCurrentThread);
  if (payload == "qAttached" || payload.starts_with("qAttached:"))
    return Simple(RequestKind::kAttached);
  if (payload.starts_with("qXfer:")) return DecodeXfer(payload.substr(6));
  if (payload.starts_with("qRcmd,")) {
    Request request;
    request.kind = RequestKind::kMonitor;
    if (!HexDecode(payload.substr(6), request.data)) return Malformed("qRcmd takes hex");
    return request;
  }
  return Simple(RequestKind::kUnknown);
}

Request DecodeV(std::string_view payload) {
  if (payload == "vCont?") return Simple(RequestKind::kResumeQuery);
  if (payload.starts_with("vCont;") || payload == "vCont") return DecodeVCont(payload.substr(5));
  if (payload == "vMustReplyEmpty") return Simple(RequestKind::kMustReplyEmpty);
  if (payload.starts_with("vKill")) {
    Request request = Simple(RequestKind::kKill);
    request.number = 1;  // answered, unlike "k"
    return request;
  }
  return Simple(RequestKind::kUnknown);
}

}  // namespace

Request Decode(std::string_view payload) {
  if (payload.empty()) return Simple(RequestKind::kUnknown);
  const char command = payload.front();
  std::string_view text = payload.substr(1);
  switch (command) {
    case '?':
      return Simple(RequestKind::kHaltReason);
    case 'g':
      return text.empty() ? Simple(RequestKind::kReadRegisters) : Malformed("junk after g");
    case 'G': {
      Request request;
      request.kind = RequestKind::kWriteRegisters;
      if (!HexDecode(text, request.data)) return Malformed("G takes hex");
      return request;
    }
    case 'p': {
      Request request;
      request.kind = RequestKind::kReadRegister;
      const auto number = TakeHex(text);
      if (!number || *number > UINT32_MAX || !text.empty()) return Malformed("p takes a number");
      request.number = static_cast<std::uint32_t>(*number);
      return request;
    }
    case 'P': {
      Request request;
      request.kind = RequestKind::kWriteRegister;
      const auto number = TakeHex(text);
      if (!number || *number > UINT32_MAX || !TakeChar(text, '=') ||
          !HexDecode(text, request.data) || request.data.empty()) {
        return Malformed("P takes number=hex");
      }
      request.number = static_cast<std::uint32_t>(*number);
      return request;
    }
    case 'm': {
      Request request;
      request.kind = RequestKind::kReadMemory;
      if (!TakeRange(text, request) || !text.empty()) return Malformed("m takes addr,length");
      return request;
    }
    case 'M':
      return DecodeMemoryWrite(text, false);
    case 'X':
      return DecodeMemoryWrite(text, true);
    case 'Z':
      return DecodePoint(text, RequestKind::kInsertPoint);
    case 'z':
      return DecodePoint(text, RequestKind::kRemovePoint);
    case 'c':
    case 's':
    case 'C':
    case 'S':
      return DecodeOldResume(command, text);
    case 'H': {
      Request request;
      request.kind = RequestKind::kSetThread;
      if (text.empty() || (text.front() != 'g' && text.front() != 'c'))
        return Malformed("H takes g or c");
      request.thread_op = text.front();
      text.remove_prefix(1);
      const auto thread = TakeThread(text);
      if (!thread || !text.empty()) return Malformed("H takes a thread id");
      request.thread = *thread;
      return request;
    }
    case 'T': {
      Request request;
      request.kind = RequestKind::kThreadAlive;
      const auto thread = TakeThread(text);
      if (!thread || !text.empty()) return Malformed("T takes a thread id");
      request.thread = *thread;
      return request;
    }
    case 'D':
      return Simple(RequestKind::kDetach);
    case 'k':
      return Simple(RequestKind::kKill);
    case 'q':
      return DecodeQuery(payload);
    case 'Q':
      return payload == "QStartNoAckMode" ? Simple(RequestKind::kStartNoAck)
                                          : Simple(RequestKind::kUnknown);
    case 'v':
      return DecodeV(payload);
    default:
      return Simple(RequestKind::kUnknown);
  }
}

}  // namespace vesta_gdb
