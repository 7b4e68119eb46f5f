#pragma once
// What a virtual process shows of itself besides memory and threads: its modules,
// synchronisation and application objects, sockets, open files and GPU information, taken from
// its program image with the process's own thread and process ids put in (thread_fields.h).
// Fixed when the process is made, so read without a lock.

#include <cstdint>
#include <vector>

#include "requests/catalogue.h"
#include "server/core/status.h"
#include "server/kits/scenario.h"

namespace qv::server {

class ProcessObjects {
 public:
  // `first_tid` is the id of the image's first thread; the others follow in order.
  ProcessObjects(const ProgramImage& image, uint32_t pid, uint32_t first_tid);

  // The image's modules, or one for the program itself: its name, path and entry, and a segment
  // per region (the region's protection bits as its attributes).
  const ModuleInfoList& Modules() const { return modules_; }
  // The objects of the kinds in `types` (kind numbers; every kind when empty) whose kernel ids
  // are in `ids` (every id when empty). A kind number that no kind has is refused.
  Status Sync(const U32List& types, const U32List& ids, SyncPrimInfoRecord& out) const;
  // The image's synchronisation object at `position` (what a thread's `wait` names).
  const SyncObjectRecord& SyncObject(size_t position) const { return sync_[position]; }
  // The lists that `flags` select (eAppObjectType bits; 0: all), and the bits answered for.
  AppObjectInfoRecord AppObjects(uint32_t flags) const;
  const SocketInfoList& Sockets() const { return sockets_; }
  const OpenFileList& Files() const { return files_; }
  const Bytes& GpuInfo() const { return gpu_info_; }

 private:
  ModuleInfoList modules_;
  std::vector<SyncObjectRecord> sync_;
  AppObjectInfoRecord app_objects_;
  SocketInfoList sockets_;
  OpenFileList files_;
  Bytes gpu_info_;
};

}  // namespace qv::server
