#include "server/handlers/debug_handlers.h"

#include <memory>

#include "requests/catalogue.h"

namespace qv::server {

// Every row of the debug catalogue: the backend is taken from the registry under its lock and
// called without it. The calls run off the client's reading thread, so a long read or a slow
// backend holds up neither that client's other calls nor anybody else's.
void RegisterDebugHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry) {
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields)                    \
  dispatcher.Register<C##Camel##Request, C##Camel##Response>(                                   \
      [&registry](const RequestContext& context, C##Camel##Request& request,                    \
                  C##Camel##Response& response) {                                               \
        std::shared_ptr<DebugBackend> backend;                                                  \
        if (Status status = registry.DebugBackendOf(context.target, backend); !status.ok()) {   \
          return status;                                                                        \
        }                                                                                       \
        return backend->Camel(DebugCall{context.client_id, context.target}, request, response); \
      },                                                                                        \
      RequestDispatcher::Timing::kMayWait);
#include "requests/debug_operations.def"
}

}  // namespace qv::server
