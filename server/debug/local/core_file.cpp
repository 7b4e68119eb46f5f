#include "server/debug/local/core_file.h"
#include "server/debug/local/process_memory.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/procfs.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include "platform/wide_string.h"
#include "server/debug/reporting.h"

namespace qv::server {
namespace {

// Memory goes out in pieces of this size, so that a cancel is seen soon.
constexpr uint32_t kCoreWritePiece = 1 << 20;
// Room for the XSAVE area of any CPU this runs on (AVX-512 takes about 2.7 KiB).
constexpr size_t kXstateRoom = 16384;

uint64_t RoundUp(uint64_t value, uint64_t unit) {
  return (value + unit - 1) / unit * unit;
}

std::u16string Reason(int error) {
  return platform::Utf8ToUtf16(std::generic_category().message(error));
}

// One note: header, name and description, each padded to four bytes.
void AddNote(std::vector<uint8_t>& notes, const char* name, uint32_t type, const void* data,
             size_t size) {
  Elf64_Nhdr header{};
  header.n_namesz = static_cast<Elf64_Word>(std::strlen(name) + 1);
  header.n_descsz = static_cast<Elf64_Word>(size);
  header.n_type = type;
  const auto* bytes = reinterpret_cast<const uint8_t*>(&header);
  notes.insert(notes.end(), bytes, bytes + sizeof header);
  notes.insert(notes.end(), name, name + header.n_namesz);
  notes.resize(RoundUp(notes.size(), 4));
  bytes = static_cast<const uint8_t*>(data);
  notes.insert(notes.end(), bytes, bytes + size);
  notes.resize(RoundUp(notes.size(), 4));
}

template <class T>
void Append(std::vector<uint8_t>& bytes, const T& value) {
  const auto* at = reinterpret_cast<const uint8_t*>(&value);
  bytes.insert(bytes.end(), at, at + sizeof value);
}

// NT_FILE: how many, the page size, then (start, end, offset in pages) for each file mapping and
// their paths, each ended by a NUL.
std::vector<uint8_t> FileNote(const std::vector<Mapping>& mappings) {
  std::vector<uint8_t> ranges;
  std::string paths;
  uint64_t count = 0;
  for (const Mapping& mapping : mappings) {
    if (mapping.path.empty() || mapping.path[0] != '/') continue;
    ++count;
    Append(ranges, mapping.start);
    Append(ranges, mapping.end);
    Append(ranges, mapping.offset / kPageSize);
    paths += mapping.path;
    paths += '\0';
  }
  std::vector<uint8_t> note;
  Append(note, count);
  Append(note, kPageSize);
  note.insert(note.end(), ranges.begin(), ranges.end());
  note.insert(note.end(), paths.begin(), paths.end());
  return note;
}

void AddThreadNotes(std::vector<uint8_t>& notes, const CoreImage& image, const CoreThread& thread,
                    bool first) {
  elf_prstatus status{};
  status.pr_info.si_signo = thread.signal;
  status.pr_cursig = static_cast<short>(thread.signal);
  status.pr_pid = thread.tid;
  status.pr_ppid = image.parent;
  status.pr_pgrp = getpgid(image.pid);
  status.pr_sid = getsid(image.pid);
  static_assert(sizeof status.pr_reg == sizeof thread.regs);
  std::memcpy(&status.pr_reg, &thread.regs, sizeof thread.regs);
  status.pr_fpvalid = 1;
  AddNote(notes, "CORE", NT_PRSTATUS, &status, sizeof status);
  if (first) {
    // The process's notes follow its first thread's status, as the kernel orders them.
    elf_prpsinfo info{};
    info.pr_state = 3;  // stopped, as the kernel numbers the states
    info.pr_sname = image.state;
    info.pr_pid = image.pid;
    info.pr_ppid = image.parent;
    info.pr_pgrp = getpgid(image.pid);
    info.pr_sid = getsid(image.pid);
    info.pr_uid = image.uid;
    info.pr_gid = image.gid;
    std::strncpy(info.pr_fname, image.name.c_str(), sizeof info.pr_fname - 1);
    std::strncpy(info.pr_psargs, image.arguments.c_str(), sizeof info.pr_psargs - 1);
    AddNote(notes, "CORE", NT_PRPSINFO, &info, sizeof info);
    if (!image.auxv.empty()) AddNote(notes, "CORE", NT_AUXV, image.auxv.data(), image.auxv.size());
    const std::vector<uint8_t> files = FileNote(image.mappings);
    AddNote(notes, "CORE", NT_FILE, files.data(), files.size());
  }
  AddNote(notes, "CORE", NT_FPREGSET, &thread.fpregs, sizeof thread.fpregs);
  if (!thread.xstate.empty())
    AddNote(notes, "LINUX", NT_X86_XSTATE, thread.xstate.data(), thread.xstate.size());
}

bool Saved(const Mapping& mapping, bool full) {
  // The kernel's own pages of every process are not the program's memory.
  if (mapping.path.rfind("[vvar", 0) == 0 || mapping.path == "[vsyscall]") return false;
  if ((mapping.protection & 1) == 0) return false;
  return full || (mapping.protection & 2) != 0;
}

std::string ReadWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Writes all of `data` at the file's position; false with errno set when it cannot.
bool WriteAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t wrote = write(fd, data, size);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    data += wrote;
    size -= static_cast<size_t>(wrote);
  }
  return true;
}

}  // namespace

