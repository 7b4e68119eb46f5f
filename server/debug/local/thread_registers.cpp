#include "server/debug/local/thread_registers.h"

#include <elf.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "debug/register_names.h"
#include "platform/wide_string.h"
#include "server/debug/reporting.h"
#include "server/debug/xsave_layout.h"

namespace qv::server {
namespace {

// The XSAVE components a thread's area is read and written with.
constexpr uint64_t kX87SseAvx = 0x7;
constexpr size_t kXsaveMax = 16384;

// The general registers in id order (index within the group), or nullptr for ids without one.
unsigned long long user_regs_struct::*GeneralField(uint32_t index) {
  static constexpr unsigned long long user_regs_struct::*kFields[] = {
      &user_regs_struct::rax, &user_regs_struct::rcx, &user_regs_struct::rdx,
      &user_regs_struct::rbx, &user_regs_struct::rsp, &user_regs_struct::rbp,
      &user_regs_struct::rsi, &user_regs_struct::rdi, &user_regs_struct::r8,
      &user_regs_struct::r9,  &user_regs_struct::r10, &user_regs_struct::r11,
      &user_regs_struct::r12, &user_regs_struct::r13, &user_regs_struct::r14,
      &user_regs_struct::r15};
  if (index < std::size(kFields)) return kFields[index];
  if (index == 0x12) return &user_regs_struct::rip;
  if (index == 0x15) return &user_regs_struct::eflags;
  return nullptr;  // trapno and err (0x13, 0x14) are the kernel's, not the thread's
}

Status Refused(pid_t tid, const char* what) {
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_THREAD_STATUS,
                      u"the " + platform::Utf8ToUtf16(what) + u" of thread " +
                          Decimal(static_cast<uint64_t>(tid)) + u" cannot be reached (" +
                          platform::Utf8ToUtf16(std::strerror(errno)) + u")");
}

Status UnknownId(uint32_t id) {
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_REG_INDEX, u"no register has the id " + Hex(id));
}

size_t DebugOffset(uint32_t index) {
  return offsetof(struct user, u_debugreg) + index * sizeof(unsigned long);
}

// What one thread's registers are, fetched group by group as ids need them, and written back
// group by group once changed.
class RegisterFile {
 public:
  explicit RegisterFile(pid_t tid) : tid_(tid) {}

  Status General(user_regs_struct*& regs) {
    if (!have_general_) {
      if (ptrace(PTRACE_GETREGS, tid_, nullptr, &general_) != 0) {
        return Refused(tid_, "general registers");
      }
      have_general_ = true;
    }
    regs = &general_;
    return Status::Ok();
  }

  // The FXSAVE image and, with XSAVE, the upper YMM halves (null without it).
  Status Floating(user_fpregs_struct*& legacy, uint8_t*& ymm_upper) {
    if (!have_floating_) {
      xsave_.assign(kXsaveMax, 0);
      iovec area{xsave_.data(), xsave_.size()};
      if (ptrace(PTRACE_GETREGSET, tid_, reinterpret_cast<void*>(NT_X86_XSTATE), &area) == 0 &&
          area.iov_len > kYmmUpperOffset + 256) {
        xsave_.resize(area.iov_len);
        uint64_t present = 0;
        std::memcpy(&present, xsave_.data() + kXstateBvOffset, sizeof present);
        // A component in its initial state is zero, whatever the area holds for it.
        if ((present & 4) == 0) std::memset(xsave_.data() + kYmmUpperOffset, 0, 256);
        has_xsave_ = true;
      } else {
        xsave_.assign(sizeof(user_fpregs_struct), 0);
        if (ptrace(PTRACE_GETFPREGS, tid_, nullptr, xsave_.data()) != 0) {
          return Refused(tid_, "floating-point registers");
        }
      }
      have_floating_ = true;
    }
    legacy = reinterpret_cast<user_fpregs_struct*>(xsave_.data());
    ymm_upper = has_xsave_ ? xsave_.data() + kYmmUpperOffset : nullptr;
    return Status::Ok();
  }

