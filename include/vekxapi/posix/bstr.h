// BSTR, the length-prefixed automation string, for the POSIX build.
//
// Memory layout (identical to Windows x64):
//
//   block (16-aligned from malloc)
//   +0  4 bytes   unused (keeps the character data 8-aligned, as Windows x64 does)
//   +4  4 bytes   DWORD byte length of the string, not counting the terminator
//   +8  ...       the characters (a BSTR points here), any number of embedded zeros
//   +8+len        a zero OLECHAR (two zero bytes; three when the byte length is odd)
//
// The length is the prefix, never a scan, so embedded zeros survive every copy. A null BSTR is
// a valid empty string for every function here.
//
// Include "vekxapi/automation.h" rather than this file.
#ifndef VEKX_POSIX_BSTR_H_
#define VEKX_POSIX_BSTR_H_

#include "vekxapi/posix/base_types.h"

typedef OLECHAR* BSTR;
typedef BSTR* LPBSTR;

/// Allocates a copy of the zero-terminated `psz`. Returns nullptr when `psz` is nullptr or
/// memory runs out. Free with SysFreeString.
BSTR SysAllocString(const OLECHAR* psz);

/// Allocates a string of `ui` characters copied from `strIn`, which may hold zeros. When
/// `strIn` is nullptr the characters are zero. Returns nullptr only when memory runs out.
BSTR SysAllocStringLen(const OLECHAR* strIn, UINT ui);

/// Allocates a string of `len` bytes copied from `psz` (zeros when nullptr), followed by a zero
/// OLECHAR. SysStringByteLen of the result is `len`, which may be odd.
BSTR SysAllocStringByteLen(LPCSTR psz, UINT len);

/// Replaces `*pbstr` with a copy of the zero-terminated `psz` and frees the old string. Returns
/// FALSE, leaving `*pbstr` untouched, when `pbstr` is nullptr or memory runs out.
INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz);

/// Replaces `*pbstr` with a string of `len` characters copied from `psz`, which may point into
/// the old string. With a null `psz` the old characters are kept (zeros past the old end).
/// Returns FALSE, leaving `*pbstr` untouched, when `pbstr` is nullptr or memory runs out.
INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* psz, unsigned int len);

/// Frees a string from this family. A nullptr is ignored.
void SysFreeString(BSTR bstrString);

/// Length in characters (byte length / 2); 0 for nullptr.
UINT SysStringLen(BSTR pbstr);

/// Length in bytes, as stored in the prefix; 0 for nullptr.
UINT SysStringByteLen(BSTR bstr);

#endif  // VEKX_POSIX_BSTR_H_
