#include "server/debug/virtual/process_objects.h"

#include <algorithm>
#include <type_traits>
#include <variant>

#include "platform/wide_string.h"
#include "server/debug/reporting.h"
#include "server/kits/thread_fields.h"

namespace qv::server {
namespace {

constexpr uint32_t kAllAppObjects = 0x7;  // APP_OBJ_TYPE_FIBER | _ULT | _JOB_MANAGER

// Thread positions (plus one) become the process's thread ids, and a process id left out
// becomes its own.
template <class T>
void PutIdsIn(T& records, uint32_t pid, uint32_t first_tid) {
  const auto tid = [first_tid](uint32_t position) {
    return position == 0 ? 0 : first_tid + position - 1;
  };
  VisitLeafFields(records, [&](const char* label, auto& field) {
    using Field = std::decay_t<decltype(field)>;
    if constexpr (std::is_same_v<Field, uint32_t>) {
      if (NamesKernelThread(label)) field = tid(field);
      if (NamesOwnProcess(label) && field == 0) field = pid;
    } else if constexpr (std::is_same_v<Field, U32List>) {
      if (NamesKernelThread(label)) std::transform(field.begin(), field.end(), field.begin(), tid);
    }
  });
}

ModuleInfoRecord ProgramModule(const ProgramImage& image) {
  ModuleInfoRecord module;
  module.ModuleName = platform::Utf8ToUtf16(image.name);
  module.LoadPath = image.path;
  module.StartEntryAddress = image.entry;
  module.ReferenceCount = 1;
  for (const ImageRegion& region : image.regions)
    module.SegmentInfoList.push_back({region.protection, 0, region.base, region.bytes.size()});
  return module;
}

int32_t KernelId(const SyncObjectRecord& object) {
  return std::visit([](const auto& record) { return record.KernelID; }, object.Object);
}

// Appends `object` to the list of its kind: the kind is the position of the list among the
// record's fields.
void Append(const SyncObjectRecord& object, SyncPrimInfoRecord& out) {
  std::visit(
      [&](const auto& record) {
        using Record = std::decay_t<decltype(record)>;
        size_t position = 0;
        SyncPrimInfoRecord::VisitFields(out, [&](const char*, auto& list) {
          using List = std::decay_t<decltype(list)>;
          if constexpr (std::is_same_v<typename List::value_type, Record>) {
            if (position == object.Object.index()) list.push_back(record);
          }
          ++position;
        });
      },
      object.Object);
}

}  // namespace

ProcessObjects::ProcessObjects(const ProgramImage& image, uint32_t pid, uint32_t first_tid)
    : modules_(image.modules),
      sync_(image.sync),
      app_objects_(image.app_objects),
      sockets_(image.sockets),
      files_(image.files),
      gpu_info_(image.gpu_info) {
  if (modules_.empty()) modules_.push_back(ProgramModule(image));
  PutIdsIn(modules_, pid, first_tid);
  PutIdsIn(sync_, pid, first_tid);
  PutIdsIn(app_objects_, pid, first_tid);
  PutIdsIn(sockets_, pid, first_tid);
  PutIdsIn(files_, pid, first_tid);
}

Status ProcessObjects::Sync(const U32List& types, const U32List& ids,
                            SyncPrimInfoRecord& out) const {
  for (uint32_t type : types) {
    if (type >= kSyncObjectKindCount) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG,
                          u"no kind of synchronisation object has the number " + Decimal(type) +
                              u" (they are 0 to " + Decimal(kSyncObjectKindCount - 1) + u")");
    }
  }
  out = {};
  for (const SyncObjectRecord& object : sync_) {
    const auto kind = static_cast<uint32_t>(object.Object.index());
    const auto id = static_cast<uint32_t>(KernelId(object));
    if (!types.empty() && std::find(types.begin(), types.end(), kind) == types.end()) continue;
    if (!ids.empty() && std::find(ids.begin(), ids.end(), id) == ids.end()) continue;
    Append(object, out);
  }
  return Status::Ok();
}

AppObjectInfoRecord ProcessObjects::AppObjects(uint32_t flags) const {
  const uint32_t selected = flags == 0 ? kAllAppObjects : flags & kAllAppObjects;
  AppObjectInfoRecord answer;
  if ((selected & 1) != 0) answer.FiberInfoList = app_objects_.FiberInfoList;
  if ((selected & 2) != 0) answer.UltRuntimeInfoList = app_objects_.UltRuntimeInfoList;
  if ((selected & 4) != 0) answer.JobManagerInfoList = app_objects_.JobManagerInfoList;
  answer.Flags = selected;
  return answer;
}

}  // namespace qv::server
