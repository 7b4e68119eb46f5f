#include "server/handlers/root_handlers.h"

#include <string>

#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "server/core/server_log.h"

namespace qv::server {

void RegisterRootHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry,
                          ServerSwitches& switches) {
  dispatcher.Register<CEnableHostExecRequest, CEnableHostExecResponse>(
      [&switches](const RequestContext&, CEnableHostExecRequest& request,
                  CEnableHostExecResponse&) {
        switches.host_exec.store(request.Enable);
        return Status::Ok();
      });
  dispatcher.Register<CHostExecEnabledRequest, CHostExecEnabledResponse>(
      [&switches](const RequestContext&, CHostExecEnabledRequest&,
                  CHostExecEnabledResponse& response) {
        response.Enabled = switches.host_exec.load();
        return Status::Ok();
      });
  // The level of the server's own diagnostics, the one --log-level sets at start.
  dispatcher.Register<CSetLoggingLevelRequest, CSetLoggingLevelResponse>(
      [](const RequestContext&, CSetLoggingLevelRequest& request, CSetLoggingLevelResponse&) {
        if (request.Level > kLogRequests) {
          return Status::Fail(KXAPI_SERVER_INVALID_ARG,
                              u"the logging level " +
                                  platform::Utf8ToUtf16(std::to_string(request.Level)) +
                                  u" is not one from 0 to 4");
        }
        SetLogLevel(static_cast<int>(request.Level));
        return Status::Ok();
      });
  dispatcher.Register<CGetLoggingLevelRequest, CGetLoggingLevelResponse>(
      [](const RequestContext&, CGetLoggingLevelRequest&, CGetLoggingLevelResponse& response) {
        response.Level = static_cast<uint32_t>(GetLogLevel());
        return Status::Ok();
      });
  dispatcher.Register<CGetCoreDumpTargetByHostRequest, CGetCoreDumpTargetByHostResponse>(
      [&registry](const RequestContext&, CGetCoreDumpTargetByHostRequest& request,
                  CGetCoreDumpTargetByHostResponse& response) {
        if (request.PseudoHost.empty()) {
          return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the pseudo host is empty");
        }
        return registry.CoreDumpTargetByHost(request.PseudoHost, response.Handle);
      });
  // Addressed to the core dump target that ADD_TARGET made for the pseudo host. Parsing a large
  // core's notes takes a while: off the client's reading thread.
  dispatcher.Register<CLoadCoreDumpRequest, CLoadCoreDumpResponse>(
      [&registry](const RequestContext& context, CLoadCoreDumpRequest& request,
                  CLoadCoreDumpResponse&) {
        return registry.LoadCoreDump(context.target, request.FileName);
      },
      RequestDispatcher::Timing::kMayWait);
  // The host drive (a file system driver that shows a kit's files on the host) is not built for
  // any platform vesta-kx runs on; each of its operations says so.
  const auto no_host_drive = [](const RequestContext&, auto&, auto&) {
    return Status::Fail(KXAPI_SERVER_DOKAN_INVALID_DRIVE,
                        u"The host drive is not available on this platform: vesta-kx has no "
                        u"file system driver.");
  };
  dispatcher.Register<CStartFileSystemDriverRequest, CStartFileSystemDriverResponse>(no_host_drive);
  dispatcher.Register<CStopFileSystemDriverRequest, CStopFileSystemDriverResponse>(no_host_drive);
  dispatcher.Register<CGetFileSystemDriveRequest, CGetFileSystemDriveResponse>(no_host_drive);
  dispatcher.Register<CGetFileSystemDriverVersionRequest, CGetFileSystemDriverVersionResponse>(
      no_host_drive);
}

}  // namespace qv::server
