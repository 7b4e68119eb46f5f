#include "platform/byte_array.h"

namespace qv::platform {

SAFEARRAY* CreateByteArrayForOverwrite(ULONG count) noexcept {
  return SafeArrayCreateVector(VT_UI1, 0, count);
}

}  // namespace qv::platform
