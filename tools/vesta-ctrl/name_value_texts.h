#pragma once
// The name-value pair lists the library returns (target information, protocol information) as
// name and value texts, in the server's order.

#include <string>
#include <utility>
#include <vector>

#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

using NameValueTexts = std::vector<std::pair<std::string, std::string>>;

// The pairs of `list`, a VARIANT array of INameValuePair objects. Throws Failure.
NameValueTexts ReadNameValueTexts(const VARIANT& list);

// The value of `name` in `pairs`, or an empty text.
std::string ValueOf(const NameValueTexts& pairs, const std::string& name);

}  // namespace vesta_ctrl