Status ReadCoreThread(pid_t tid, int signal, CoreThread& thread) {
  thread.tid = tid;
  thread.signal = signal;
  if (ptrace(PTRACE_GETREGS, tid, nullptr, &thread.regs) != 0 ||
      ptrace(PTRACE_GETFPREGS, tid, nullptr, &thread.fpregs) != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_COREDUMP_CREATE, u"the registers of thread " +
                                                             Decimal(static_cast<uint32_t>(tid)) +
                                                             u" cannot be read: " + Reason(errno));
  }
  thread.xstate.assign(kXstateRoom, 0);
  iovec area{thread.xstate.data(), thread.xstate.size()};
  if (ptrace(PTRACE_GETREGSET, tid, reinterpret_cast<void*>(NT_X86_XSTATE), &area) == 0) {
    thread.xstate.resize(area.iov_len);
  } else {
    thread.xstate.clear();
  }
  return Status::Ok();
}

void ReadCoreProcess(pid_t pid, CoreImage& image) {
  const std::string root = "/proc/" + std::to_string(pid);
  image.pid = pid;
  if (const auto stat = ReadTaskStat(root + "/stat")) image.parent = stat->parent;
  image.name = ReadLine(root + "/comm");
  std::string arguments = ReadWhole(root + "/cmdline");
  while (!arguments.empty() && arguments.back() == '\0')
    arguments.pop_back();
  std::replace(arguments.begin(), arguments.end(), '\0', ' ');
  image.arguments = arguments;
  const std::string auxv = ReadWhole(root + "/auxv");
  image.auxv.assign(auxv.begin(), auxv.end());
  std::ifstream status(root + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Uid:", 0) == 0) image.uid = static_cast<uid_t>(std::stoul(line.substr(4)));
    if (line.rfind("Gid:", 0) == 0) image.gid = static_cast<gid_t>(std::stoul(line.substr(4)));
  }
  image.mappings = ReadMappings(pid);
}

