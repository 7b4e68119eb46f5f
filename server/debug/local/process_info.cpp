#include "server/debug/local/process_info.h"

#include <elf.h>
#include <unistd.h>

#include <string>

#include "platform/wide_string.h"
#include "server/debug/local/proc_files.h"

namespace qv::server {

std::optional<ProcessInfoRecord> ProcessInfoOf(pid_t pid) {
  const std::string base = "/proc/" + std::to_string(pid) + "/";
  const std::optional<TaskStat> stat = ReadTaskStat(base + "stat");
  if (!stat) return std::nullopt;
  ProcessInfoRecord record;
  record.ProcessID = static_cast<uint32_t>(pid);
  record.Name = ReadLine(base + "comm");
  record.ProcessPathname = platform::Utf8ToUtf16(ReadLink(base + "exe"));
  record.ParentPID = static_cast<uint32_t>(stat->parent);
  record.MainThrId = static_cast<uint32_t>(pid);
  record.Entry = AuxiliaryValue(pid, AT_ENTRY);
  const long ticks = sysconf(_SC_CLK_TCK);
  if (ticks > 0) record.ProcessTime = stat->cpu_ticks * 1000000 / static_cast<uint64_t>(ticks);
  return record;
}

std::optional<ProcessInfoRecord> ProcessInfoOf(pid_t pid, const ProcessInfoRecord& known) {
  const std::optional<TaskStat> stat = ReadTaskStat("/proc/" + std::to_string(pid) + "/stat");
  if (!stat) return std::nullopt;
  ProcessInfoRecord record = known;
  record.ParentPID = static_cast<uint32_t>(stat->parent);
  const long ticks = sysconf(_SC_CLK_TCK);
  if (ticks > 0) record.ProcessTime = stat->cpu_ticks * 1000000 / static_cast<uint64_t>(ticks);
  return record;
}

ThreadInfoRecord ThreadInfoOf(pid_t pid, pid_t tid) {
  const std::string base = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/";
  ThreadInfoRecord record;
  record.Tid = static_cast<uint32_t>(tid);
  record.State = kThreadRunning;
  if (const std::optional<TaskStat> stat = ReadTaskStat(base + "stat")) {
    record.Name = stat->name;
    record.CpuId = stat->processor;
    if (stat->state != 'R') {
      record.State = kThreadInhibited;
      record.WaitState = stat->state == 't' || stat->state == 'T' ? kWaitSuspended : kWaitSleeping;
    }
  }
  return record;
}

}  // namespace qv::server