  Status Flush() {
    if (general_dirty_ && ptrace(PTRACE_SETREGS, tid_, nullptr, &general_) != 0) {
      return Refused(tid_, "general registers");
    }
    if (!floating_dirty_) return Status::Ok();
    if (has_xsave_) {
      uint64_t present = 0;
      std::memcpy(&present, xsave_.data() + kXstateBvOffset, sizeof present);
      present |= kX87SseAvx;
      std::memcpy(xsave_.data() + kXstateBvOffset, &present, sizeof present);
      iovec area{xsave_.data(), xsave_.size()};
      if (ptrace(PTRACE_SETREGSET, tid_, reinterpret_cast<void*>(NT_X86_XSTATE), &area) != 0) {
        return Refused(tid_, "floating-point registers");
      }
    } else if (ptrace(PTRACE_SETFPREGS, tid_, nullptr, xsave_.data()) != 0) {
      return Refused(tid_, "floating-point registers");
    }
    return Status::Ok();
  }

  // The four words of `id`, read (`write` null) or written from `write`.
  Status Access(uint32_t id, uint64_t* words, const uint64_t* write) {
    const uint32_t group = id & 0xFFFF0000;
    const uint32_t index = id & 0xFFFF;
    if (RegisterNameOf(id).empty()) return UnknownId(id);
    if (group == kGeneralRegisters || group == kFsBaseRegister) {
      user_regs_struct* regs = nullptr;
      if (Status status = General(regs); !status.ok()) return status;
      unsigned long long user_regs_struct::*field =
          group == kFsBaseRegister ? &user_regs_struct::fs_base : GeneralField(index);
      if (field == nullptr) {
        if (write != nullptr) return ReadOnly(id);
        return Status::Ok();
      }
      if (write != nullptr) {
        regs->*field = write[0];
        general_dirty_ = true;
      } else {
        words[0] = regs->*field;
      }
      return Status::Ok();
    }
    if (group == kDebugRegisters) return AccessDebug(id, index, words, write);
    user_fpregs_struct* legacy = nullptr;
    uint8_t* upper = nullptr;
    if (Status status = Floating(legacy, upper); !status.ok()) return status;
    uint8_t* bytes = nullptr;  // little-endian storage of the register's value
    size_t width = 0;
    if (group == kFpEnvironmentRegisters)
      return AccessEnvironment(*legacy, id, index, words, write);
    if (group == kFpAccumulatorRegisters) {
      bytes = reinterpret_cast<uint8_t*>(legacy->st_space) + index * 16;
      width = 10;
    } else if (group == kYmmRegisters) {
      bytes = reinterpret_cast<uint8_t*>(legacy->xmm_space) + index * 16;
      width = 16;
    }
    if (write != nullptr) {
      if (group == kYmmRegisters && upper == nullptr && (write[2] != 0 || write[3] != 0)) {
        return Status::Fail(KXAPI_COMMS_ERR_INVALID_REG_INDEX,
                            u"this CPU has no AVX state: the upper half of " +
                                platform::Utf8ToUtf16(RegisterNameOf(id)) + u" stays zero");
      }
      std::memcpy(bytes, write, width);
      if (group == kYmmRegisters && upper != nullptr)
        std::memcpy(upper + index * 16, write + 2, 16);
      floating_dirty_ = true;
      return Status::Ok();
    }
    std::memcpy(words, bytes, width);
    if (group == kYmmRegisters && upper != nullptr) std::memcpy(words + 2, upper + index * 16, 16);
    return Status::Ok();
  }

