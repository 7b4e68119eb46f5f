#include "process_resolution.h"

#include "debug_values.h"
#include "target_resolution.h"

namespace vesta_ctrl {

ProcessRef ResolveProcess(Context& context, const std::string& spec, std::uint32_t pid) {
  ProcessRef ref{ResolveTarget(context.session.Api(), spec), nullptr, pid};
  const vekx::Variant list = Read(*ref.target.Get(), &ITarget::get_ProcessInfoSnapshot);
  for (const auto& info : ObjectsOf<IProcessInfo>(list.Get(), IID_IProcessInfo)) {
    if (Read(*info.Get(), &IProcessInfo::get_Id) != pid) continue;
    ref.process = Read(*info.Get(), &IProcessInfo::get_ProcessInterface);
    if (!ref.process) Check(E_POINTER);
    return ref;
  }
  throw Failure(S_OK, "no process " + std::to_string(pid) + " on '" + spec +
                          "' (see 'vesta-ctrl ps " + spec + "')");
}

vekx::ComPtr<IThread> ResolveThread(const ProcessRef& process, std::uint32_t tid) {
  const vekx::Variant list = Read(*process.process.Get(), &IProcess::get_ThreadInfoSnapshot);
  for (const auto& info : ObjectsOf<IThreadInfo>(list.Get(), IID_IThreadInfo)) {
    if (Read(*info.Get(), &IThreadInfo::get_Id) != tid) continue;
    vekx::ComPtr<IThread> thread = Read(*info.Get(), &IThreadInfo::get_ThreadInterface);
    if (!thread) Check(E_POINTER);
    return thread;
  }
  throw Failure(S_OK,
                "process " + std::to_string(process.pid) + " has no thread " + std::to_string(tid));
}

}  // namespace vesta_ctrl