Status WriteCoreFile(const std::string& path, const CoreImage& image, bool full,
                     const CoreMemoryReader& read_memory, const std::atomic<bool>& cancel,
                     const std::function<void(uint32_t percent)>& progress) {
  const std::u16string name = platform::Utf8ToUtf16(path);
  std::vector<const Mapping*> saved;
  for (const Mapping& mapping : image.mappings) {
    if (Saved(mapping, full)) saved.push_back(&mapping);
  }
  std::vector<uint8_t> notes;
  for (size_t i = 0; i < image.threads.size(); ++i)
    AddThreadNotes(notes, image, image.threads[i], i == 0);

  const size_t headers = sizeof(Elf64_Ehdr) + (saved.size() + 1) * sizeof(Elf64_Phdr);
  std::vector<uint8_t> head(headers);
  Elf64_Ehdr elf{};
  std::memcpy(elf.e_ident, ELFMAG, SELFMAG);
  elf.e_ident[EI_CLASS] = ELFCLASS64;
  elf.e_ident[EI_DATA] = ELFDATA2LSB;
  elf.e_ident[EI_VERSION] = EV_CURRENT;
  elf.e_ident[EI_OSABI] = ELFOSABI_NONE;
  elf.e_type = ET_CORE;
  elf.e_machine = EM_X86_64;
  elf.e_version = EV_CURRENT;
  elf.e_phoff = sizeof elf;
  elf.e_ehsize = sizeof elf;
  elf.e_phentsize = sizeof(Elf64_Phdr);
  elf.e_phnum = static_cast<Elf64_Half>(saved.size() + 1);
  std::memcpy(head.data(), &elf, sizeof elf);
  std::vector<Elf64_Phdr> segments(saved.size() + 1);
  segments[0].p_type = PT_NOTE;
  segments[0].p_offset = headers;
  segments[0].p_filesz = notes.size();
  segments[0].p_align = 4;
  uint64_t offset = RoundUp(headers + notes.size(), kPageSize);
  uint64_t total = 0;
  for (size_t i = 0; i < saved.size(); ++i) {
    Elf64_Phdr& load = segments[i + 1];
    const uint64_t size = saved[i]->end - saved[i]->start;
    load.p_type = PT_LOAD;
    load.p_flags = ((saved[i]->protection & 1) != 0 ? PF_R : 0) |
                   ((saved[i]->protection & 2) != 0 ? PF_W : 0) |
                   ((saved[i]->protection & 4) != 0 ? PF_X : 0);
    load.p_offset = offset;
    load.p_vaddr = saved[i]->start;
    load.p_filesz = size;
    load.p_memsz = size;
    load.p_align = kPageSize;
    offset += size;
    total += size;
  }
  std::memcpy(head.data() + sizeof elf, segments.data(), segments.size() * sizeof(Elf64_Phdr));

  // Never over a file that is there: the path comes from the wire.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    const int error = errno;
    return Status::Fail(KXAPI_COMMS_ERR_COREDUMP_CREATE,
                        error == EEXIST
                            ? name + u" already exists; a core dump never replaces a file"
                            : name + u" cannot be created: " + Reason(error));
  }
  progress(0);
  bool ok = WriteAll(fd, head.data(), head.size()) && WriteAll(fd, notes.data(), notes.size());
  uint64_t written = 0;
  uint32_t shown = 0;
  Bytes piece;
  for (size_t i = 0; ok && !cancel && i < saved.size(); ++i) {
    ok = lseek(fd, static_cast<off_t>(segments[i + 1].p_offset), SEEK_SET) >= 0;
    for (uint64_t at = saved[i]->start; ok && !cancel && at < saved[i]->end; at += piece.size()) {
      const auto size =
          static_cast<uint32_t>(std::min<uint64_t>(kCoreWritePiece, saved[i]->end - at));
      read_memory(at, size, piece);
      piece.resize(size);
      for (const auto& [address, original] : image.originals) {
        if (address >= at && address - at < size) piece[address - at] = original;
      }
      ok = WriteAll(fd, piece.data(), piece.size());
      written += size;
      const auto percent = static_cast<uint32_t>(written * 100 / total);
      if (percent != shown) progress(shown = percent);
    }
  }
  const int error = ok ? 0 : errno;
  const bool closed = close(fd) == 0;
  Status status = Status::Ok();
  if (cancel) {
    status = Status::Fail(KXAPI_COMMS_ERR_OPERATION_CANCELLED,
                          u"the core dump to " + name + u" was cancelled");
  } else if (!ok || !closed) {
    status =
        Status::Fail(KXAPI_COMMS_ERR_WRITING_FILE, u"writing the core dump to " + name +
                                                       u" failed: " + Reason(ok ? errno : error));
  } else if (shown != 100) {
    progress(100);
  }
  if (!status.ok()) unlink(path.c_str());
  return status;
}

}  // namespace qv::server
