#pragma once
// Lists of new public objects made from what a response listed: one target object per handle,
// one name-value pair per record. Like the helpers of result_values.h, each fills the caller's
// VARIANT only when every object could be made, and otherwise leaves it untouched.

#include <cstdint>
#include <vector>

#include "api/server_call.h"
#include "platform/automation.h"
#include "requests/wire_types.h"

namespace qv {

// VT_ARRAY | VT_VARIANT of new target objects sharing `client`, in the order of `handles`.
HRESULT OutTargetArray(const SharedClient& client, const std::vector<uint32_t>& handles,
                       VARIANT* out) noexcept;

// VT_ARRAY | VT_VARIANT of new INameValuePair objects, in the order of `pairs`.
HRESULT OutNameValueArray(const NameValueList& pairs, VARIANT* out) noexcept;

}  // namespace qv
