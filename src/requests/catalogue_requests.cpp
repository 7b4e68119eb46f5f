// The request factory. Requests and responses are instantiated in separate translation units so
// that the catalogue compiles in parallel.
#include <array>

#include "requests/catalogue.h"

namespace qv {

// Each request's members, compiled here alone (the catalogue's header declares them extern).
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  template class RequestOf<C##Camel##Request>;
#include "requests/operations.def"
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  template class RequestOf<C##Camel##Request>;
#include "requests/debug_operations.def"

namespace {

// Sorted at compile time; a type number used twice stops the build.
constexpr auto kRequestEntries = SortByTypeNumber(std::to_array<MessageFactoryEntry<CRequest>>({
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  MessageFactoryEntry<CRequest>{number, C##Camel##Request::kName,            \
                                &MakeMessage<CRequest, C##Camel##Request>},
#include "requests/operations.def"
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields) \
  MessageFactoryEntry<CRequest>{number, C##Camel##Request::kName,            \
                                &MakeMessage<CRequest, C##Camel##Request>},
#include "requests/debug_operations.def"
}));

static_assert(kRequestEntries.size() == kOperationCount);
static_assert(!HasDuplicateTypeNumbers(kRequestEntries), "two operations share a type number");

constexpr MessageFactory<CRequest> kRequestFactory{kRequestEntries};

}  // namespace

const MessageFactory<CRequest>& RequestFactory() {
  return kRequestFactory;
}

}  // namespace qv
