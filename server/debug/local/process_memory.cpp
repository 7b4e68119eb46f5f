#include "server/debug/local/process_memory.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/wide_string.h"
#include "server/debug/reporting.h"

namespace qv::server {
namespace {

// process_vm_readv of one piece; the bytes read (0 on failure).
size_t VmRead(pid_t pid, uint64_t address, uint8_t* data, size_t size) {
  iovec local{data, size};
  iovec remote{reinterpret_cast<void*>(address), size};
  const ssize_t got = process_vm_readv(pid, &local, 1, &remote, 1, 0);
  return got > 0 ? static_cast<size_t>(got) : 0;
}

}  // namespace

ProcessMemory::ProcessMemory(pid_t pid) : pid_(pid) {
  Reopen();
}

ProcessMemory::~ProcessMemory() {
  if (mem_fd_ >= 0) close(mem_fd_);
}

void ProcessMemory::Reopen() {
  const std::string path = "/proc/" + std::to_string(pid_) + "/mem";
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  std::lock_guard lock(mutex_);
  if (mem_fd_ >= 0) close(mem_fd_);
  mem_fd_ = fd;
}

size_t ProcessMemory::ReadMem(uint64_t address, uint8_t* data, size_t size) {
  std::lock_guard lock(mutex_);
  if (mem_fd_ < 0 || address > static_cast<uint64_t>(INT64_MAX)) return 0;
  const ssize_t got = pread(mem_fd_, data, size, static_cast<off_t>(address));
  return got > 0 ? static_cast<size_t>(got) : 0;
}

void ProcessMemory::Read(uint64_t address, uint32_t size, uint8_t* data, uint32_t& bad) {
  bad = 0;
  size_t done = VmRead(pid_, address, data, size);
  // From the first byte the fast path could not read on, a page at a time.
  while (done < size) {
    const uint64_t at = address + done;
    if (at < address) {  // past the top of the address space
      std::memset(data + done, 0, size - done);
      bad += static_cast<uint32_t>(size - done);
      break;
    }
    const size_t piece = std::min<uint64_t>(size - done, kPageSize - at % kPageSize);
    size_t got = VmRead(pid_, at, data + done, piece);
    if (got == 0) got = ReadMem(at, data + done, piece);
    if (got == 0) {
      std::memset(data + done, 0, piece);
      bad += static_cast<uint32_t>(piece);
      got = piece;
    }
    done += got;
  }
}

size_t ProcessMemory::WriteMem(uint64_t address, const uint8_t* data, size_t size, int& error) {
  std::lock_guard lock(mutex_);
  size_t done = 0;
  while (done < size) {
    const uint64_t at = address + done;
    if (mem_fd_ < 0 || at > static_cast<uint64_t>(INT64_MAX)) {
      error = mem_fd_ < 0 ? EBADF : EFAULT;
      break;
    }
    const ssize_t got = pwrite(mem_fd_, data + done, size - done, static_cast<off_t>(at));
    if (got <= 0) {
      error = got < 0 ? errno : EFAULT;
      break;
    }
    done += static_cast<size_t>(got);
  }
  return done;
}

Status ProcessMemory::Write(uint64_t address, const uint8_t* data, size_t size) {
  auto vm_write = [&](size_t from) -> size_t {
    iovec local{const_cast<uint8_t*>(data + from), size - from};
    iovec remote{reinterpret_cast<void*>(address + from), size - from};
    const ssize_t wrote = process_vm_writev(pid_, &local, 1, &remote, 1, 0);
    return wrote > 0 ? static_cast<size_t>(wrote) : 0;
  };
  int error = 0;
  size_t done = 0;
  if (size <= kSmallWrite) {
    // Small writes are mostly a breakpoint's int3 going into read-only text, which
    // process_vm_writev refuses: /proc/PID/mem takes them in one call.
    done = WriteMem(address, data, size, error);
    if (done < size && error == EBADF) done += vm_write(done);
  } else {
    done = vm_write(0);
    if (done < size) done += WriteMem(address + done, data + done, size - done, error);
  }
  if (done == size) return Status::Ok();
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_ADDRESS,
                      Hex(address + done) + u" in process " + Decimal(static_cast<uint64_t>(pid_)) +
                          u" cannot be written (" + platform::Utf8ToUtf16(std::strerror(error)) +
                          u")");
}

}  // namespace qv::server
