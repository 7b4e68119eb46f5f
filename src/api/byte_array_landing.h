#pragma once
// A safe array that the bytes of a memory read land in on the read thread, straight from the
// pipe, so that the method hands out the very array the bytes arrived in.
//
//   caller:       Make(most) -> CallServer(..., landing) -> HandOut (or OutByteArray when the
//                 bytes came some other way: small, or from a server that sent more)
//   read thread:  Place(size) makes the array, then the pipe fills it

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/automation.h"
#include "serverlink/bulk_bytes.h"

namespace qv {

class ByteArrayLanding final : public BulkLanding {
 public:
  // A landing for at most `most` bytes; null when memory runs out (the read then goes without).
  static std::shared_ptr<ByteArrayLanding> Make(size_t most) noexcept;

  explicit ByteArrayLanding(size_t most) noexcept : most_(most) {}
  ~ByteArrayLanding() override;
  ByteArrayLanding(const ByteArrayLanding&) = delete;
  ByteArrayLanding& operator=(const ByteArrayLanding&) = delete;

  uint8_t* Place(size_t size) noexcept override;

  // `bytes` as VT_ARRAY | VT_UI1 in `*out`: the array they landed in, handed over, or a copy.
  static HRESULT Out(const std::shared_ptr<ByteArrayLanding>& landing, const BulkBytes& bytes,
                     VARIANT* out) noexcept;

 private:
  const size_t most_;
  SAFEARRAY* array_ = nullptr;  // owned until handed out
};

}  // namespace qv
