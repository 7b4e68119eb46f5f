#pragma once
// What /proc tells about a local process: its mappings, threads, states, open files and sockets.
// Each reader answers what it could read; a process that has gone reads as empty.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "requests/debug_records.h"

namespace qv::server {

// One line of /proc/PID/maps (with its resident size from smaps when asked for).
struct Mapping {
  uint64_t start = 0;
  uint64_t end = 0;         // the first address past it
  uint32_t protection = 0;  // read 1, write 2, execute 4
  bool shared = false;
  uint64_t offset = 0;
  std::string path;  // a file, "[heap]", "[stack]", ... or empty
  uint64_t resident = 0;
};
std::vector<Mapping> ReadMappings(pid_t pid, bool with_resident = false);
// The text of /proc/PID/maps as it is now (empty once the process has gone), and the mappings
// it lists: what a stop compares with the last one before parsing anything.
std::string ReadMapsText(pid_t pid);
std::vector<Mapping> ParseMappings(const std::string& text);
// The size of the mapping in maps `text` that holds `address`, 0 when none does: read at every
// stop for every thread, so it parses nothing but the ranges.
uint64_t MappingSizeAt(std::string_view text, uint64_t address);
// One mappings line, or nullopt for one that does not parse.
std::optional<Mapping> ParseMappingLine(const std::string& line);

// The mapping an address lies in, asked of the kernel one address at a time (PROCMAP_QUERY on
// /proc/PID/maps, Linux 6.11 and later) rather than by reading every mapping.
class MappingQuery {
 public:
  MappingQuery() = default;
  ~MappingQuery();
  MappingQuery(const MappingQuery&) = delete;
  MappingQuery& operator=(const MappingQuery&) = delete;

  // Opens the maps of `pid`, again after an exec: the file holds on to the memory it was opened
  // on.
  void Open(pid_t pid);
  // The size of the mapping that holds `address`, 0 when none does; nullopt when the kernel
  // cannot be asked this way, and the maps are to be read instead.
  std::optional<uint64_t> SizeAt(uint64_t address);

 private:
  int fd_ = -1;
  bool unsupported_ = false;
};

// The fields of /proc/PID/stat (or /proc/PID/task/TID/stat) that a debugger shows.
struct TaskStat {
  char state = '?';  // R, S, D, T, t, Z, ...
  pid_t parent = 0;
  uint64_t cpu_ticks = 0;  // user and system time, in clock ticks
  uint32_t processor = 0;
  std::string name;  // as in /proc/PID/comm
};
std::optional<TaskStat> ReadTaskStat(const std::string& stat_path);
std::optional<TaskStat> ParseTaskStat(std::string_view text);

// The ids under /proc/PID/task, ascending.
std::vector<pid_t> TaskIds(pid_t pid);
// The first line of a small /proc file without its line end; empty when it cannot be read.
std::string ReadLine(const std::string& path);
// Where a /proc link points; empty when it cannot be read.
std::string ReadLink(const std::string& path);
// The owner's uid of /proc/PID, or nullopt once the process has gone.
std::optional<uid_t> OwnerOf(pid_t pid);
// Every process id under /proc, ascending.
std::vector<pid_t> AllProcessIds();
// The value of `type` (AT_ENTRY, AT_BASE, ...) in the process's auxiliary vector; 0 when it is
// not there or cannot be read.
uint64_t AuxiliaryValue(pid_t pid, uint64_t type);

// The process's open files (sockets and pipes too), by descriptor.
OpenFileList OpenFiles(pid_t pid);
// Its IPv4 TCP and UDP sockets, from /proc/PID/net/{tcp,udp} matched to its descriptors.
SocketInfoList Sockets(pid_t pid);

}  // namespace qv::server
