#pragma once
// The few markers that widl's generated header expects from the Windows SDK and that mean nothing
// to the Itanium ABI: vtable bracketing, RPC calling-convention and constness decorations.

#define BEGIN_INTERFACE
#define END_INTERFACE
#define CONST_VTBL
#define __RPC_USER
#define __RPC_STUB
#define __RPC_FAR
