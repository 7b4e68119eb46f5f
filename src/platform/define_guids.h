#pragma once
// Include once, in the one file that defines the interface and class identities: after it, each
// DEFINE_GUID of a header included next defines its identity instead of declaring it.

#include "platform/automation.h"

#ifdef _WIN32
#include <initguid.h>
#else
#undef DEFINE_GUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  EXTERN_C const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#endif
