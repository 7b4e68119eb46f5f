#include "server/debug/local/proc_files.h"

#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

#include "platform/wide_string.h"
#include "server/kits/scenario.h"

namespace qv::server {
namespace {

std::string Proc(pid_t pid, const std::string& rest) {
  return "/proc/" + std::to_string(pid) + "/" + rest;
}

// A number at the start of `text` (blanks before it skipped); 0 when there is none.
uint64_t Number(std::string_view text, int base = 10) {
  while (!text.empty() && text.front() == ' ')
    text.remove_prefix(1);
  uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value, base);
  return value;
}

bool AllDigits(const char* text) {
  if (*text == '\0') return false;
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return false;
  }
  return true;
}

std::vector<pid_t> NumberedEntries(const std::string& directory) {
  std::vector<pid_t> ids;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return ids;
  while (const dirent* entry = readdir(dir)) {
    if (AllDigits(entry->d_name)) ids.push_back(static_cast<pid_t>(Number(entry->d_name)));
  }
  closedir(dir);
  std::sort(ids.begin(), ids.end());
  return ids;
}

uint64_t Hex64(const std::string& text) {
  uint64_t value = 0;
  for (char c : text) {
    const int digit = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
    if (digit < 0) break;
    value = value * 16 + static_cast<uint64_t>(digit);
  }
  return value;
}

// The "start-end" that begins a line of the maps.
bool ParseRange(std::string_view line, uint64_t& start, uint64_t& end) {
  const char* const last = line.data() + line.size();
  const auto [dash, failed] = std::from_chars(line.data(), last, start, 16);
  return failed == std::errc() && dash != last && *dash == '-' &&
         std::from_chars(dash + 1, last, end, 16).ec == std::errc();
}

}  // namespace

std::optional<Mapping> ParseMappingLine(const std::string& line) {
  // start-end perms offset dev inode [path]
  std::istringstream in(line);
  std::string range, perms, offset, device, inode;
  if (!(in >> range >> perms >> offset >> device >> inode)) return std::nullopt;
  Mapping mapping;
  if (!ParseRange(range, mapping.start, mapping.end) || perms.size() < 4) return std::nullopt;
  const auto bit = [](bool set, uint32_t value) { return set ? value : 0u; };
  mapping.protection = bit(perms[0] == 'r', kProtectRead) | bit(perms[1] == 'w', kProtectWrite) |
                       bit(perms[2] == 'x', kProtectExecute);
  mapping.shared = perms[3] == 's';
  mapping.offset = Hex64(offset);
  std::getline(in >> std::ws, mapping.path);
  return mapping;
}

std::string ReadMapsText(pid_t pid) {
  std::string text;
  const int fd = open(Proc(pid, "maps").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buffer[16384];
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) != 0;) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) break;
    text.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  return text;
}

namespace {

// The kernel's PROCMAP_QUERY request (<linux/fs.h> of Linux 6.11; Debian 12's headers are
// older).
struct ProcmapQuery {
  uint64_t size;
  uint64_t query_flags;
  uint64_t query_addr;
  uint64_t vma_start;
  uint64_t vma_end;
  uint64_t vma_flags;
  uint64_t vma_page_size;
  uint64_t vma_offset;
  uint64_t inode;
  uint32_t dev_major;
  uint32_t dev_minor;
  uint32_t vma_name_size;
  uint32_t build_id_size;
  uint64_t vma_name_addr;
  uint64_t build_id_addr;
};
static_assert(sizeof(ProcmapQuery) == 104);
constexpr unsigned long kProcmapQuery = _IOWR('f', 17, ProcmapQuery);

}  // namespace

MappingQuery::~MappingQuery() {
  if (fd_ >= 0) close(fd_);
}

void MappingQuery::Open(pid_t pid) {
  if (fd_ >= 0) close(fd_);
  fd_ = open(Proc(pid, "maps").c_str(), O_RDONLY | O_CLOEXEC);
}

