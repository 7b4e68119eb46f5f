#pragma once
// Every operation of the server as a request class and a response class (qv::C<Name>Request,
// qv::C<Name>Response), generated from the rows of operations.def and debug_operations.def, and
// the factories that make them from a type number.

#include "requests/debug_records.h"
#include "requests/wire_types.h"
#include "serverlink/message_factory.h"
#include "serverlink/messages.h"

namespace qv {

#define VEKX_OPERATION VEKX_OPERATION_CLASSES
#include "requests/operations.def"
#define VEKX_OPERATION VEKX_OPERATION_CLASSES
#include "requests/debug_operations.def"

// The number of operations in the catalogue.
inline constexpr size_t kOperationCount = 289;

// Makes requests from type numbers (the server's side of the wire).
const MessageFactory<CRequest>& RequestFactory();
// Makes responses from type numbers (the library's side of the wire).
const MessageFactory<CResponse>& ResponseFactory();

}  // namespace qv
