#pragma once
// CKXVETargetFindRule: one address range for FindTargets, filled in by the client. It lives on
// the client's side only; FindTargets reads its three values through the interface.

#include <atomic>
#include <cstdint>

#include "api/automation_object.h"
#include "vekxapi/vekxapi.h"

namespace qv {

class CKXVETargetFindRule final : public AutomationObject<CKXVETargetFindRule, ITargetFindRule> {
 public:
  CKXVETargetFindRule() noexcept = default;

  static bool IsFamily(REFIID iid);
  static const IID& DispatchIid() { return IID_ITargetFindRule; }

  HRESULT STDMETHODCALLTYPE get_StartAddress(ULONG* address) override;
  HRESULT STDMETHODCALLTYPE put_StartAddress(ULONG address) override;
  HRESULT STDMETHODCALLTYPE get_EndAddress(ULONG* address) override;
  HRESULT STDMETHODCALLTYPE put_EndAddress(ULONG address) override;
  HRESULT STDMETHODCALLTYPE get_SubnetMask(ULONG* mask) override;
  HRESULT STDMETHODCALLTYPE put_SubnetMask(ULONG mask) override;

 private:
  // Free-threaded: another thread may set a value while FindTargets reads it.
  std::atomic<uint32_t> start_{0};
  std::atomic<uint32_t> end_{0};
  std::atomic<uint32_t> mask_{0};
};

}  // namespace qv
