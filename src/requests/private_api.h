#pragma once
// The one object between the public objects and the server: it owns the link to the server, the
// notification thread, and the registrations of every event group.
//
// The root object makes it (CKXVEPrivateAPI::Create); the root and every object handed out from
// it share it through std::shared_ptr, so it ends when the last of them lets go, on whatever
// thread that happens. Nothing here throws: link failures come back as link statuses, and the
// helpers that public methods use turn them into result codes.
//
//   caller thread:        Call -> SendAndWait -> (Connect -> connected hook) -> write -> wait
//   read thread:          frame -> response to its waiter | notification to the queue
//   notification thread:  queue -> OnNotification -> group lock -> notify clients -> sinks
//
// Member order matters for destruction: the link (and its read thread) goes first, then the
// notification thread, then the registries the notification thread delivers from.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/automation.h"
#include "requests/event_registry.h"
#include "requests/notifications.h"
#include "serverlink/link_status.h"
#include "serverlink/messages.h"
#include "serverlink/notification_pump.h"
#include "serverlink/server_link.h"

namespace qv {

// What public objects ask of the private client.
class CKXPrivateAPI {
 public:
  virtual ~CKXPrivateAPI() = default;

  // Sends `request` for `target_handle` (kNoTarget for the server itself) and blocks until its
  // response arrives or the connection ends. Connects, and starts the server, when needed.
  // `landing`, when given, is where the response's large byte field should go (BulkBytes).
  virtual LinkStatus SendAndWait(uint32_t target_handle, const CRequest& request,
                                 CResponse& response,
                                 std::shared_ptr<BulkLanding> landing = nullptr) = 0;

  // Advises: files `client` under `key` in `group`'s registry after the server accepted the
  // group's subscribe message for `key`. KXAPI_ALREADY_REGISTERED for a sink already filed there.
  virtual HRESULT Advise(EventGroup group, std::shared_ptr<IVEEventNotifyClient> client,
                         uint32_t key) = 0;
  // Unadvises: removes the registration of the same sink, if any; when none is left under `key`,
  // sends the group's cancel message for it, whose failure is the result.
  virtual HRESULT Unadvise(EventGroup group, const IVEEventNotifyClient& client, uint32_t key) = 0;
  // Removes the registration of the same sink, if any, and sends nothing: undoes an advise whose
  // purpose failed afterwards (a generic protocol channel that did not open).
  virtual void Withdraw(EventGroup group, const IVEEventNotifyClient& client, uint32_t key) = 0;
  virtual size_t RegistrationCount(EventGroup group, uint32_t key) const = 0;

  // Whether the link to the server is up; used by the root object's Dispose with the two below.
  virtual bool IsLinkUp() const = 0;
  // Ends the link for good: every wait gives up, and no request connects again.
  virtual void ShutdownStep() = 0;
  virtual HRESULT Disconnect() = 0;

  // SendAndWait with its outcome as a result code: the link status's code when the link failed,
  // else the response's Result (its ResultText stays in the response for the error text).
  HRESULT Call(uint32_t target_handle, const CRequest& request, CResponse& response,
               std::shared_ptr<BulkLanding> landing = nullptr);

  // Set by the root object's Dispose. Every public object checks it before anything else, so
  // that nothing sharing this client sends a request, reconnects or starts a server afterwards.
  void MarkDisposed() noexcept { disposed_.store(true, std::memory_order_release); }
  bool IsDisposed() const noexcept { return disposed_.load(std::memory_order_acquire); }

 private:
  std::atomic<bool> disposed_{false};
};

class CKXVEPrivateAPI final : public CKXPrivateAPI,
                              public std::enable_shared_from_this<CKXVEPrivateAPI> {
 public:
  // A private client for the current user's server. Null when memory runs out.
  static std::shared_ptr<CKXVEPrivateAPI> Create();
  // A private client for the server of another user name and runtime directory (tests).
  static std::shared_ptr<CKXVEPrivateAPI> Create(ServerLink::ServerNames names);

  ~CKXVEPrivateAPI() override;
  CKXVEPrivateAPI(const CKXVEPrivateAPI&) = delete;
  CKXVEPrivateAPI& operator=(const CKXVEPrivateAPI&) = delete;

  LinkStatus SendAndWait(uint32_t target_handle, const CRequest& request, CResponse& response,
                         std::shared_ptr<BulkLanding> landing = nullptr) override;
  HRESULT Advise(EventGroup group, std::shared_ptr<IVEEventNotifyClient> client,
                 uint32_t key) override;
  HRESULT Unadvise(EventGroup group, const IVEEventNotifyClient& client, uint32_t key) override;
  void Withdraw(EventGroup group, const IVEEventNotifyClient& client, uint32_t key) override;
  size_t RegistrationCount(EventGroup group, uint32_t key) const override;
  bool IsLinkUp() const override;
  void ShutdownStep() override;
  HRESULT Disconnect() override;

 private:
  explicit CKXVEPrivateAPI(ServerLink::ServerNames names);

  // The notification thread's entry: delivers one notification to its group's sinks.
  void OnNotification(const std::shared_ptr<CNotification>& notification);
  // The notification thread, before it delivers a batch: acknowledges each piece of console
  // output in it, all in one write.
  void AcknowledgeConsoleOutput(const NotificationPump::Batch& batch);
  // After every new connection: one subscribe per (group, key) that has registrations, sent only
  // on that connection, so that a lost connection ends the replay instead of connecting again.
  void OnConnected();

  std::array<EventRegistry, kEventGroupCount> registries_;
  NotificationPump pump_;
  ServerLink link_;
};

}  // namespace qv
