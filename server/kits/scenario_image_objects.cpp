// What an image shows a debugger besides memory and threads: modules, synchronisation and
// application objects, sockets, open files and GPU information (docs/scenarios.md, "Program
// images"). The records are written by their field names (scenario_fields.h); fields that name a
// kernel thread take the names of the image's threads.

#include <set>
#include <string>

#include "server/kits/scenario_checks.h"
#include "server/kits/scenario_fields.h"
#include "server/kits/thread_fields.h"

namespace qv::server {
namespace {

using Kind = DocNode::Kind;

// Reads the kernel-thread fields as thread names, kept as the thread's position plus one.
class ThreadNames {
 public:
  explicit ThreadNames(const std::vector<ImageThread>& threads) : threads_(threads) {}

  template <class T>
  bool operator()(const DocNode& node, const std::string& name, T& field) const {
    if (!NamesKernelThread(name + ":")) return false;
    if constexpr (std::is_same_v<T, uint32_t>) {
      field = Position(node, name);
      return true;
    } else if constexpr (std::is_same_v<T, U32List>) {
      if (node.kind == Kind::kNull) return true;
      if (node.kind != Kind::kList) Refuse(node, "'" + name + "' must be a list of thread names");
      for (const DocNode& item : node.items)
        field.push_back(Position(item, name));
      return true;
    } else {
      return false;
    }
  }

 private:
  uint32_t Position(const DocNode& node, const std::string& name) const {
    const std::string thread = Single(node, name);
    std::string known;
    uint32_t found = 0;
    for (size_t i = 0; i < threads_.size(); ++i) {
      known += (known.empty() ? "" : ", ") + threads_[i].name;
      if (threads_[i].name != thread) continue;
      if (found != 0) Refuse(node, "two threads of the image are named '" + thread + "'");
      found = static_cast<uint32_t>(i + 1);
    }
    if (found == 0) {
      Refuse(node, "'" + name + "' takes the name of one of the image's threads (" + known +
                       "), not '" + thread + "'");
    }
    return found;
  }

  const std::vector<ImageThread>& threads_;
};

template <class T>
void ReadList(const DocNode* node, const std::string& key, const ThreadNames& names,
              std::vector<T>& list) {
  if (node == nullptr || node->kind == Kind::kNull) return;
  if (node->kind != Kind::kList) Refuse(*node, "'" + key + "' must be a list");
  for (const DocNode& item : node->items)
    ReadFields(item, key, list.emplace_back(), names);
}

int32_t& KernelId(SyncObjectRecord& object) {
  return std::visit([](auto& record) -> int32_t& { return record.KernelID; }, object.Object);
}

const std::string& ObjectName(const SyncObjectRecord& object) {
  return std::visit([](const auto& record) -> const std::string& { return record.Name; },
                    object.Object);
}

// Kernel ids left out are the object's position from 1; ids and names must be unique, since
// requests filter by the one and threads wait on the other.
void ReadSync(const DocNode& node, const ThreadNames& names, std::vector<SyncObjectRecord>& sync) {
  if (node.kind == Kind::kNull) return;
  if (node.kind != Kind::kList) Refuse(node, "'sync' must be a list");
  std::set<int32_t> ids;
  std::set<std::string> seen;
  for (const DocNode& item : node.items) {
    SyncObjectRecord object;
    ReadValue(item, "sync", object, names);
    int32_t& id = KernelId(object);
    if (Find(item, "KernelID") == nullptr) id = static_cast<int32_t>(sync.size() + 1);
    if (!ids.insert(id).second) {
      Refuse(item, "kernel id " + std::to_string(id) + " is given to two objects");
    }
    const std::string& name = ObjectName(object);
    if (!name.empty() && !seen.insert(name).second) {
      Refuse(item, "two synchronisation objects are named '" + name + "'");
    }
    sync.push_back(std::move(object));
  }
}

void ReadAppObjects(const DocNode& node, const ThreadNames& names, AppObjectInfoRecord& objects) {
  if (node.kind == Kind::kNull) return;
  if (node.kind != Kind::kMap) Refuse(node, "'app_objects' must be a mapping");
  CheckKeys(node, {"fibers", "ult_runtimes", "job_managers"}, "app_objects");
  ReadList(Find(node, "fibers"), "fibers", names, objects.FiberInfoList);
  ReadList(Find(node, "ult_runtimes"), "ult_runtimes", names, objects.UltRuntimeInfoList);
  ReadList(Find(node, "job_managers"), "job_managers", names, objects.JobManagerInfoList);
}

// A thread's `wait` names one of the image's synchronisation objects.
void ReadWaits(const DocNode& threads, ProgramImage& image) {
  for (size_t i = 0; i < threads.items.size(); ++i) {
    const DocNode* wait = Find(threads.items[i], "wait");
    if (wait == nullptr || wait->kind == Kind::kNull) continue;
    const std::string name = Single(*wait, "wait");
    for (size_t j = 0; j < image.sync.size() && !image.threads[i].wait; ++j) {
      if (ObjectName(image.sync[j]) == name) image.threads[i].wait = j;
    }
    if (!image.threads[i].wait) {
      Refuse(*wait, "'wait' names none of the image's synchronisation objects: '" + name + "'");
    }
  }
}

}  // namespace

void ReadImageObjects(const DocNode& node, ProgramImage& image) {
  const ThreadNames names(image.threads);
  ReadList(Find(node, "modules"), "modules", names, image.modules);
  if (const DocNode* sync = Find(node, "sync")) ReadSync(*sync, names, image.sync);
  if (const DocNode* objects = Find(node, "app_objects")) {
    ReadAppObjects(*objects, names, image.app_objects);
  }
  ReadList(Find(node, "sockets"), "sockets", names, image.sockets);
  ReadList(Find(node, "files"), "files", names, image.files);
  if (const DocNode* threads = Find(node, "threads");
      threads != nullptr && threads->kind == Kind::kList) {
    ReadWaits(*threads, image);
  }
}

}  // namespace qv::server
