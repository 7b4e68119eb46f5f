#include "api/target_find_rule.h"

#include "api/error_reporting.h"

namespace qv {
namespace {

HRESULT Read(const std::atomic<uint32_t>& field, ULONG* out) {
  if (out == nullptr) return ReportError(E_POINTER);
  *out = field.load(std::memory_order_relaxed);
  return S_OK;
}

}  // namespace

bool CKXVETargetFindRule::IsFamily(REFIID iid) {
  return IsEqualIID(iid, IID_ITargetFindRule);
}

HRESULT CKXVETargetFindRule::get_StartAddress(ULONG* address) {
  return Read(start_, address);
}
HRESULT CKXVETargetFindRule::put_StartAddress(ULONG address) {
  start_.store(address, std::memory_order_relaxed);
  return S_OK;
}
HRESULT CKXVETargetFindRule::get_EndAddress(ULONG* address) {
  return Read(end_, address);
}
HRESULT CKXVETargetFindRule::put_EndAddress(ULONG address) {
  end_.store(address, std::memory_order_relaxed);
  return S_OK;
}
HRESULT CKXVETargetFindRule::get_SubnetMask(ULONG* mask) {
  return Read(mask_, mask);
}
HRESULT CKXVETargetFindRule::put_SubnetMask(ULONG mask) {
  mask_.store(mask, std::memory_order_relaxed);
  return S_OK;
}

}  // namespace qv