std::optional<uint64_t> MappingQuery::SizeAt(uint64_t address) {
  if (fd_ < 0 || unsupported_) return std::nullopt;
  ProcmapQuery query{};
  query.size = sizeof query;
  query.query_addr = address;  // no flags: only a mapping that covers it
  if (ioctl(fd_, kProcmapQuery, &query) == 0) return query.vma_end - query.vma_start;
  if (errno == ENOENT) return 0;
  // ENOTTY on a kernel without the request; anything else, the maps will say.
  unsupported_ = errno == ENOTTY || errno == EINVAL;
  return std::nullopt;
}

uint64_t MappingSizeAt(std::string_view text, uint64_t address) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    uint64_t start = 0;
    uint64_t stop = 0;
    if (ParseRange(line, start, stop) && address >= start && address < stop) return stop - start;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return 0;
}

std::vector<Mapping> ParseMappings(const std::string& text) {
  std::vector<Mapping> mappings;
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    if (auto mapping = ParseMappingLine(std::string(rest.substr(0, end))))
      mappings.push_back(std::move(*mapping));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return mappings;
}

std::vector<Mapping> ReadMappings(pid_t pid, bool with_resident) {
  if (!with_resident) return ParseMappings(ReadMapsText(pid));
  std::vector<Mapping> mappings;
  std::ifstream file(Proc(pid, with_resident ? "smaps" : "maps"));
  std::string line;
  while (std::getline(file, line)) {
    if (with_resident && line.compare(0, 4, "Rss:") == 0) {
      if (!mappings.empty())
        mappings.back().resident = Number(std::string_view(line).substr(4)) * 1024;
      continue;
    }
    // smaps' detail lines start with a field name and a colon, never with a hex range.
    if (with_resident && line.find(':') < line.find(' ') && line.find('-') > line.find(' ')) {
      continue;
    }
    if (auto mapping = ParseMappingLine(line)) mappings.push_back(std::move(*mapping));
  }
  return mappings;
}

std::optional<TaskStat> ParseTaskStat(std::string_view text) {
  // pid (comm) state ppid ...: the name may hold blanks and parentheses, so fields count from
  // the last ')'.
  const size_t open = text.find('(');
  const size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open)
    return std::nullopt;
  TaskStat stat;
  stat.name = std::string(text.substr(open + 1, close - open - 1));
  // fields[0] is field 3 (state); ppid 4, utime 14, stime 15, processor 39.
  std::string_view fields[37];
  size_t count = 0;
  std::string_view rest = text.substr(close + 1);
  while (count < std::size(fields)) {
    const size_t begin = rest.find_first_not_of(" \n");
    if (begin == std::string_view::npos) break;
    rest.remove_prefix(begin);
    const size_t end = std::min(rest.find_first_of(" \n"), rest.size());
    fields[count++] = rest.substr(0, end);
    rest.remove_prefix(end);
  }
  if (count < std::size(fields)) return std::nullopt;
  stat.state = fields[0][0];
  stat.parent = static_cast<pid_t>(Number(fields[1]));
  stat.cpu_ticks = Number(fields[11]) + Number(fields[12]);
  stat.processor = static_cast<uint32_t>(Number(fields[36]));
  return stat;
}

