#include "server/handlers/protocol_handlers.h"

#include <memory>
#include <utility>

#include "requests/catalogue.h"

namespace qv::server {
namespace {

// The endpoints are taken from the registry under its lock and called without it. Reads and
// writes wait (for data, for room), so they run off the client's reading thread: a client that
// reads one channel while it writes another is not held up, and neither is anybody else.
template <class Request, class Response, class Call>
void RegisterChannelCall(RequestDispatcher& dispatcher, TargetRegistry& registry, Call call) {
  dispatcher.Register<Request, Response>(
      [&registry, call](const RequestContext& context, Request& request, Response& response) {
        std::shared_ptr<TargetProtocols> endpoints;
        if (Status status = registry.EndpointsOf(context.target, endpoints); !status.ok()) {
          return status;
        }
        return call(*endpoints, context.client_id, request, response);
      },
      RequestDispatcher::Timing::kMayWait);
}

}  // namespace

void RegisterProtocolHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry) {
  RegisterChannelCall<CGenericProtocolOpenRequest, CGenericProtocolOpenResponse>(
      dispatcher, registry,
      [](TargetProtocols& endpoints, uint64_t client, CGenericProtocolOpenRequest& request,
         CGenericProtocolOpenResponse&) { return endpoints.Open(client, request.Protocol); });
  RegisterChannelCall<CGenericProtocolCloseRequest, CGenericProtocolCloseResponse>(
      dispatcher, registry,
      [](TargetProtocols& endpoints, uint64_t client, CGenericProtocolCloseRequest& request,
         CGenericProtocolCloseResponse&) { return endpoints.Close(client, request.Protocol); });
  RegisterChannelCall<CGenericProtocolWriteRequest, CGenericProtocolWriteResponse>(
      dispatcher, registry,
      [](TargetProtocols& endpoints, uint64_t client, CGenericProtocolWriteRequest& request,
         CGenericProtocolWriteResponse& response) {
        return endpoints.Write(client, request.Protocol, request.Data, response.Written);
      });
  RegisterChannelCall<CGenericProtocolReadRequest, CGenericProtocolReadResponse>(
      dispatcher, registry,
      [](TargetProtocols& endpoints, uint64_t client, CGenericProtocolReadRequest& request,
         CGenericProtocolReadResponse& response) {
        Bytes data;
        Status status = endpoints.Read(client, request.Protocol, request.Size, data);
        // The answer refers to the bytes read instead of copying them into its body.
        response.Data = BulkBytes(std::move(data));
        return status;
      });
  RegisterChannelCall<CGenericProtocolStatusRequest, CGenericProtocolStatusResponse>(
      dispatcher, registry,
      [](TargetProtocols& endpoints, uint64_t client, CGenericProtocolStatusRequest& request,
         CGenericProtocolStatusResponse& response) {
        return endpoints.StatusOf(client, request.Protocol, response.Status);
      });
}

}  // namespace qv::server
