#pragma once
// The XSAVE area as threads and core files hold it: the legacy region is the FXSAVE image, the
// header's XSTATE_BV (at 512) says which components hold values, and the upper halves of YMM0 to
// YMM15 follow at 576.

#include <cstddef>

namespace qv::server {

inline constexpr size_t kXstateBvOffset = 512;
inline constexpr size_t kYmmUpperOffset = 576;

}  // namespace qv::server
