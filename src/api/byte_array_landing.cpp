#include "api/byte_array_landing.h"

#include <new>

#include "api/result_values.h"
#include "platform/byte_array.h"

namespace qv {

std::shared_ptr<ByteArrayLanding> ByteArrayLanding::Make(size_t most) noexcept {
  try {
    return std::make_shared<ByteArrayLanding>(most);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

ByteArrayLanding::~ByteArrayLanding() {
  if (array_ != nullptr) SafeArrayDestroy(array_);
}

uint8_t* ByteArrayLanding::Place(size_t size) noexcept {
  if (array_ != nullptr || size == 0 || size > most_ || size > 0x7FFFFFFF) return nullptr;
  array_ = platform::CreateByteArrayForOverwrite(static_cast<ULONG>(size));
  return array_ != nullptr ? static_cast<uint8_t*>(array_->pvData) : nullptr;
}

HRESULT ByteArrayLanding::Out(const std::shared_ptr<ByteArrayLanding>& landing,
                              const BulkBytes& bytes, VARIANT* out) noexcept {
  if (out == nullptr) return E_POINTER;
  if (landing == nullptr || !bytes.LandedIn(*landing)) return OutByteArray(bytes.bytes(), out);
  VariantInit(out);
  out->vt = static_cast<VARTYPE>(VT_ARRAY | VT_UI1);
  out->parray = landing->array_;
  landing->array_ = nullptr;
  return S_OK;
}

}  // namespace qv