 private:
  Status ReadOnly(uint32_t id) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_REG_INDEX,
                        platform::Utf8ToUtf16(RegisterNameOf(id)) + u" (" + Hex(id) +
                            u") cannot be written on the local target");
  }

  Status AccessEnvironment(user_fpregs_struct& fp, uint32_t id, uint32_t index, uint64_t* words,
                           const uint64_t* write) {
    // fcw, fsw, ftw, fzero, fop, fip, fdp, mxcsr, mxcsr_mask
    const uint64_t value = write != nullptr ? write[0] : 0;
    switch (index) {
      case 0:
        return Field(fp.cwd, words, write, value);
      case 1:
        return Field(fp.swd, words, write, value);
      case 2:
        return Field(fp.ftw, words, write, value);
      case 3:
        return write != nullptr ? ReadOnly(id) : Status::Ok();
      case 4:
        return Field(fp.fop, words, write, value);
      case 5:
        return Field(fp.rip, words, write, value);
      case 6:
        return Field(fp.rdp, words, write, value);
      case 7:
        return Field(fp.mxcsr, words, write, value);
      default:
        return Field(fp.mxcr_mask, words, write, value);
    }
  }

  template <class T>
  Status Field(T& field, uint64_t* words, const uint64_t* write, uint64_t value) {
    if (write != nullptr) {
      field = static_cast<T>(value);
      floating_dirty_ = true;
    } else {
      words[0] = field;
    }
    return Status::Ok();
  }

  Status AccessDebug(uint32_t id, uint32_t index, uint64_t* words, const uint64_t* write) {
    // DR4 and DR5 do not exist apart from DR6 and DR7, nor do DR8 and above on x86-64.
    const bool real = index < 8 && index != 4 && index != 5;
    if (write != nullptr) {
      if (!real) return ReadOnly(id);
      return WriteDebugRegister(tid_, index, write[0]);
    }
    if (real) return ReadDebugRegister(tid_, index, words[0]);
    return Status::Ok();
  }

  const pid_t tid_;
  user_regs_struct general_{};
  bool have_general_ = false;
  bool general_dirty_ = false;
  std::vector<uint8_t> xsave_;
  bool has_xsave_ = false;
  bool have_floating_ = false;
  bool floating_dirty_ = false;
};

}  // namespace

Status ReadRegisters(pid_t tid, const U32List& ids, U64List& values) {
  RegisterFile file(tid);
  values.assign(ids.size() * 4, 0);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (Status status = file.Access(ids[i], values.data() + i * 4, nullptr); !status.ok()) {
      values.clear();
      return status;
    }
  }
  return Status::Ok();
}

Status WriteRegisters(pid_t tid, const U32List& ids, const U64List& values) {
  if (values.size() != ids.size() * 4) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PARAMETER_VALUE,
                        u"four 64-bit words are needed for each register, lowest first");
  }
  for (uint32_t id : ids) {
    if (RegisterNameOf(id).empty()) return UnknownId(id);
  }
  RegisterFile file(tid);
  for (size_t i = 0; i < ids.size(); ++i) {
    uint64_t unused[4] = {};
    if (Status status = file.Access(ids[i], unused, values.data() + i * 4); !status.ok()) {
      return status;
    }
  }
  return file.Flush();
}

Status ReadDebugRegister(pid_t tid, uint32_t index, uint64_t& value) {
  errno = 0;
  const long word =
      ptrace(PTRACE_PEEKUSER, tid, reinterpret_cast<void*>(DebugOffset(index)), nullptr);
  if (errno != 0) return Refused(tid, "debug registers");
  value = static_cast<uint64_t>(word);
  return Status::Ok();
}

Status WriteDebugRegister(pid_t tid, uint32_t index, uint64_t value) {
  if (ptrace(PTRACE_POKEUSER, tid, reinterpret_cast<void*>(DebugOffset(index)),
             reinterpret_cast<void*>(value)) != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PARAMETER_VALUE,
                        u"DR" + Decimal(index) + u" of thread " +
                            Decimal(static_cast<uint64_t>(tid)) + u" does not take " + Hex(value) +
                            u" (" + platform::Utf8ToUtf16(std::strerror(errno)) + u")");
  }
  return Status::Ok();
}

Status ReadInstructionPointer(pid_t tid, uint64_t& rip) {
  user_regs_struct regs{};
  if (ptrace(PTRACE_GETREGS, tid, nullptr, &regs) != 0) return Refused(tid, "registers");
  rip = regs.rip;
  return Status::Ok();
}

Status WriteInstructionPointer(pid_t tid, uint64_t rip) {
  user_regs_struct regs{};
  if (ptrace(PTRACE_GETREGS, tid, nullptr, &regs) != 0) return Refused(tid, "registers");
  regs.rip = rip;
  if (ptrace(PTRACE_SETREGS, tid, nullptr, &regs) != 0) return Refused(tid, "registers");
  return Status::Ok();
}

Status ReadInstructionAndStackPointers(pid_t tid, uint64_t& rip, uint64_t& rsp) {
  user_regs_struct regs{};
  if (ptrace(PTRACE_GETREGS, tid, nullptr, &regs) != 0) return Refused(tid, "registers");
  rip = regs.rip;
  rsp = regs.rsp;
  return Status::Ok();
}

}  // namespace qv::server
