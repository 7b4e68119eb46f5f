#include "vekxapi/posix/bstr.h"

#include <cstdlib>
#include <cstring>

namespace {

// See the layout drawn in bstr.h.
constexpr std::size_t kHeaderBytes = 8;
constexpr std::size_t kLengthOffset = 4;
// Room for a zero OLECHAR after the data, plus one byte when the byte length is odd.
constexpr std::size_t kTerminatorBytes = 3;
// The byte length lives in a DWORD; refuse anything whose block would not fit in one either.
constexpr std::size_t kMaxByteLength = 0xFFFFFFFFu - kHeaderBytes - kTerminatorBytes - 8;

std::byte* BlockOf(BSTR bstr) {
  return reinterpret_cast<std::byte*>(bstr) - kHeaderBytes;
}

// Allocates a string of `byte_length` bytes with its prefix and terminator written and its data
// uninitialised. nullptr when the length is out of range or memory runs out.
BSTR AllocateBytes(std::size_t byte_length) {
  if (byte_length > kMaxByteLength) return nullptr;
  // Round the block to 8 bytes; the tail past the terminator is never read.
  const std::size_t block_size =
      (kHeaderBytes + byte_length + kTerminatorBytes + 7) & ~std::size_t{7};
  auto* block = static_cast<std::byte*>(std::malloc(block_size));
  if (block == nullptr) return nullptr;
  const auto length = static_cast<DWORD>(byte_length);
  std::memset(block, 0, kLengthOffset);
  std::memcpy(block + kLengthOffset, &length, sizeof length);
  std::memset(block + kHeaderBytes + byte_length, 0, kTerminatorBytes);
  return reinterpret_cast<BSTR>(block + kHeaderBytes);
}

std::size_t ZeroTerminatedLength(const OLECHAR* psz) {
  std::size_t n = 0;
  while (psz[n] != 0)
    ++n;
  return n;
}

// Copies `byte_length` bytes from `source` (zeros when nullptr) into a new string.
BSTR AllocateCopy(const void* source, std::size_t byte_length) {
  BSTR result = AllocateBytes(byte_length);
  if (result == nullptr) return nullptr;
  if (source != nullptr) {
    std::memcpy(result, source, byte_length);
  } else {
    std::memset(result, 0, byte_length);
  }
  return result;
}

}  // namespace

BSTR SysAllocString(const OLECHAR* psz) {
  if (psz == nullptr) return nullptr;
  return AllocateCopy(psz, ZeroTerminatedLength(psz) * sizeof(OLECHAR));
}

BSTR SysAllocStringLen(const OLECHAR* strIn, UINT ui) {
  return AllocateCopy(strIn, std::size_t{ui} * sizeof(OLECHAR));
}

BSTR SysAllocStringByteLen(LPCSTR psz, UINT len) {
  return AllocateCopy(psz, len);
}

INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz) {
  if (pbstr == nullptr) return FALSE;
  if (psz == nullptr) {
    SysFreeString(*pbstr);
    *pbstr = nullptr;
    return TRUE;
  }
  const std::size_t length = ZeroTerminatedLength(psz);
  if (length > 0xFFFFFFFFu) return FALSE;
  return SysReAllocStringLen(pbstr, psz, static_cast<unsigned int>(length));
}

INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* psz, unsigned int len) {
  if (pbstr == nullptr) return FALSE;
  const std::size_t new_bytes = std::size_t{len} * sizeof(OLECHAR);
  // Build the new string before freeing the old one: `psz` may point into it.
  BSTR replacement = AllocateBytes(new_bytes);
  if (replacement == nullptr) return FALSE;
  if (psz != nullptr) {
    std::memcpy(replacement, psz, new_bytes);
  } else {
    const std::size_t old_bytes = SysStringByteLen(*pbstr);
    const std::size_t kept = old_bytes < new_bytes ? old_bytes : new_bytes;
    if (kept != 0) std::memcpy(replacement, *pbstr, kept);
    std::memset(reinterpret_cast<std::byte*>(replacement) + kept, 0, new_bytes - kept);
  }
  SysFreeString(*pbstr);
  *pbstr = replacement;
  return TRUE;
}

void SysFreeString(BSTR bstrString) {
  if (bstrString != nullptr) std::free(BlockOf(bstrString));
}

UINT SysStringLen(BSTR pbstr) {
  return SysStringByteLen(pbstr) / sizeof(OLECHAR);
}

UINT SysStringByteLen(BSTR bstr) {
  if (bstr == nullptr) return 0;
  DWORD length;
  std::memcpy(&length, BlockOf(bstr) + kLengthOffset, sizeof length);
  return length;
}