std::optional<TaskStat> ReadTaskStat(const std::string& stat_path) {
  // Read at every stop for every thread: one read into the stack, no stream.
  const int fd = open(stat_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buffer[1024];
  ssize_t got = 0;
  do {
    got = read(fd, buffer, sizeof buffer);
  } while (got < 0 && errno == EINTR);
  close(fd);
  if (got <= 0) return std::nullopt;
  return ParseTaskStat(std::string_view(buffer, static_cast<size_t>(got)));
}

std::vector<pid_t> TaskIds(pid_t pid) {
  return NumberedEntries(Proc(pid, "task"));
}

std::vector<pid_t> AllProcessIds() {
  return NumberedEntries("/proc");
}

std::string ReadLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string ReadLink(const std::string& path) {
  char buffer[4096];
  const ssize_t size = readlink(path.c_str(), buffer, sizeof buffer);
  return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : std::string();
}

std::optional<uid_t> OwnerOf(pid_t pid) {
  struct stat info {};
  if (stat(("/proc/" + std::to_string(pid)).c_str(), &info) != 0) return std::nullopt;
  return info.st_uid;
}

uint64_t AuxiliaryValue(pid_t pid, uint64_t type) {
  std::ifstream file(Proc(pid, "auxv"), std::ios::binary);
  Elf64_auxv_t entry{};
  while (file.read(reinterpret_cast<char*>(&entry), sizeof entry)) {
    if (entry.a_type == type) return entry.a_un.a_val;
    if (entry.a_type == AT_NULL) break;
  }
  return 0;
}

OpenFileList OpenFiles(pid_t pid) {
  OpenFileList files;
  for (pid_t fd : NumberedEntries(Proc(pid, "fd"))) {
    const std::string link = Proc(pid, "fd/" + std::to_string(fd));
    OpenFileRecord file;
    file.Handle = static_cast<uint32_t>(fd);
    file.Path = platform::Utf8ToUtf16(ReadLink(link));
    struct stat info {};
    if (stat(link.c_str(), &info) == 0) {
      file.Mode = info.st_mode;
      file.FileSize = S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0;
    }
    std::ifstream fdinfo(Proc(pid, "fdinfo/" + std::to_string(fd)));
    for (std::string key; fdinfo >> key;) {
      std::string value;
      fdinfo >> value;
      if (key == "pos:") file.FilePointer = Number(value);
      if (key == "flags:") file.Flags = static_cast<uint32_t>(Number(value, 8));
    }
    files.push_back(std::move(file));
  }
  return files;
}

SocketInfoList Sockets(pid_t pid) {
  // The socket inodes the process holds, and the descriptor of each.
  std::map<uint64_t, uint32_t> descriptors;
  for (pid_t fd : NumberedEntries(Proc(pid, "fd"))) {
    const std::string link = ReadLink(Proc(pid, "fd/" + std::to_string(fd)));
    if (link.compare(0, 8, "socket:[") == 0) {
      descriptors[Number(std::string_view(link).substr(8))] = static_cast<uint32_t>(fd);
    }
  }
  SocketInfoList sockets;
  struct Table {
    const char* file;
    const char* name;
    uint32_t type;  // SOCK_STREAM 1, SOCK_DGRAM 2
  };
  for (const Table& table : {Table{"net/tcp", "tcp", 1}, Table{"net/udp", "udp", 2}}) {
    std::ifstream file(Proc(pid, table.file));
    std::string line;
    std::getline(file, line);  // the heading
    while (std::getline(file, line)) {
      // sl local rem st tx_queue:rx_queue tr:when retrnsmt uid timeout inode
      std::istringstream in(line);
      std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
      if (!(in >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
            timeout >> inode)) {
        continue;
      }
      const auto it = descriptors.find(Number(inode));
      if (it == descriptors.end()) continue;
      SocketInfoRecord socket;
      socket.Name = platform::Utf8ToUtf16(table.name);
      socket.ProcessId = static_cast<uint32_t>(pid);
      socket.SocketId = it->second;
      socket.SocketType = table.type;
      // The kernel prints the address as the u32 it keeps in network byte order.
      socket.LocalAddr = static_cast<uint32_t>(Hex64(local.substr(0, local.find(':'))));
      socket.LocalPort = static_cast<uint32_t>(Hex64(local.substr(local.find(':') + 1)));
      socket.RemoteAddr = static_cast<uint32_t>(Hex64(remote.substr(0, remote.find(':'))));
      socket.RemotePort = static_cast<uint32_t>(Hex64(remote.substr(remote.find(':') + 1)));
      socket.State = static_cast<uint32_t>(Hex64(state));
      socket.SendQueueLength = static_cast<uint32_t>(Hex64(queues.substr(0, queues.find(':'))));
      socket.RecvQueueLength = static_cast<uint32_t>(Hex64(queues.substr(queues.find(':') + 1)));
      sockets.push_back(std::move(socket));
    }
  }
  return sockets;
}

}  // namespace qv::server
