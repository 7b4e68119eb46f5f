// The response factory (see catalogue_requests.cpp for why the two are apart).
#include <array>

#include "requests/catalogue.h"

namespace qv {

// Each response's members, compiled here alone (the catalogue's header declares them extern).
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  template class ResponseOf<C##Camel##Response>;
#include "requests/operations.def"
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  template class ResponseOf<C##Camel##Response>;
#include "requests/debug_operations.def"

namespace {

constexpr auto kResponseEntries = SortByTypeNumber(std::to_array<MessageFactoryEntry<CResponse>>({
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  MessageFactoryEntry<CResponse>{number, C##Camel##Response::kName,          \
                                 &MakeMessage<CResponse, C##Camel##Response>},
#include "requests/operations.def"
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  MessageFactoryEntry<CResponse>{number, C##Camel##Response::kName,          \
                                 &MakeMessage<CResponse, C##Camel##Response>},
#include "requests/debug_operations.def"
}));

static_assert(kResponseEntries.size() == kOperationCount);
static_assert(!HasDuplicateTypeNumbers(kResponseEntries), "two operations share a type number");

constexpr MessageFactory<CResponse> kResponseFactory{kResponseEntries};

}  // namespace

const MessageFactory<CResponse>& ResponseFactory() {
  return kResponseFactory;
}

}  // namespace qv
