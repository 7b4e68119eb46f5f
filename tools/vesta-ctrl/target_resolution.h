#pragma once
// Turning what the user typed for a TARGET into a target object: a handle (a decimal number),
// a host name or a kit's name, tried in that order.

#include <string>
#include <vector>

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

// Every target the server knows, in the server's order. Throws Failure.
std::vector<vekx::ComPtr<ITarget>> ListTargets(IVEKXAPI12& api);

// The one target that `spec` names. Throws Failure when none does ("no target ..."), when a
// name fits several targets, or when the library fails.
vekx::ComPtr<ITarget> ResolveTarget(IVEKXAPI12& api, const std::string& spec);

}  // namespace vesta_ctrl
